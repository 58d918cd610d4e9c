"""A manager's view of whole hosts: every way of reading must return the tree that the description gives."""

import expected_tree
import mib
import pytest
import system
from mib import ENTERPRISE
from snmp_client import V1, ErrorStatus

HOSTS = ["small", "every-device", "resources", "catalogue", "many-cores", "empty"]

ODD_TEXTS = ["", " ", "   ", "\t", "a\nb", "a\r\nb", "]]>", "<!-- -->", "&amp;&#0;", "%s%n", "\U0001F427" * 3,
             "x" * 255, "x" * 2559, "x" * 2560, "é" * 1280, "x" + "é" * 1280, "\U0001F427" * 700, "y" * 100000]


def describe_texts():
    """A host that carries each odd text in every place that takes a text."""
    def quoted(text):
        return '"' + "".join(c if c.isalnum() and c.isascii() else f"\\U{ord(c):08x}" for c in text) + '"'

    vms = []
    for number, text in enumerate(map(quoted, ODD_TEXTS)):
        backing = f"{{type: DeviceBackingInfo, deviceName: {text}}}"
        info = f"{{label: {text}, summary: {text}}}"
        vms.append(f"""
  - id: "{number}"
    config:
      name: {text}
      guestFullName: {text}
      files: {{vmPathName: {text}}}
      hardware:
        numCPU: 1
        memoryMB: 16
        device:
          - {{type: VirtualLsiLogicController, key: 1, deviceInfo: {info}, busNumber: 0}}
          - {{type: VirtualDisk, key: 2, deviceInfo: {info}, unitNumber: 0, backing: {backing}}}
          - {{type: VirtualEthernetCard, key: 3, deviceInfo: {info}, macAddress: {text}, backing: {backing}}}
          - {{type: VirtualIDEController, key: 4, deviceInfo: {info}, busNumber: 0}}
          - {{type: VirtualCdrom, key: 5, deviceInfo: {info}, controllerKey: 4, unitNumber: 0,
             connectable: {{connected: true}}, backing: {backing}}}
          - {{type: VirtualFloppy, key: 6, deviceInfo: {info}, unitNumber: 0,
             connectable: {{connected: true}}, backing: {backing}}}
    runtime: {{powerState: poweredOn}}
    guest: {{guestState: {text}}}
""")
    return f"""
about: {{name: "{"n" * 300}", version: "1234567.1234567.7", build: "{"b" * 40}"}}
hardware: {{cpuInfo: {{numCpuCores: 32767}}}}
serviceConsole: {{serviceConsoleReserved: 1048576, unreserved: 1048576}}
datastores: []
vms:{"".join(vms)}"""


def describe_many(count):
    """A host with many VMs, in an order that is not that of their identifiers."""
    entries = []
    for k in range(count):
        entries.append(f"""
  - id: "{(k * 37) % count * 4}"
    config:
      name: vm {k}
      guestFullName: Debian GNU/Linux 12 (64-bit)
      files: {{vmPathName: "[] {k}.cfg"}}
      hardware:
        numCPU: 2
        memoryMB: {k + 1}
        device:
          - {{type: VirtualDisk, key: 2, deviceInfo: {{label: Disk, summary: Disk}}, unitNumber: 0,
             backing: {{type: DeviceBackingInfo, deviceName: "disk-{k}:0"}}}}
          - {{type: VirtualEthernetCard, key: 4000, deviceInfo: {{label: Card, summary: Net {k % 3}}},
             macAddress: "00:16:3e:00:00:00"}}
    runtime: {{powerState: {("poweredOn", "poweredOff", "suspended")[k % 3]}}}
    guest: {{guestState: running}}
    stats:
      cpu.used: {{"0": {k * 1000}, "1": {k * 2000}}}
      mem.active: {{"": {k}}}
      net.received: {{"4000": {k << 32}}}
""")
    return f"""
about: {{name: Many, version: 1.2.3, build: "1"}}
hardware: {{cpuInfo: {{numCpuCores: 64}}}}
serviceConsole: {{serviceConsoleReserved: 1048576, unreserved: 1048576}}
datastores: []
vms:{"".join(entries)}"""


GENERATED = {"texts": describe_texts, "forty VMs": lambda: describe_many(40)}


@pytest.fixture(params=HOSTS + list(GENERATED))
def described(request, directory):
    """The path of a host's description."""
    if request.param in HOSTS:
        return system.HOSTS / f"{request.param}.yaml"
    path = directory / "generated.yaml"
    path.write_text(GENERATED[request.param]())
    return path


@pytest.fixture
def running(described, start_daemon, start_agent):
    """The daemon and the agent for a host, with the memory scalars read once; and the host."""
    daemon = start_daemon(described)
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG)
    host = expected_tree.load(described)
    if not host["vms"]:
        agent.allow_log("SNMPRaskRefreshCache: no VM found.")
    if "ds-gone" in described.read_text():
        agent.allow_log(*system.NO_DATASTORE_LOG)
    agent.client.get(mib.oid("memTotal"))
    return daemon, agent, host


def assert_equal(found, daemon, host, keep=lambda instance: True):
    """found is what `keep` leaves of the host's tree."""
    expected_tree.assert_equal(found, [i for i in expected_tree.tree(host, elapsed=daemon.elapsed()) if keep(i)])


def test_get_next_walks_the_whole_tree(running):
    daemon, agent, host = running
    assert_equal(agent.client.walk(), daemon, host)


@pytest.mark.parametrize("repetitions", [1, 7, 50])
def test_get_bulk_walks_the_whole_tree(running, repetitions):
    daemon, agent, host = running
    assert_equal(agent.client.bulk_walk(repetitions=repetitions), daemon, host)


def test_version_1_skips_the_64_bit_counters_only(running):
    daemon, agent, host = running
    assert_equal(agent.client.walk(version=V1), daemon, host, lambda i: i.type != "Counter64")


def test_get_reads_every_instance(running):
    daemon, agent, host = running
    found = [agent.client.get(instance.oid)[0] for instance in expected_tree.tree(host)]
    assert_equal(found, daemon, host)


def test_many_instances_in_one_get_are_answered_each_by_its_own_value(running):
    daemon, agent, host = running
    # Answer buffers are shared by all columns of a unit; a value must not leak into its neighbour.
    expected = [i for i in expected_tree.tree(host) if not isinstance(i.value, bytes) or len(i.value) < 200]
    found = []
    for at in range(0, len(expected), 40):
        found += agent.client.get(*(i.oid for i in expected[at:at + 40]))
    oids = {i.oid for i in expected}
    assert_equal(found, daemon, host, lambda i: i.oid in oids)


def test_get_beside_an_instance_finds_nothing(running):
    _, agent, host = running
    oids = {instance.oid for instance in expected_tree.tree(host)}
    for oid in sorted(oids):
        for other in (oid[:-1], oid + (0,), oid[:-1] + ((oid[-1] + 1) % (1 << 32),)):
            if other not in oids:
                answer = agent.client.get(other)[0]
                assert answer.type in ("noSuchInstance", "noSuchObject"), (other, answer)


def test_version_1_get_of_a_64_bit_counter_is_refused(start_daemon, start_agent):
    start_daemon(system.HOSTS / "small.yaml")
    agent = start_agent()
    with pytest.raises(ErrorStatus, match="noSuchName"):
        agent.client.get(mib.oid("netHCPktTx", 1), version=V1)


def test_get_next_of_any_place_leads_to_the_next_instance(start_daemon, start_agent):
    """Also from where no instance is: between columns, beyond the last row, at the largest sub-identifier."""
    start_daemon(system.HOSTS / "resources.yaml")
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG, *system.NO_DATASTORE_LOG)
    oids = [i.oid for i in expected_tree.tree(expected_tree.load(system.HOSTS / "resources.yaml"))]
    starts = {oid[:length] for oid in oids for length in range(len(ENTERPRISE), len(oid))}
    starts |= {oid[:-1] + (last,) for oid in oids
               for last in (0, oid[-1] + 1, 0xfffffffe, 0xffffffff) if last <= 0xffffffff}
    starts |= {oid + (0,) for oid in oids}
    for start in sorted(starts):
        following = next((oid for oid in oids if oid > start), None)
        answer = agent.client.get_next(start)[0]
        if following is None:
            assert answer.oid[:len(ENTERPRISE)] != ENTERPRISE
        else:
            assert answer.oid == following, f"after {start}"
