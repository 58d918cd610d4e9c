"""The tree that the agent must answer for a described host, worked out from the YAML alone.

This is a second, separate reading of what the module does: it shares no code with it and asks nothing of it. Scalars are
read as plain text, so nothing of a description depends on what a YAML library takes for a number or a truth value.
"""

import dataclasses
import re
import struct

import yaml

ENTERPRISE = (1, 3, 6, 1, 4, 1, 32473)
LONGEST_TEXT = 2559
COUNTERS = ("disk.numberRead", "disk.numberWrite", "disk.read", "disk.write", "net.received", "net.transmitted",
            "net.packetsTx", "net.packetsRx", "mem.active", "cpu.used")
ETHERNET = {"VirtualEthernetCard", "VirtualPCNetCard", "VirtualE1000Card", "VirtualVirtioCard"}
SCSI = {"VirtualSCSIController", "VirtualLsiLogicController", "VirtualBusLogicController", "ParaVirtualSCSIController",
        "VirtualLsiLogicSASController"}


@dataclasses.dataclass(frozen=True)
class Between:
    """A number that runs: anything from low to high, counted up modulo 2^bits (bits 0: it does not wrap)."""
    low: int
    high: int
    bits: int = 0

    def __eq__(self, other):
        if isinstance(other, Between):
            return (self.low, self.high, self.bits) == (other.low, other.high, other.bits)
        distance = other - self.low
        if self.bits:
            distance %= 1 << self.bits
        return 0 <= distance <= self.high - self.low

    __hash__ = None


@dataclasses.dataclass(frozen=True)
class Instance:
    oid: tuple
    type: str           # INTEGER, OCTET STRING, OBJECT IDENTIFIER or Counter64
    value: object       # int, bytes, tuple of int, or Between


def load(path):
    with open(path, encoding="utf-8") as stream:
        return parse(stream)


def parse(text):
    return yaml.load(text, Loader=getattr(yaml, "CBaseLoader", yaml.BaseLoader))


def int32(number):
    """The low 32 bits as a signed number."""
    number &= 0xffffffff
    return number - (1 << 32) if number & 0x80000000 else number


def int16(number):
    number &= 0xffff
    return number - (1 << 16) if number & 0x8000 else number


def cut(text, most=LONGEST_TEXT):
    """The text in UTF-8, cut to `most` bytes before a character that does not fit whole."""
    return text.encode()[:most].decode(errors="ignore").encode()


def whole_number(text, otherwise):
    """The 32-bit number that the text is, else `otherwise`."""
    if re.fullmatch(r"-?[0-9]+", text) and -(1 << 31) <= int(text) < 1 << 31:
        return int(text)
    return otherwise


def vm_id(vm):
    """The machine's identifier."""
    return whole_number(vm["id"], -1)


def single(number):
    """The number as a 32-bit float holds it."""
    return struct.unpack("f", struct.pack("f", number))[0]


def seconds(milliseconds):
    """A 32-bit count of milliseconds as whole seconds, toward zero, by way of a 32-bit float."""
    return int(single(single(int32(milliseconds)) / 1000.0))


def path_on_host(config, vm):
    files = config.get("files") or {}
    path = files.get("vmPathName")
    if path is None:
        return "Unknown config: " + vm["id"]
    opened = path.partition("[")
    name, closing, relative = opened[2].partition("]")
    if not opened[1] or not closing:
        return path
    name, relative = name.strip(), relative.strip()
    if not name:
        return relative
    for pair in config.get("datastoreUrl") or []:
        if pair["name"] == name:
            return pair["url"] + relative
    return path


def backing_name(device):
    """What a drive shows of its backing."""
    backing = device.get("backing") or {}
    kind = backing.get("type")
    name = ""
    if kind == "DeviceBackingInfo":
        name = backing["deviceName"]
    elif kind == "FileBackingInfo":
        name = backing["fileName"]
    elif kind == "RemoteDeviceBackingInfo":
        name = backing["deviceName"] or "remote device backing"
    return name or "unknown"


def connected(device):
    return (device.get("connectable") or {}).get("connected", "")


def shares(holder):
    """The number of shares below `holder`, 0 where there are none."""
    return int(((holder or {}).get("shares") or {}).get("shares", 0))


class Statistics:
    """The figures of one machine, seen `elapsed` seconds at most after the daemon started."""

    def __init__(self, host, vm, elapsed):
        catalogue = host.get("counters")
        self.known = {f"{c['group']}.{c['name']}" for c in catalogue} if catalogue is not None else set(COUNTERS)
        self.figures = vm.get("stats") or {}
        self.elapsed = elapsed

    def span(self, counter, instance=None):
        """The least and the greatest value that a figure can have by now; without an instance, the first that there is."""
        series = self.figures.get(counter) or {} if counter in self.known else {}
        value = next(iter(series.values()), None) if instance is None else series.get(instance)
        if value is None:
            return -1, -1
        if isinstance(value, dict):
            start = int(value["start"])
            return start, start + int(float(value["perSecond"]) * self.elapsed)
        return int(value), int(value)

    def int32(self, counter, instance=None):
        low, high = self.span(counter, instance)
        return int32(low) if low == high else Between(int32(low), int32(low) + high - low, 32)

    def counter64(self, counter, instance):
        low, high = self.span(counter, instance)
        mask = (1 << 64) - 1
        return low & mask if low == high else Between(low & mask, (low & mask) + high - low, 64)

    def seconds(self, counter, instance):
        low, high = self.span(counter, instance)
        return seconds(low) if low == high else Between(seconds(low), seconds(high))


class Table:
    """Rows under one entry: the first row of an index stands, those after it cannot be reached."""

    def __init__(self, *suffix):
        self.base = ENTERPRISE + suffix
        self.rows = {}

    def add(self, index, *cells):
        self.rows.setdefault(tuple(number & 0xffffffff for number in index), cells)

    def instances(self):
        for index, cells in self.rows.items():
            for column, (kind, value) in enumerate(cells, 1):
                yield Instance(self.base + (column,) + index, kind, value)


def integer(value):
    return "INTEGER", value if isinstance(value, Between) else int32(value)


def text(value):
    return "OCTET STRING", cut("SNMP Error" if value is None else value)


def counter64(value):
    return "Counter64", value


def product(host):
    about = host["about"]
    version = about["version"].split(".")
    parts = [0, 0, 0]
    if len(version) == 3:
        parts = [whole_number(part, 0) for part in version]
    base = ENTERPRISE + (1,)
    yield Instance(base + (1, 0), "OCTET STRING", cut(about["name"], 255))
    yield Instance(base + (2, 0), "OCTET STRING", cut(about["version"], 15))
    yield Instance(base + (3, 0), "OBJECT IDENTIFIER", ENTERPRISE + (60, 1) + tuple(part & 0xffffffff for part in parts))
    yield Instance(base + (4, 0), "OCTET STRING", cut(about["build"], 15))


def machines(host):
    """The machines that are shown, in order: those with a configuration."""
    return [vm for vm in host["vms"] if isinstance(vm.get("config"), dict)]


def hardware(vm):
    return vm["config"].get("hardware") or {"numCPU": 0, "memoryMB": 0}


def power_state(vm):
    return (vm.get("runtime") or {}).get("powerState", "unknown")


def devices(vm, types):
    return [device for device in hardware(vm).get("device") or [] if device["type"] in types]


def label(device):
    return (device.get("deviceInfo") or {}).get("label")


def inventory(host):
    vms, hbas, targets = Table(2, 1, 1), Table(2, 2, 1), Table(2, 3, 1)
    nics, floppies, cdroms = Table(2, 4, 1), Table(2, 5, 1), Table(2, 6, 1)
    for k, vm in enumerate(machines(host)):
        config = vm["config"]
        vms.add((k,), integer(k), text(config["name"]), text(path_on_host(config, vm)), text(config["guestFullName"]),
                integer(int(hardware(vm)["memoryMB"])), text(power_state(vm)), integer(vm_id(vm)),
                text((vm.get("guest") or {}).get("guestState", "unknown")))
        for hba in devices(vm, SCSI):
            model = {"VirtualLsiLogicController": "lsilogic", "VirtualBusLogicController": "buslogic"}.get(hba["type"], "unknown")
            bus = int(hba["busNumber"])
            hbas.add((k, bus), integer(k), integer(bus), text(label(hba)), text(model))
        for disk in devices(vm, {"VirtualDisk"}):
            unit = int(disk.get("unitNumber", 0))
            targets.add((k, unit), integer(k), integer(unit), text(label(disk)))
        for ordinal, nic in enumerate(devices(vm, ETHERNET)):
            backing = nic.get("backing") or {}
            network = backing["deviceName"] if backing.get("type") == "DeviceBackingInfo" else "unknown"
            nics.add((k, ordinal), integer(k), integer(ordinal), text(label(nic)), text(network), text("monitor_dev"))
        for floppy in devices(vm, {"VirtualFloppy"}):
            unit = int(floppy.get("unitNumber", 0))
            floppies.add((k, unit), integer(k), integer(unit), text(backing_name(floppy)), text(connected(floppy)))
        buses = {ide["key"]: int(ide["busNumber"]) for ide in devices(vm, {"VirtualIDEController"})}
        for cdrom in devices(vm, {"VirtualCdrom"}):
            position = 0
            if "unitNumber" in cdrom and cdrom.get("controllerKey") in buses:
                position = buses[cdrom["controllerKey"]] * 2 + int(cdrom["unitNumber"])
            cdroms.add((k, position), integer(k), integer(position), text(backing_name(cdrom)), text(connected(cdrom)))
    for table in (vms, hbas, targets, nics, floppies, cdroms):
        yield from table.instances()


def disk_name(host, disk):
    """The disk's name in the figures; None for a disk that has no row."""
    backing = disk.get("backing") or {}
    if backing.get("type") == "DeviceBackingInfo":
        return backing["deviceName"]
    if backing.get("type") == "FileBackingInfo":
        for datastore in host.get("datastores") or []:
            if datastore["id"] == backing.get("datastore"):
                if datastore.get("type") != "DrellDatastoreInfo":
                    return None
                extents = (datastore.get("drell") or {}).get("extent") or []
                return extents[0]["diskName"] if extents else "unknown"
    return "unknown"


def resources(host, elapsed):
    cpus, memories, disks, cards = Table(3, 1, 2, 1), Table(3, 2, 4, 1), Table(3, 3, 1), Table(3, 4, 1)
    for vm in machines(host):
        if power_state(vm) not in ("poweredOn", "suspended"):
            continue
        number, config, stats = vm_id(vm), vm["config"], Statistics(host, vm, elapsed)
        for i in range(int(hardware(vm)["numCPU"])):
            cpus.add((number + i,), integer(number + i), integer(shares(config.get("cpuAllocation")) if i == 0 else 0),
                     integer(stats.seconds("cpu.used", str(i))))
        memories.add((number,), integer(number), integer(shares(config.get("memoryAllocation"))),
                     integer(int(hardware(vm)["memoryMB"]) << 10), integer(stats.int32("mem.active")))
        for disk in devices(vm, {"VirtualDisk"}):
            name = disk_name(host, disk)
            if name is None:
                continue
            index = len(disks.rows) + 1
            disks.add((index,), integer(index), text(name), integer(number), integer(shares(disk)),
                      *(integer(stats.int32("disk." + c, name)) for c in ("numberRead", "read", "numberWrite", "write")))
        for nic in devices(vm, ETHERNET):
            index = len(cards.rows) + 1
            info = nic.get("deviceInfo")
            figures = ("net.packetsTx", "net.transmitted", "net.packetsRx", "net.received")
            cards.add((index,), integer(index), text(info["summary"] if info else "unknown"), integer(number),
                      text(nic.get("macAddress")), integer(0),
                      *(integer(stats.int32(c, nic["key"])) for c in figures),
                      *(counter64(stats.counter64(c, nic["key"])) for c in figures))
    for table in (cpus, memories, disks, cards):
        yield from table.instances()


def host_scalars(host, first):
    """The core count and the memory figures; `first`: the agent has not read the memory figures yet."""
    yield Instance(ENTERPRISE + (3, 1, 1, 0), "INTEGER", int16(int(host["hardware"]["cpuInfo"]["numCpuCores"])))
    reserved_bytes = int(host["serviceConsole"]["serviceConsoleReserved"])
    total = (reserved_bytes + int(host["serviceConsole"]["unreserved"])) // 1024
    # The reservation is in bytes whenever it was just read, which is always while it is less than a kilobyte.
    reserved = reserved_bytes if first or reserved_bytes < 1024 else reserved_bytes // 1024
    for sub, value in ((1, total), (2, reserved), (3, int32(total) - int32(reserved))):
        yield Instance(ENTERPRISE + (3, 2, sub, 0), "INTEGER", int32(value))


def tree(host, elapsed=0, kernel_loaded=False, first=False):
    """Every instance under the enterprise, in the order of a walk.

    elapsed: how many seconds at most the daemon has run when it is asked, for figures that run.
    first: the memory scalars as they are until the agent has read them once, with the reservation in bytes.
    """
    instances = [*product(host), *inventory(host), *host_scalars(host, first), *resources(host, elapsed),
                 Instance(ENTERPRISE + (4, 1, 1, 1, 0), "OCTET STRING", b"yes" if kernel_loaded else b"no")]
    return sorted(instances, key=lambda instance: instance.oid)
