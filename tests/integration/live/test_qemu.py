"""Real QEMU guests under a real libvirtd: what a manager sees of them while they live, freeze and go."""

import os
import re
import signal
import threading
import time

import domain_tree
import fresh_agent
import pytest
import system
import wire
from expected_tree import ENTERPRISE
from libvirt_host import card_xml, disk_xml, guest_xml
from snmp_client import Client

CONFIG = "/etc/libvirt/qemu"
# The daemon rests for 5 s after each collection; a VM that does not respond costs one collection 2 s. Deadlines allow
# for a host with other work.
COLLECTED = 120
# How long a guest may take to start working.
GUEST_TIMEOUT = 180
# For how long the inventory outlives libvirtd.
KEPT = 60

pytestmark = pytest.mark.xdist_group("computes")

VM = ENTERPRISE + (2, 1, 1)
VM_NAME = 2
DISK, NET = ENTERPRISE + (3, 3, 1), ENTERPRISE + (3, 4, 1)


def statistics(libvirtd):
    """domstats by UUID: its numbers, devices named instead of counted, and the memory in use."""
    output = libvirtd.virsh("domstats --list-running --list-paused")[0]
    found = {uuid: {} for uuid in libvirtd.virsh("list --all --uuid")[0].split()}
    for block in re.split(r"\n\n+", output.strip()):
        if not block:
            continue
        head, *lines = block.splitlines()
        uuid = libvirtd.virsh(f"domuuid {head.split(chr(39))[1]}")[0].strip()
        raw = dict(line.strip().split("=", 1) for line in lines if line.strip())
        numbers = found[uuid]
        for name, value in raw.items():
            if not value.isdigit():
                continue
            entry = re.match(r"(block|net)\.(\d+)\.", name)
            if entry:
                device = raw[f"{entry[0]}name"]
                name = f"{entry[1]}.{device}.{name[len(entry[0]):]}"
            numbers[name] = int(value)
        if "balloon.available" in numbers and "balloon.unused" in numbers:
            numbers["active"] = numbers["balloon.available"] - numbers["balloon.unused"]
        elif "balloon.rss" in numbers:
            numbers["active"] = numbers["balloon.rss"]
    return found


def compare(libvirtd, daemon, agent, before):
    found = agent.client.bulk_walk()
    expected = domain_tree.tree(libvirtd.uri, daemon.vm_ids(), before, statistics(libvirtd), config_directory=CONFIG)
    domain_tree.assert_equal(found, expected)
    return found


def start_two_guests(libvirtd):
    """One with every device that QEMU has for us, one with few; returns when both have run for a while."""
    image = libvirtd.image
    devices = ("<controller type='scsi' index='0' model='lsilogic'/>"
               "<controller type='scsi' index='1' model='virtio-scsi'/>"
               + disk_xml(libvirtd.busy_image("a1"), "hda", "ide") + disk_xml(image("a2"), "vda", "virtio")
               + disk_xml(image("a3"), "sda", "scsi") + disk_xml(image("a4"), "vdb", "virtio")
               + disk_xml(image("install.iso"), "hdb", "ide", "cdrom") + disk_xml(None, "hdd", "ide", "cdrom")
               + disk_xml(image("boot.flp", 1440 << 10), "fda", "fdc", "floppy")
               + card_xml("52:54:00:aa:00:01") + card_xml("52:54:00:aa:00:02", "e1000"))
    libvirtd.define(guest_xml("every", devices, cpus=2))
    devices = disk_xml(libvirtd.busy_image("b1"), "vda", "virtio") + card_xml("52:54:00:bb:00:01")
    libvirtd.define(guest_xml("few", devices))
    libvirtd.virsh("start every", "start few")

    def have_worked():
        numbers = statistics(libvirtd)
        return all(vm.get("vcpu.0.time", 0) > 10 ** 9 and sum(v for k, v in vm.items() if k.endswith("rd.reqs")) > 20
                   for vm in numbers.values())

    system.wait_until(have_worked, "the guests to read their disks", GUEST_TIMEOUT)


def test_the_walk_equals_what_virsh_says_of_running_guests(libvirtd, start_libvirt_daemon, start_agent):
    start_two_guests(libvirtd)
    libvirtd.define(guest_xml("off", disk_xml(libvirtd.image("c1"), "vda", "virtio")))
    before = statistics(libvirtd)
    daemon = start_libvirt_daemon(libvirtd.uri)
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG)
    compare(libvirtd, daemon, agent, before)


def test_a_card_shows_what_the_guest_sends_and_receives(libvirtd, start_libvirt_daemon, start_agent):
    """The firmware looks for something to boot on the network; the host sends to the card while it is in use."""
    libvirtd.define(guest_xml("guest", card_xml("52:54:00:bb:00:01", "e1000")))
    libvirtd.virsh("start guest")

    def packets(direction):
        numbers, = statistics(libvirtd).values()
        return sum(value for name, value in numbers.items() if name.endswith(f"{direction}.pkts"))

    system.wait_until(lambda: packets("tx") > 0, "the firmware to request an address", GUEST_TIMEOUT)

    def has_received():
        libvirtd.send_to_guests(20)
        return packets("rx") > packets("tx") + 100

    system.wait_until(has_received, "the card to receive", GUEST_TIMEOUT)
    before = statistics(libvirtd)
    daemon = start_libvirt_daemon(libvirtd.uri)
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG)
    found = {i.oid: i.value for i in compare(libvirtd, daemon, agent, before)}
    sent_packets, sent, received_packets, received = (found[NET + (column, 1)] for column in range(10, 14))
    assert 0 < sent_packets < received_packets - 100
    assert sent < received
    assert received >= 100, "kilobytes, of packets of a thousand bytes"


class Walker:
    """A manager that walks without a pause while something else happens; stop() fails with the problems it met."""

    def __init__(self):
        self.problems, self.walks = [], 0
        self.stopping = threading.Event()
        self.client = Client()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while not self.stopping.is_set():
            try:
                self.client.bulk_walk()
                self.walks += 1
            except Exception as problem:    # whatever it is, stop() reports it
                self.problems.append(repr(problem))
                return

    def stop(self):
        self.stopping.set()
        self.thread.join()
        self.client.close()
        assert not self.problems, self.problems
        assert self.walks > 0


class Api:
    """What the daemon serves now, without the agent's cache."""

    def __init__(self):
        self.connection = wire.logged_in()

    def close(self):
        self.connection.close()

    def _property(self, number, method):
        values = self.connection.call("VirtualMachine", str(number), method)
        return values[0] if values else None

    def vms(self):
        """Name → (number, power state, number of disks, number of cards)."""
        found = {}
        for number in self.connection.children():
            config = self._property(number, "GetConfig")
            state = self._property(number, "GetRuntime").findtext("{urn:ordane}powerState")
            kinds = [device.get(wire.XSI + "type", "").rpartition(":")[2]
                     for device in config.iter("{urn:ordane}device")]
            found[config.findtext("{urn:ordane}name")] = (
                int(number), state, kinds.count("VirtualDisk"), sum(kind.endswith("Card") for kind in kinds))
        return found


@pytest.fixture
def api():
    opened = []

    def open_api():
        opened.append(Api())
        return opened[0]

    yield open_api
    for each in opened:
        each.close()


def test_the_life_of_a_guest_shows_while_a_manager_walks(libvirtd, start_libvirt_daemon, start_agent, api):
    libvirtd.define(guest_xml("other"))
    daemon = start_libvirt_daemon(libvirtd.uri)
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG)
    now = api()
    walker = Walker()
    number = None

    def comes(name, *expected):
        system.wait_until(lambda: now.vms().get(name, (0,))[1:] == expected, f"{name} to be {expected}", COLLECTED)

    def shows(name, *expected):
        daemon.signal(signal.SIGHUP)    # not to wait for the next collection
        comes(name, *expected)

    try:
        devices = disk_xml(libvirtd.image("d1"), "vda", "virtio") + card_xml("52:54:00:cc:00:01")
        libvirtd.define(guest_xml("guest", devices))
        comes("guest", "poweredOff", 1, 1)
        number = now.vms()["guest"][0]
        libvirtd.virsh("start guest")
        shows("guest", "poweredOn", 1, 1)
        libvirtd.virsh("suspend guest")
        shows("guest", "suspended", 1, 1)
        libvirtd.virsh("resume guest")
        shows("guest", "poweredOn", 1, 1)
        second = disk_xml(libvirtd.image("d2"), "vdb", "virtio")
        libvirtd.change("attach-device", "guest", second)
        shows("guest", "poweredOn", 2, 1)
        card = card_xml("52:54:00:cc:00:02")
        libvirtd.change("attach-device", "guest", card)
        shows("guest", "poweredOn", 2, 2)
        libvirtd.virsh("destroy guest")
        # What was attached to the running guest only went with it.
        shows("guest", "poweredOff", 1, 1)
        libvirtd.change("attach-device", "guest", second, "--config")
        libvirtd.change("attach-device", "guest", card, "--config")
        shows("guest", "poweredOff", 2, 2)
        libvirtd.change("detach-device", "guest", second, "--config")
        libvirtd.change("detach-device", "guest", card, "--config")
        shows("guest", "poweredOff", 1, 1)
        libvirtd.virsh("domrename guest renamed")
        shows("renamed", "poweredOff", 1, 1)
        assert now.vms()["renamed"][0] == number
        assert set(now.vms()) == {"other", "renamed"}
        libvirtd.virsh("undefine renamed")
        daemon.signal(signal.SIGHUP)
        system.wait_until(lambda: set(now.vms()) == {"other"}, "the VM to go", COLLECTED)
    finally:
        walker.stop()
    assert number in daemon.vm_ids().values()


def shown_vms(instances):
    """Position → name."""
    return {i.oid[-1]: i.value.decode() for i in instances if i.oid[:-1] == VM + (VM_NAME,)}


def disk_reads(instances, numbers):
    """Name → the number of reads of the VM's only disk, -1 where it is not known; `numbers`: name → id."""
    found = {instance.oid: instance.value for instance in instances}
    rows = {found[oid]: oid[-1] for oid in found if oid[:-1] == DISK + (3,)}
    return {name: found[DISK + (5, rows[number])] for name, number in numbers.items()}


def test_frozen_guests_delay_nobody(libvirtd, start_libvirt_daemon, directory):
    frozen, names = ("frozen", "stiff"), ("frozen", "lively", "stiff")
    for name in names:
        libvirtd.define(guest_xml(name, disk_xml(libvirtd.busy_image(name), "vda", "virtio")))
        libvirtd.virsh(f"start {name}")

    def have_read(more_than=20):
        return all(vm.get("block.vda.rd.reqs", 0) > more_than for vm in statistics(libvirtd).values())

    system.wait_until(have_read, "the guests to read their disks", GUEST_TIMEOUT)
    daemon = start_libvirt_daemon(libvirtd.uri)
    vm_ids = daemon.vm_ids()
    numbers = {name: vm_ids[libvirtd.virsh(f"domuuid {name}")[0].strip()] for name in names}

    def seen():
        """The reads and the VMs that the first walk of an agent shows, and its seconds with the refresh."""
        found, took = fresh_agent.ask(directory, lambda client: client.bulk_walk())
        return disk_reads(found, numbers), shown_vms(found), took

    before, vms, _ = seen()
    assert all(reads > 20 for reads in before.values())
    assert sorted(vms.values()) == sorted(names)

    pids = [libvirtd.qemu_pid(name) for name in frozen]
    for pid in pids:
        os.kill(pid, signal.SIGSTOP)
    try:
        for name in frozen:
            said = rf"VM {name} \([0-9a-f-]{{36}}\) has not responded since \d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d"
            system.wait_until(lambda: re.search(said, daemon.log_text()), f"the log line of {name}", COLLECTED)
        times = []

        def is_known():
            reads, shown, took = seen()
            times.append(took)
            assert shown == vms, "the VMs' rows stay"
            return all(reads[name] == -1 for name in frozen) and reads["lively"] > before["lively"]

        system.wait_until(is_known, "the statistics of the frozen ones alone to be gone", COLLECTED)
        while min(times) >= 1 and len(times) < 10:
            times.append(seen()[2])
        # The best of some, because the host may have other work; a walk that waited for a guest would always be slow.
        assert min(times) < 1, f"seconds that walks took: {times}"
        assert "VM lively" not in daemon.log_text()
    finally:
        for pid in pids:
            os.kill(pid, signal.SIGCONT)
    for name in frozen:
        system.wait_until(lambda: re.search(rf"VM {name} \([0-9a-f-]{{36}}\) responds again, it had not since",
                                            daemon.log_text()), f"the log line of {name}", COLLECTED)
    system.wait_until(lambda: all(reads > 20 for reads in seen()[0].values()), "the statistics to come back", COLLECTED)


def test_a_guest_responds_while_a_device_is_detached(libvirtd, start_libvirt_daemon):
    """A guest without an operating system never lets go of its disk: libvirt waits 5 s for it."""
    second = disk_xml(libvirtd.image("f2"), "vdb", "virtio")
    libvirtd.define(guest_xml("guest", disk_xml(libvirtd.image("f1"), "vda", "virtio") + second))
    libvirtd.virsh("start guest")
    daemon = start_libvirt_daemon(libvirtd.uri)
    for _ in range(3):
        begun = time.monotonic()
        libvirtd.change("detach-device", "guest", second)
        assert time.monotonic() > begun + 4
    assert "has not responded" not in daemon.log_text()


@pytest.mark.slow
@pytest.mark.xdist_group("waits")
def test_the_inventory_outlives_libvirtd_for_a_minute(libvirtd, start_libvirt_daemon, start_agent, api):
    libvirtd.define(guest_xml("guest", disk_xml(libvirtd.image("e1"), "vda", "virtio")))
    libvirtd.virsh("start guest")
    daemon = start_libvirt_daemon(libvirtd.uri)
    now = api()
    before = now.vms()
    assert before["guest"][1] == "poweredOn"

    libvirtd.kill()
    killed = time.monotonic()
    system.wait_until(lambda: "libvirt cannot be reached" in daemon.log_text(), "the log line", COLLECTED)
    assert now.vms() == before

    def is_emptied():
        vms = now.vms()
        assert vms in (before, {}), "the last inventory is kept whole"
        time.sleep(0.5)
        return vms == {}

    system.wait_until(is_emptied, "the inventory to be emptied", KEPT + 15)
    # The minute began with the last collection that came to its end.
    assert time.monotonic() > killed + KEPT / 2
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG, "SNMPRaskRefreshCache: no VM found.")
    assert shown_vms(agent.client.bulk_walk()) == {}

    libvirtd.start()
    system.wait_until(lambda: now.vms() == before, "the VMs to come back with their ids", COLLECTED)
    system.wait_until(lambda: list(shown_vms(agent.client.bulk_walk()).values()) == ["guest"], "the agent to show it",
                      2 * system.REFRESH_INTERVAL)
    system.wait_until(lambda: "libvirt can be reached again: 1 VMs" in daemon.log_text(), "the log line")


@pytest.mark.slow
@pytest.mark.xdist_group("waits")
@pytest.mark.parametrize("hang", [10, 40])
def test_everything_is_current_ten_seconds_after_libvirtd_hung(libvirtd, start_libvirt_daemon, directory, api, hang):
    """Shorter and longer than the time after which a silent connection counts as broken."""
    for name in ("lively", "mortal"):
        libvirtd.define(guest_xml(name, disk_xml(libvirtd.busy_image(name), "vda", "virtio")))
        libvirtd.virsh(f"start {name}")
    daemon = start_libvirt_daemon(libvirtd.uri)
    vm_ids = daemon.vm_ids()
    numbers = {name: vm_ids[libvirtd.virsh(f"domuuid {name}")[0].strip()] for name in ("lively", "mortal")}
    now = api()

    def reads():
        return disk_reads(fresh_agent.ask(directory, lambda client: client.bulk_walk())[0], numbers)

    system.wait_until(lambda: all(number > 0 for number in reads().values()), "the guests to read", GUEST_TIMEOUT)
    before = reads()["lively"]
    libvirtd.process.send_signal(signal.SIGSTOP)
    os.kill(libvirtd.qemu_pid("mortal"), signal.SIGKILL)
    time.sleep(hang)
    libvirtd.process.send_signal(signal.SIGCONT)
    went_on = time.monotonic()
    system.wait_until(lambda: now.vms().get("mortal", (0, 0))[1] == "poweredOff", "the state", COLLECTED)
    numbers.pop("mortal")
    system.wait_until(lambda: reads()["lively"] > before, "the statistics", COLLECTED)
    assert time.monotonic() < went_on + 10
