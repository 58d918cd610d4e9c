"""Real QEMU guests under a real libvirtd: what a manager sees of them while they live, freeze and go."""

import os
import re
import signal
import threading
import time

import domain_tree
import libvirt_host
import pytest
import system
import wire
from expected_tree import ENTERPRISE
from libvirt_host import card_xml, disk_xml, guest_xml
from snmp_client import Client

CONFIG = "/etc/libvirt/qemu"
# The daemon collects every 5 s; a machine that does not answer costs one collection 2 s.
COLLECTED = 20
# How long a guest may take to start working on a machine that has other things to do.
PATIENCE = 180

VM = ENTERPRISE + (2, 1, 1)
VM_NAME = 2
DISK, NET = ENTERPRISE + (3, 3, 1), ENTERPRISE + (3, 4, 1)


def figures(libvirtd):
    """domstats by UUID: its numbers, devices named instead of counted, and the memory in use."""
    answer = libvirtd.virsh("domstats --list-running --list-paused")[0]
    found = {uuid: {} for uuid in libvirtd.virsh("list --all --uuid")[0].split()}
    for block in re.split(r"\n\n+", answer.strip()):
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
    expected = domain_tree.tree(libvirtd.uri, daemon.identities(), before, figures(libvirtd), CONFIG)
    domain_tree.assert_equal(found, expected)
    return found


def start_two_guests(libvirtd):
    """One with every device that QEMU has for us, one with few; answers when both have run for a while."""
    image = libvirtd.image
    devices = ("<controller type='scsi' index='0' model='lsilogic'/><controller type='scsi' index='1' model='virtio-scsi'/>"
               + disk_xml(libvirtd.busy_image("a1"), "hda", "ide") + disk_xml(image("a2"), "vda", "virtio")
               + disk_xml(image("a3"), "sda", "scsi") + disk_xml(image("a4"), "vdb", "virtio")
               + disk_xml(image("install.iso"), "hdb", "ide", "cdrom") + disk_xml(None, "hdd", "ide", "cdrom")
               + disk_xml(image("boot.flp", 1440 << 10), "fda", "fdc", "floppy")
               + card_xml("52:54:00:aa:00:01") + card_xml("52:54:00:aa:00:02", "e1000"))
    libvirtd.define(guest_xml("every", devices, cpus=2))
    libvirtd.define(guest_xml("few", disk_xml(libvirtd.busy_image("b1"), "vda", "virtio") + card_xml("52:54:00:bb:00:01")))
    libvirtd.virsh("start every", "start few")

    def have_worked():
        numbers = figures(libvirtd)
        return all(machine.get("vcpu.0.time", 0) > 10 ** 9 and sum(v for k, v in machine.items() if k.endswith("rd.reqs")) > 20
                   for machine in numbers.values())

    system.wait_until(have_worked, "the guests to read their disks", PATIENCE)


def test_the_walk_equals_what_virsh_says_of_running_guests(libvirtd, start_libvirt_daemon, start_agent):
    start_two_guests(libvirtd)
    libvirtd.define(guest_xml("off", disk_xml(libvirtd.image("c1"), "vda", "virtio")))
    before = figures(libvirtd)
    daemon = start_libvirt_daemon(libvirtd.uri)
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG)
    compare(libvirtd, daemon, agent, before)


def test_a_card_shows_what_the_guest_sends_and_receives(libvirtd, start_libvirt_daemon, start_agent):
    """The firmware asks the network for something to boot; the host talks to the card while it is in use."""
    libvirtd.define(guest_xml("guest", card_xml("52:54:00:bb:00:01", "e1000")))
    libvirtd.virsh("start guest")

    def packets(direction):
        numbers, = figures(libvirtd).values()
        return sum(value for name, value in numbers.items() if name.endswith(f"{direction}.pkts"))

    system.wait_until(lambda: packets("tx") > 0, "the firmware to ask for an address", PATIENCE)

    def has_received():
        libvirtd.send_to_guests(20)
        return packets("rx") > packets("tx") + 100

    system.wait_until(has_received, "the card to receive", PATIENCE)
    before = figures(libvirtd)
    daemon = start_libvirt_daemon(libvirtd.uri)
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG)
    found = {i.oid: i.value for i in compare(libvirtd, daemon, agent, before)}
    sent_packets, sent, received_packets, received = (found[NET + (column, 1)] for column in range(10, 14))
    assert 0 < sent_packets < received_packets - 100
    assert sent < received
    assert received >= 100, "kilobytes, of packets of a thousand bytes"


class Walker:
    """A manager that walks without a pause while something else happens; stop() tells what it met."""

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
            except Exception as problem:    # whatever it is, the test is to tell it
                self.problems.append(repr(problem))
                return

    def stop(self):
        self.stopping.set()
        self.thread.join()
        self.client.close()
        assert not self.problems, self.problems
        assert self.walks > 0


class Api:
    """The daemon's answers of now, past the agent's cache."""

    def __init__(self):
        self.connection = wire.Connection()
        with open(self.connection.acquire_ticket(), encoding="ascii") as file:
            self.connection.login(file.read())

    def close(self):
        self.connection.close()

    def _property(self, number, method):
        answer = self.connection.call("VirtualMachine", str(number), method)
        return answer[0] if answer else None

    def machines(self):
        """Name → (number, power state, number of disks, number of cards)."""
        found = {}
        for number in self.connection.children():
            config = self._property(number, "GetConfig")
            state = self._property(number, "GetRuntime").findtext("{urn:ordane}powerState")
            kinds = [device.get("{http://www.w3.org/2001/XMLSchema-instance}type", "").rpartition(":")[2]
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

    def shows(name, *expected):
        system.wait_until(lambda: now.machines().get(name, (0,))[1:] == expected, f"{name} to be {expected}", COLLECTED)

    try:
        libvirtd.define(guest_xml("guest", disk_xml(libvirtd.image("d1"), "vda", "virtio") + card_xml("52:54:00:cc:00:01")))
        shows("guest", "poweredOff", 1, 1)
        number = now.machines()["guest"][0]
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
        assert now.machines()["renamed"][0] == number
        assert set(now.machines()) == {"other", "renamed"}
        libvirtd.virsh("undefine renamed")
        system.wait_until(lambda: set(now.machines()) == {"other"}, "the machine to go", COLLECTED)
    finally:
        walker.stop()
    assert number in daemon.identities().values()


def shown_machines(client):
    return {i.oid[-1]: i.value.decode() for i in client.bulk_walk(root=VM + (VM_NAME,))}


@pytest.mark.slow
def test_a_frozen_guest_holds_up_nobody(libvirtd, start_libvirt_daemon, start_agent):
    for name in ("frozen", "lively"):
        libvirtd.define(guest_xml(name, disk_xml(libvirtd.busy_image(name), "vda", "virtio")))
    libvirtd.virsh("start frozen", "start lively")
    system.wait_until(lambda: all(m.get("block.vda.rd.reqs", 0) > 20 for m in figures(libvirtd).values()),
                      "the guests to read their disks", PATIENCE)
    daemon = start_libvirt_daemon(libvirtd.uri)
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG)
    numbers = daemon.identities()
    rows = {i.value: i.oid[-1] for i in agent.client.bulk_walk(root=DISK + (3,))}
    frozen, lively = (rows[numbers[libvirtd.virsh(f"domuuid {name}")[0].strip()]] for name in ("frozen", "lively"))

    def reads(row):
        return agent.client.get(DISK + (5, row))[0].value

    assert reads(frozen) > 20
    before = reads(lively)
    assert before > 20

    pid = libvirtd.qemu_pid("frozen")
    os.kill(pid, signal.SIGSTOP)
    try:
        system.wait_until(lambda: "does not answer since" in daemon.log_text(), "the log to tell it", COLLECTED)
        line = next(line for line in daemon.log_text().splitlines() if "does not answer" in line)
        assert re.search(r"machine frozen \([0-9a-f-]{36}\) does not answer since \d{4}-\d\d-\d\d \d\d:\d\d:\d\d", line)
        slowest = 0
        deadline = time.monotonic() + 2 * system.REFRESH_INTERVAL + 5
        # Through at least one refresh of the agent.
        while reads(frozen) != -1 and time.monotonic() < deadline:
            begun = time.monotonic()
            agent.client.bulk_walk()
            slowest = max(slowest, time.monotonic() - begun)
            time.sleep(0.2)
        assert slowest < 1, "seconds that a walk took"
        assert reads(frozen) == -1, "a figure of a machine that does not answer"
        assert sorted(shown_machines(agent.client).values()) == ["frozen", "lively"]
        assert reads(lively) > before
    finally:
        os.kill(pid, signal.SIGCONT)
    system.wait_until(lambda: re.search(r"machine frozen \([0-9a-f-]{36}\) answers again; it did not since", daemon.log_text()),
                      "the log to tell it", COLLECTED)
    system.wait_until(lambda: reads(frozen) >= 0, "the figures to come back", 2 * system.REFRESH_INTERVAL)


@pytest.mark.slow
def test_the_inventory_outlives_libvirtd_for_a_minute(libvirtd, start_libvirt_daemon, start_agent, api):
    libvirtd.define(guest_xml("guest", disk_xml(libvirtd.image("e1"), "vda", "virtio")))
    libvirtd.virsh("start guest")
    daemon = start_libvirt_daemon(libvirtd.uri)
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG, "SNMPRaskRefreshCache: no VM found.")
    now = api()
    before = now.machines()
    assert before["guest"][1] == "poweredOn"

    libvirtd.kill()
    killed = time.monotonic()
    system.wait_until(lambda: "libvirt cannot be reached" in daemon.log_text(), "the log to tell it", COLLECTED)
    while time.monotonic() < killed + 50:
        assert now.machines() == before
        time.sleep(2)
    system.wait_until(lambda: now.machines() == {}, "the inventory to be emptied", 25)
    system.wait_until(lambda: shown_machines(agent.client) == {}, "the agent to show it", system.REFRESH_INTERVAL + 5)

    libvirtd.start()
    system.wait_until(lambda: now.machines() == before, "the machines to come back with their numbers", COLLECTED)
    system.wait_until(lambda: list(shown_machines(agent.client).values()) == ["guest"], "the agent to show it",
                      system.REFRESH_INTERVAL + 5)
    assert "libvirt answers again: 1 machines" in daemon.log_text()
