"""Hosts of libvirt's own test driver: the walk of the agent equals what virsh says of them."""

import re
import subprocess

import domain_tree
import fresh_agent
import libvirt_host
import pytest
import system

pytestmark = pytest.mark.xdist_group("computes")


def statistics(uri, domains):
    """The statistics of the domains under the names of domstats, from virsh's older commands."""
    commands = []
    for domain in domains:
        if domain_tree.POWER[domain.state] == "poweredOff":
            continue
        commands += [(domain, "vcpuinfo", ""), (domain, "dommemstat", "")]
        commands += [(domain, "domblkstat", drive.find("target").get("dev")) for drive in domain.disks()]
        commands += [(domain, "domifstat", card.find("target").get("dev")) for card in domain.cards
                     if card.find("target") is not None]
    found = {domain.uuid: {} for domain in domains}
    outputs = libvirt_host.virsh(uri, *(f"{command} {domain.uuid} {device}" for domain, command, device in commands))
    for (domain, command, device), output in zip(commands, outputs):
        found[domain.uuid].update(_READERS[command](output, device))
    return found


def _cpus(output, _):
    times = re.findall(r"^VCPU:\s+(\d+)$.*?^CPU time:\s+([\d.]+)s$", output, re.MULTILINE | re.DOTALL)
    return {f"vcpu.{cpu}.time": int(float(seconds) * 10 ** 9) for cpu, seconds in times}


def _memory(output, _):
    numbers = dict(line.split() for line in output.splitlines() if line)
    return {"active": int(numbers["available"]) - int(numbers["unused"])}


def _disk(output, device):
    names = {"rd_req": "rd.reqs", "rd_bytes": "rd.bytes", "wr_req": "wr.reqs", "wr_bytes": "wr.bytes"}
    numbers = [line.split()[1:] for line in output.splitlines() if line]
    return {f"block.{device}.{names[name]}": int(number) for name, number in numbers if name in names}


def _card(output, device):
    names = {"rx_packets": "rx.pkts", "rx_bytes": "rx.bytes", "tx_packets": "tx.pkts", "tx_bytes": "tx.bytes"}
    numbers = [line.split()[1:] for line in output.splitlines() if line]
    return {f"net.{device}.{names[name]}": int(number) for name, number in numbers if name in names}


_READERS = {"vcpuinfo": _cpus, "dommemstat": _memory, "domblkstat": _disk, "domifstat": _card}


@pytest.fixture(params=[1, 50, 1000])
def uri(request, directory):
    file = directory / "host.xml"
    file.write_text(libvirt_host.host_file(request.param))
    return f"test://{file}"


def test_the_walk_equals_what_virsh_says(uri, directory, start_libvirt_daemon):
    domains = domain_tree.domains(uri)
    before = statistics(uri, domains)
    daemon = start_libvirt_daemon(uri)
    daemon.wait_for_vms(len(domains))
    found, _ = fresh_agent.ask(directory, lambda client: client.bulk_walk(repetitions=50))
    after = statistics(uri, domains)
    vm_ids = daemon.vm_ids()
    assert sorted(vm_ids) == sorted(domain.uuid for domain in domains)
    assert len(set(vm_ids.values())) == len(domains)
    domain_tree.assert_equal(found, domain_tree.tree(uri, vm_ids, before, after, listed=domains, cpu_shares=50))


def test_vms_keep_their_ids_over_a_restart(directory, start_libvirt_daemon, start_agent):
    file = directory / "host.xml"
    file.write_text(libvirt_host.host_file(5))
    daemon = start_libvirt_daemon(f"test://{file}")
    before = daemon.vm_ids()
    daemon.stop()
    file.write_text(libvirt_host.host_file(9))
    after = start_libvirt_daemon(f"test://{file}").vm_ids()
    assert len(before) == 5 and len(after) == 9
    assert {uuid: after[uuid] for uuid in before} == before


@pytest.mark.parametrize("uri, reason", [
    ("nonsense", "does not include a driver name"), ("test:///no/such.xml", "failed to parse"),
    (":::", "it names no driver")])
def test_a_uri_that_cannot_work_ends_the_daemon_with_the_reason(uri, reason, directory):
    command = [system.DAEMON, "--libvirt", uri, "--listen", "127.0.0.1:902", "--ticket-dir", directory / "tickets",
               "--state-dir", directory / "state", "--foreground"]
    run = subprocess.run(command, capture_output=True, text=True, timeout=20, check=False)
    assert run.returncode != 0
    assert f"the libvirt URI {uri} cannot be used" in run.stderr and reason in run.stderr


def test_a_host_that_is_down_is_served_empty(directory, start_libvirt_daemon, start_agent):
    daemon = start_libvirt_daemon(f"qemu+unix:///system?socket={directory}/none")
    agent = start_agent()
    agent.allow_log("SNMPRaskRefreshCache: no VM found.", *system.DATA_LOG)
    found = agent.client.walk(root=(1, 3, 6, 1, 4, 1, 32473, 2))
    assert found == []
    assert "libvirt cannot be reached" in daemon.log_text()
