"""The Debian packages, installed, upgraded, removed and purged on a bare Debian 12 under its own systemd."""

import os
import re
import shutil
import subprocess
import time

import pytest
from bare_host import PACKAGES, ROOT, BareHost, output, packages

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="needs root")

SMALL = "--host /usr/share/doc/tovric-vessad/examples/hosts/small.yaml"
VMS = ["web-1", "backup"]
AS_ROOT = "SNMPCONFPATH=/etc/snmp/kelv"
SNIPPET = "/etc/snmp/snmpd.conf.d/kelv.conf"
COMMUNITY = "/etc/snmp/snmpd.conf.d/kelv-local.conf"
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
    """A folder with the packages and, in older/, those of a version before, whose settings are other files."""
    folder = tmp_path / "archives"
    (folder / "older").mkdir(parents=True)
    for file in PACKAGES.glob("*.deb"):
        shutil.copy(file, folder)
    for file in packages().values():
        tree = tmp_path / "tree"
        subprocess.run(["dpkg-deb", "--raw-extract", file, tree], check=True)
        control = tree / "DEBIAN/control"
        control.write_text(re.sub(r"^Version: .*", "Version: 0.0.1", control.read_text(), flags=re.MULTILINE))
        for setting in [*tree.glob("etc/default/*"), *tree.glob("etc/snmp/*/*")]:
            setting.write_text(setting.read_text() + "# of an older version\n")
        subprocess.run(["dpkg-deb", "-Zgzip", "--root-owner-group", "--build", tree, folder / "older"], check=True,
                       stdout=subprocess.DEVNULL)
        shutil.rmtree(tree)
    return folder


@pytest.fixture
def libvirt_host(tmp_path, archives):
    booted = BareHost(tmp_path, archives, ("libvirt-daemon-system", "libvirt-clients", "qemu-system-x86"))
    yield booted
    booted.close()


@pytest.fixture
def host(tmp_path, archives):
    booted = BareHost(tmp_path, archives)
    yield booted
    booted.close()


def access(host, *files):
    return host.run(f"stat -c '%a %U %G' {' '.join(files)}").stdout.splitlines()


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
    host.run(f"{AS_ROOT} kelv-status")
    # Standard modules are preferred where there are some.
    host.run("sed '$ i standard OBJECT IDENTIFIER ::= { enterprises 99999 }' /usr/share/kelv-mibs/smi/SNMPv2-SMI.txt "
             ">/usr/share/snmp/mibs/SNMPv2-SMI.txt")
    assert host.run(f"{AS_ROOT} snmptranslate -On SNMPv2-SMI::standard").stdout == ".1.3.6.1.4.1.99999\n"


GUEST = """
    <domain type='qemu'>
      <name>{name}</name><memory unit='MiB'>64</memory><os><type arch='x86_64' machine='pc'>hvm</type></os>
      <devices>
        <disk type='file'><source file='/var/lib/libvirt/images/{name}.img'/><target dev='sda' bus='scsi'/></disk>
        <controller type='scsi' model='virtio-scsi'/>
      </devices>
    </domain>"""


def test_a_host_with_guests_shows_them_once_the_packages_are_installed(libvirt_host, archives):
    for name in ("mail", "web"):
        (archives / f"{name}.xml").write_text(GUEST.format(name=name))
        libvirt_host.run(f"truncate -s 8M /var/lib/libvirt/images/{name}.img && virsh define /packages/{name}.xml")
    libvirt_host.run("virsh start mail")
    libvirt_host.run(install())
    walks = [libvirt_host.run(f"{AS_ROOT} snmpwalk -Oqv localhost {column}").stdout.splitlines()
             for column in ("vmDisplayName", "vmMemSize", "vmState", "tgtLabel")]
    assert sorted(zip(*walks, strict=True)) == [("mail", "64 megabytes", "poweredOn", "Hard disk 1 (sda)"),
                                                ("web", "64 megabytes", "poweredOff", "Hard disk 1 (sda)")]
    libvirt_host.run(f"{AS_ROOT} kelv-status")
    libvirt_host.run("apt-get purge -y tovric-vessad snmpd-kelv")
    assert libvirt_host.run("virsh list --name").stdout.split() == ["mail"]


def test_the_module_needs_an_agent_of_the_release_it_was_built_with():
    version = output("dpkg-query", "-W", "-f=${source:Upstream-Version}", "libsnmp-dev")
    series, patch = re.match(r"(\d+\.\d+)\.(\d+)", version).groups()
    depends = output("dpkg-deb", "-f", packages()["snmpd-kelv"], "Depends").strip().split(", ")
    assert [relation for relation in depends if relation.startswith("snmpd ")] == \
        [f"snmpd (>= {series}.{patch})", f"snmpd (<< {series}.{int(patch) + 1}~)"]


def test_the_status_tells_what_is_stopped_or_withdrawn(host):
    host.run("apt-get install -y /packages/*.deb")
    absent = host.run(f"{AS_ROOT} kelv-status", check=False)
    assert absent.returncode == 1
    assert re.findall("^FAIL +(\\w+): ", absent.stdout, re.M) == ["source", "snapshot", "query"], absent.stdout
    assert "install libvirt-daemon-system" in absent.stdout
    host.run(f"{describe_host(SMALL)} && systemctl daemon-reload && systemctl restart tovric-vessad snmpd")
    host.run("systemctl stop tovric-vessad.socket tovric-vessad")
    stopped = host.run(f"{AS_ROOT} kelv-status", check=False)
    assert stopped.returncode == 1
    assert re.search("^FAIL +daemon: .*refused", stopped.stdout, re.M), stopped.stdout
    remedy = "systemctl start tovric-vessad.socket tovric-vessad"
    assert remedy in stopped.stdout
    host.run(f"{remedy} && {AS_ROOT} kelv-status")
    host.run(f"rm {COMMUNITY} && systemctl restart snmpd")
    withdrawn = host.run(f"{AS_ROOT} kelv-status", check=False)
    assert withdrawn.returncode == 1
    assert re.findall("^FAIL +(\\w+): ", withdrawn.stdout, re.M) == ["query"], withdrawn.stdout


def test_only_those_named_can_read(host):
    host.run(describe_host(SMALL))
    host.run(install())
    assert names(host) == VMS
    module = "-M -/usr/share/kelv-mibs/smi -m TOVRIC-KELV-MIB localhost vmDisplayName"
    assert "No more variables left" in host.run(f"snmpwalk -v2c -c public {module}", check=False).stdout
    assert access(host, SNIPPET, COMMUNITY, "/etc/snmp/kelv/snmp.conf") == \
        ["640 root Debian-snmp", "640 root Debian-snmp", "600 root root"]
    # As the snippet's comments say.
    host.run(f"""
        systemctl stop snmpd
        echo 'createUser manager SHA-256 "authentication" AES "privacy phrase"' >>/var/lib/snmp/snmpd.conf
        sed -i 's/^#rouser/rouser/; s/^#rocommunity COMMUNITY 192.0.2.1/rocommunity open 127.0.0.1/' {SNIPPET}
        systemctl start snmpd""")
    passphrases = "-a SHA-256 -A authentication -x AES -X 'privacy phrase'"
    v3 = f"-v3 -l authPriv -u manager {passphrases}"
    for credentials in (v3, "-v2c -c open"):
        assert host.run(f"snmpwalk {credentials} -Oqv {module}").stdout.split() == VMS
    # As the manual's examples say.
    page = (ROOT / "man/SNMPKelv.8").read_text().partition(".Sh EXAMPLES\n")[2]
    commands, configuration = re.findall(r"^\.Bd -literal.*?\n(.*?)^\.Ed", page, re.M | re.S)[:2]
    commands = commands.replace("...", passphrases).replace("HOST", "localhost")
    shown = host.run(f"set -e\n{commands}").stdout
    assert shown.startswith("SNMP table: TOVRIC-KELV-MIB::vmTable\n"), shown
    assert "TOVRIC-KELV-MIB::netHCTx.1 = " in shown, shown
    assert configuration in (ROOT / "docs/mib.md").read_text().replace("    ", "")
    host.run(f"mkdir -p /root/.snmp && cat >/root/.snmp/snmp.conf <<'END'\n{configuration}END")
    assert host.run(f"snmpwalk {v3} -Oqv localhost vmDisplayName").stdout.split() == VMS


def test_an_upgrade_keeps_settings_and_the_port(host):
    host.run(describe_host(SMALL))
    host.run("apt-get install -y /packages/older/*.deb")
    host.run(f"for file in /etc/default/tovric-vessad {SNIPPET}; do echo '# edited' >>$file; done; chmod 644 {SNIPPET}")
    community = host.run("cat /etc/snmp/kelv/snmp.conf").stdout
    before = host.run(UNITS).stdout
    # By number: the files of the MIB are replaced too.
    walking = host.start(f"while [ ! -e /run/upgraded ]; do {AS_ROOT} snmpbulkwalk -m '' -r 9 -t 1 -Oqv localhost "
                         ".1.3.6.1.4.1.32473.2.1 "
                         ">/run/walk 2>/run/error && wc -l </run/walk || grep -o genError /run/error "
                         "|| cat /run/error; done")
    host.run(f"{install()} -o Dpkg::Options::=--force-confold")
    assert names(host) == VMS
    host.run("touch /run/upgraded")
    walks = walking.communicate(timeout=60)[0].splitlines()
    # snmpd replies so to the GETBULK that it works on when it is told to end.
    if "genError" in walks:
        walks.remove("genError")
    assert len(set(walks)) == 1 and int(walks[0]) > 0, walks
    for file in ("/etc/default/tovric-vessad", SNIPPET):
        assert host.run(f"tail -2 {file}").stdout == "# of an older version\n# edited\n"
    assert access(host, SNIPPET) == ["640 root Debian-snmp"]
    assert host.run("cat /etc/snmp/kelv/snmp.conf").stdout == community
    after = host.run(UNITS).stdout
    changed = set(after.split("\n\n")) - set(before.split("\n\n"))
    restarted = {re.search("Id=(.*)", unit)[1] for unit in changed if unit.strip()}
    assert restarted == {"snmpd.service", "tovric-vessad.service"}
    # A replaced file would be named with "(deleted)".
    assert " (deleted)" not in host.run("grep SNMPKelv /proc/$(pidof snmpd)/maps").stdout
    host.run(f"dpkg-statoverride --update --add root adm 640 {SNIPPET} && {install('snmpd-kelv')} --reinstall")
    assert access(host, SNIPPET) == ["640 root adm"]


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
    host.run(describe_host("--libvirt test:///default"))
    host.run(install())
    assert names(host) == ["test"]
    everything = " ".join(packages())
    host.run(f"apt-get remove -y {everything} && test -s /var/lib/tovric-vessad/identities")
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
    # Only where nobody is a member of the agent's group, a purge of the agent deletes it.
    host.run(f"""
        set -e
        gpasswd --delete tovric-vessad Debian-snmp
        apt-get remove -y snmpd-kelv
        apt-get purge -y snmpd
        groupadd --system --gid $(stat -c %g {COMMUNITY}) another""")
    host.run(install())
    assert names(host) == VMS
    assert access(host, SNIPPET, COMMUNITY) == ["640 root Debian-snmp"] * 2
    # The agent reads them as its own user then.
    host.run("kill -HUP $(pidof snmpd)")
    assert names(host) == VMS
