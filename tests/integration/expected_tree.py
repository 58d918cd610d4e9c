"""The tree that the agent must serve for a described host, computed from the YAML alone.

This is a second implementation of what the module does: it shares no code with it and takes nothing from it. OIDs and
types come from the MIB file. YAML scalars are read as plain text, so nothing depends on what a YAML library takes for
a number or a truth value.
"""

import dataclasses
import re
import struct

import mib
import yaml
from mib import ENTERPRISE  # noqa: F401 (the tests with live guests take it from here)

COUNTERS = ("disk.numberRead", "disk.numberWrite", "disk.read", "disk.write", "net.received", "net.transmitted",
            "net.packetsTx", "net.packetsRx", "mem.active", "cpu.used")
ETHERNET = {"VirtualEthernetCard", "VirtualPCNetCard", "VirtualE1000Card", "VirtualVirtioCard"}
SCSI = {"VirtualSCSIController", "VirtualLsiLogicController", "VirtualBusLogicController", "ParaVirtualSCSIController",
        "VirtualLsiLogicSASController"}


@dataclasses.dataclass(frozen=True)
class Between:
    """A running number: anything from low to high, counted up modulo 2^bits (bits 0: it does not wrap)."""
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


class Unread:
    """A value that this side has no reading of: equal to any."""

    def __eq__(self, other):
        return True

    __hash__ = None


@dataclasses.dataclass(frozen=True)
class Instance:
    oid: tuple
    type: str           # INTEGER, OCTET STRING, OBJECT IDENTIFIER or Counter64
    value: object       # int, bytes, tuple of int, Between or Unread


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


def truncate(text, most):
    """The text in UTF-8, truncated to `most` bytes before a character that does not fit whole."""
    return text.encode()[:most].decode(errors="ignore").encode()


def whole_number(text, otherwise):
    """The 32-bit number that the text is, else `otherwise`."""
    if re.fullmatch(r"-?[0-9]+", text) and -(1 << 31) <= int(text) < 1 << 31:
        return int(text)
    return otherwise


def vm_id(vm):
    """The VM's identifier."""
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
    """The name of a drive's backing."""
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
    """The statistics of one VM, `elapsed` seconds at most after the daemon started."""

    def __init__(self, host, vm, elapsed):
        catalogue = host.get("counters")
        self.known = {f"{c['group']}.{c['name']}" for c in catalogue} if catalogue is not None else set(COUNTERS)
        self.series = vm.get("stats") or {}
        self.elapsed = elapsed

    def span(self, counter, instance=None):
        """The least and greatest value that a statistic can have by now; without an instance, that of the first one."""
        series = self.series.get(counter) or {} if counter in self.known else {}
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


def instance(name, value, index=()):
    """The instance of a scalar, or of a column at an index, with its value as the MIB's type carries it."""
    declared = mib.objects()[name]
    if declared.type == "INTEGER" and isinstance(value, int):
        value = int32(value)
    elif declared.type == "OCTET STRING" and not isinstance(value, Unread):
        value = truncate("SNMP Error" if value is None else value, declared.size)
    return Instance(mib.oid(name, *index), declared.type, value)


class Table:
    """Rows of a table of the MIB: the first row of an index stands, those after it cannot be reached.

    partial: columns without a value are Unread; otherwise every column needs one.
    """

    def __init__(self, name, partial=False):
        self.declared = mib.tables()[name]
        self.partial = partial
        self.rows = {}

    def add(self, **cells):
        """A row, as values by column name."""
        columns = [column.name for column in self.declared.columns]
        assert cells.keys() <= set(columns), f"columns that the MIB does not have: {cells.keys() - set(columns)}"
        assert self.partial or cells.keys() == set(columns), f"columns without a value: {set(columns) - cells.keys()}"
        index = tuple(cells[name] & 0xffffffff for name in self.declared.index)
        self.rows.setdefault(index, {name: cells.get(name, Unread()) for name in columns})

    def instances(self):
        for index, cells in self.rows.items():
            for name, value in cells.items():
                yield instance(name, value, index)


def product(host):
    about = host["about"]
    version = about["version"].split(".")
    parts = [0, 0, 0]
    if len(version) == 3:
        parts = [whole_number(part, 0) for part in version]
    yield instance("prodName", about["name"])
    yield instance("prodVersion", about["version"])
    yield instance("prodOID", mib.oids()["kelvServer"] + tuple(part & 0xffffffff for part in parts))
    yield instance("prodBuild", about["build"])


def vms_shown(host):
    """The VMs that have rows, in order: those with a configuration."""
    return [vm for vm in host["vms"] if isinstance(vm.get("config"), dict)]


def hardware(vm):
    return vm["config"].get("hardware") or {"numCPU": 0, "memoryMB": 0}


def power_state(vm):
    return (vm.get("runtime") or {}).get("powerState", "unknown")


def devices(vm, types):
    return [device for device in hardware(vm).get("device") or [] if device["type"] in types]


def label(device):
    return (device.get("deviceInfo") or {}).get("label")


def adapter_model(hba):
    models = {"VirtualLsiLogicController": "lsilogic", "VirtualBusLogicController": "buslogic"}
    return models.get(hba["type"], "unknown")


def network_of(nic):
    backing = nic.get("backing") or {}
    return backing["deviceName"] if backing.get("type") == "DeviceBackingInfo" else "unknown"


def ide_position(cdrom, vm):
    """The drive's place on the VM's IDE buses, 0 where it is not on one."""
    buses = {ide["key"]: int(ide["busNumber"]) for ide in devices(vm, {"VirtualIDEController"})}
    if "unitNumber" not in cdrom or cdrom.get("controllerKey") not in buses:
        return 0
    return buses[cdrom["controllerKey"]] * 2 + int(cdrom["unitNumber"])


def inventory(host):
    vms, hbas, targets = Table("vmTable"), Table("hbaTable"), Table("tgtTable")
    nics, floppies, cdroms = Table("nicTable"), Table("floppyTable"), Table("cdromTable")
    for k, vm in enumerate(vms_shown(host)):
        config = vm["config"]
        vms.add(vmIdx=k,
                vmDisplayName=config["name"],
                vmConfigFile=path_on_host(config, vm),
                vmGuestOS=config["guestFullName"],
                vmMemSize=int(hardware(vm)["memoryMB"]),
                vmState=power_state(vm),
                vmVMID=vm_id(vm),
                vmGuestState=(vm.get("guest") or {}).get("guestState", "unknown"))
        for hba in devices(vm, SCSI):
            hbas.add(hbaVmIdx=k,
                     hbaBus=int(hba["busNumber"]),
                     hbaLabel=label(hba),
                     hbaType=adapter_model(hba))
        for disk in devices(vm, {"VirtualDisk"}):
            targets.add(tgtVmIdx=k,
                        tgtUnit=int(disk.get("unitNumber", 0)),
                        tgtLabel=label(disk))
        for ordinal, nic in enumerate(devices(vm, ETHERNET)):
            nics.add(nicVmIdx=k,
                     nicIdx=ordinal,
                     nicLabel=label(nic),
                     nicNetwork=network_of(nic),
                     nicDevice="monitor_dev")
        for floppy in devices(vm, {"VirtualFloppy"}):
            floppies.add(fdVmIdx=k,
                         fdUnit=int(floppy.get("unitNumber", 0)),
                         fdBacking=backing_name(floppy),
                         fdConnected=connected(floppy))
        for cdrom in devices(vm, {"VirtualCdrom"}):
            cdroms.add(cdVmIdx=k,
                       cdIdeIndex=ide_position(cdrom, vm),
                       cdBacking=backing_name(cdrom),
                       cdConnected=connected(cdrom))
    for table in (vms, hbas, targets, nics, floppies, cdroms):
        yield from table.instances()


def disk_name(host, disk):
    """The instance of the disk's statistics; None for a disk that has no row."""
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
    cpus, memories, disks, cards = Table("cpuTable"), Table("memTable"), Table("diskTable"), Table("netTable")
    for vm in vms_shown(host):
        if power_state(vm) not in ("poweredOn", "suspended"):
            continue
        number, config, stats = vm_id(vm), vm["config"], Statistics(host, vm, elapsed)
        for i in range(int(hardware(vm)["numCPU"])):
            cpus.add(cpuVMID=number + i,
                     cpuShares=shares(config.get("cpuAllocation")) if i == 0 else 0,
                     cpuUsedSec=stats.seconds("cpu.used", str(i)))
        memories.add(memVMID=number,
                     memShares=shares(config.get("memoryAllocation")),
                     memConfiguredKB=int(hardware(vm)["memoryMB"]) << 10,
                     memActive=stats.int32("mem.active"))
        for disk in devices(vm, {"VirtualDisk"}):
            name = disk_name(host, disk)
            if name is None:
                continue
            disks.add(diskIdx=len(disks.rows) + 1,
                      diskName=name,
                      diskVMID=number,
                      diskShares=shares(disk),
                      diskNumRead=stats.int32("disk.numberRead", name),
                      diskRead=stats.int32("disk.read", name),
                      diskNumWrite=stats.int32("disk.numberWrite", name),
                      diskWrite=stats.int32("disk.write", name))
        for nic in devices(vm, ETHERNET):
            info, key = nic.get("deviceInfo"), nic["key"]
            cards.add(netIdx=len(cards.rows) + 1,
                      netName=info["summary"] if info else "unknown",
                      netVMID=number,
                      netMac=nic.get("macAddress"),
                      netSpare=0,
                      netPktTx=stats.int32("net.packetsTx", key),
                      netTx=stats.int32("net.transmitted", key),
                      netPktRx=stats.int32("net.packetsRx", key),
                      netRx=stats.int32("net.received", key),
                      netHCPktTx=stats.counter64("net.packetsTx", key),
                      netHCTx=stats.counter64("net.transmitted", key),
                      netHCPktRx=stats.counter64("net.packetsRx", key),
                      netHCRx=stats.counter64("net.received", key))
    for table in (cpus, memories, disks, cards):
        yield from table.instances()


def host_scalars(host, first):
    """The core count and the memory scalars; `first`: the agent has not read the memory scalars yet."""
    yield instance("numCpuCores", int16(int(host["hardware"]["cpuInfo"]["numCpuCores"])))
    reserved_bytes = int(host["serviceConsole"]["serviceConsoleReserved"])
    total = (reserved_bytes + int(host["serviceConsole"]["unreserved"])) // 1024
    # The reservation is in bytes whenever it was just read, which is always while it is less than a kilobyte.
    reserved = reserved_bytes if first or reserved_bytes < 1024 else reserved_bytes // 1024
    yield instance("memTotal", total)
    yield instance("memReserved", reserved)
    yield instance("memUnreserved", int32(total) - int32(reserved))


def tree(host, elapsed=0, kernel_loaded=False, first=False):
    """Every instance under the enterprise, in the order of a walk.

    elapsed: how many seconds at most the daemon has run at the time of the request, for running statistics.
    first: the memory scalars as they are until the agent has read them once, with the reservation in bytes.
    """
    instances = [*product(host), *inventory(host), *host_scalars(host, first), *resources(host, elapsed),
                 instance("kernelLoaded", "yes" if kernel_loaded else "no")]
    return sorted(instances, key=lambda instance: instance.oid)


def assert_equal(found, expected):
    """found is the expected tree: every instance with its type and value, in order, and nothing else."""
    assert [i.oid for i in found] == [i.oid for i in expected]
    wrong = [(f, e) for f, e in zip(found, expected) if f.type != e.type or not e.value == f.value]
    assert not wrong, f"{len(wrong)} instances differ (found, expected), the first: {wrong[:3]}"
