"""The Debian packages, installed, upgraded, removed and purged on a bare Debian 12 under its own systemd."""

import os
import re
import shutil
import subprocess
import time

import pytest
from bare_host import BareHost, output, packages

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="needs root")

SMALL = "--host /usr/share/doc/tovric-vessad/examples/hosts/small.yaml"
VMS = ["web-1", "backup"]
AS_ROOT = "SNMPCONFPATH=/etc/snmp/kelv"
UNITS = "systemctl show --property=Id,MainPID,ActiveEnterTimestampMonotonic --type=service,socket '*'"


def describe_host(source):
    """A shell command for a host that has VMs without libvirtd; not in the packages' own files."""
    return ("mkdir -p /etc/systemd/system/tovric-vessad.service.d && "
            f"printf '[Service]\\nEnvironment=\"SOURCE={source}\"\\n' "
            ">/etc/systemd/system/tovric-vessad.service.d/host.conf")


def install(*names):
    files = " ".join(f"/packages/{packages()[name].name}" for name in names or sorted(packages()))
    return f"apt-get install -y {files}"


@pytest.fixture
def archives(tmp_path):
    """A folder with the packages and, in older/, those of a version before, whose settings' file is another one."""
    folder = tmp_path / "archives"
    (folder / "older").mkdir(parents=True)
    for file in packages().values():
        shutil.copy(file, folder)
        tree = tmp_path / "tree"
        subprocess.run(["dpkg-deb", "--raw-extract", file, tree], check=True)
        control = tree / "DEBIAN/control"
        control.write_text(re.sub(r"^Version: .*", "Version: 0.0.1", control.read_text(), flags=re.MULTILINE))
        for setting in tree.glob("etc/default/*"):
            setting.write_text(setting.read_text() + "# of an older version\n")
        subprocess.run(["dpkg-deb", "-Zgzip", "--root-owner-group", "--build", tree, folder / "older"], check=True,
                       stdout=subprocess.DEVNULL)
        shutil.rmtree(tree)
    return folder


@pytest.fixture
def host(tmp_path, archives):
    booted = BareHost(tmp_path, archives)
    yield booted
    booted.close()


def names(host):
    return host.run(f"{AS_ROOT} snmpbulkwalk -Oqv localhost vmDisplayName").stdout.split()


def test_one_command_installs_and_one_shows_the_vms(host):
    host.run(describe_host("--libvirt test:///default"))
    start = time.monotonic()
    host.run(install())
    installed = time.monotonic()
    table = host.run(f"{AS_ROOT} snmptable localhost vmTable").stdout
    print(f"installed after {installed - start:.1f} s, the table after {time.monotonic() - start:.1f} s\n{table}")
    heading, row = table.splitlines()[-2:]
    assert heading.startswith(
        " vmIdx vmDisplayName         vmConfigFile  vmGuestOS      vmMemSize   vmState vmVMID vmGuestState")
    assert row.startswith(
        "     0          test Unknown config: 1000 hvm (i686) 8192 megabytes poweredOn   1000      running")


def test_only_those_named_can_read(host):
    host.run(describe_host(SMALL))
    host.run(install())
    assert names(host) == VMS
    module = "-M +/usr/share/kelv-mibs/smi -m TOVRIC-KELV-MIB localhost vmDisplayName"
    assert "No more variables left" in host.run(f"snmpwalk -v2c -c public {module}", check=False).stdout
    secrets = "/etc/snmp/snmpd.conf.d/kelv-local.conf /etc/snmp/kelv/snmp.conf"
    assert host.run(f"stat -c '%a %U %G' {secrets}").stdout == "640 root Debian-snmp\n600 root root\n"
    # As the snippet's comments say.
    host.run("""
        systemctl stop snmpd
        echo 'createUser manager SHA-256 "authentication" AES "privacy phrase"' >>/var/lib/snmp/snmpd.conf
        sed -i 's/^#rouser/rouser/; s/^#rocommunity COMMUNITY 192.0.2.1/rocommunity open 127.0.0.1/' \
            /etc/snmp/snmpd.conf.d/kelv.conf
        systemctl start snmpd""")
    v3 = "-v3 -l authPriv -u manager -a SHA-256 -A authentication -x AES -X 'privacy phrase'"
    for access in (v3, "-v2c -c open"):
        assert host.run(f"snmpwalk {access} -Oqv {module}").stdout.split() == VMS


def test_an_upgrade_keeps_settings_and_the_port(host):
    host.run(describe_host(SMALL))
    host.run("apt-get install -y /packages/older/*.deb")
    host.run("echo '# edited' >>/etc/default/tovric-vessad")
    community = host.run("cat /etc/snmp/kelv/snmp.conf").stdout
    before = host.run(UNITS).stdout
    walking = host.start(f"while [ ! -e /run/upgraded ]; do {AS_ROOT} snmpbulkwalk -r 9 -t 1 -Oqv localhost vmTable "
                         "| wc -l; done")
    host.run(f"{install()} -o Dpkg::Options::=--force-confold")
    assert names(host) == VMS
    host.run("touch /run/upgraded")
    walks = set(walking.communicate(timeout=60)[0].split())
    assert len(walks) == 1 and walks != {"0"}, walks
    assert "# edited" in host.run("cat /etc/default/tovric-vessad").stdout
    assert host.run("cat /etc/snmp/kelv/snmp.conf").stdout == community
    after = host.run(UNITS).stdout
    changed = set(after.split("\n\n")) - set(before.split("\n\n"))
    restarted = {re.search("Id=(.*)", unit)[1] for unit in changed if unit.strip()}
    assert restarted == {"snmpd.service", "tovric-vessad.service"}
    # A replaced file would be named with "(deleted)".
    assert " (deleted)" not in host.run("grep SNMPKelv /proc/$(pidof snmpd)/maps").stdout


FILES = "find / -xdev -path /proc -prune -o -path /sys -prune -o -path /packages -prune -o -print; find /run /etc"
# What installing any package leaves behind.
TRACES = re.compile(r"/var/(log|cache|lib/apt|lib/dpkg|backups)/|/etc/(passwd|shadow|group|gshadow)-|/run/systemd/")


def traces(host):
    return sorted({file for file in host.run(FILES).stdout.splitlines() if not TRACES.match(file)})


def test_a_purge_leaves_only_the_user(host):
    relations = ",".join(output("dpkg-deb", "-f", file, "Depends") for file in packages().values()).split(",")
    others = [relation for relation in map(str.strip, relations) if relation and relation.split()[0] not in packages()]
    host.run(f"apt-get satisfy -y '{', '.join(others)}, osinfo-db, snmp' && systemctl is-active snmpd")
    before = traces(host)
    host.run(describe_host(SMALL))
    host.run(install())
    assert names(host) == VMS
    everything = " ".join(packages())
    host.run(f"apt-get remove -y {everything}")
    assert host.run("systemctl is-active snmpd; pidof tovric-vessad", check=False).stdout == "active\n"
    assert "SNMPKelv" not in host.run("cat /proc/$(pidof snmpd)/maps").stdout
    assert "Timeticks" in host.run("snmpget -v2c -c public localhost .1.3.6.1.2.1.1.3.0").stdout
    host.run(f"apt-get purge -y {everything}")
    host.run("rm -r /etc/systemd/system/tovric-vessad.service.d; systemctl daemon-reload")
    assert traces(host) == before
    assert host.run("getent passwd tovric-vessad").stdout.endswith(":/usr/sbin/nologin\n")


def test_the_agent_can_come_later_and_again(host):
    host.run(describe_host(SMALL))
    host.run(install("tovric-vessad"))
    host.run(install())
    assert names(host) == VMS
    host.run("apt-get purge -y snmpd && groupadd another")
    host.run(install())
    assert names(host) == VMS
