"""The tree that the agent must serve for a libvirt host, computed from what virsh says.

A second, separate reading of docs/libvirt.md: it shares no code with the daemon and takes nothing from it, but for the
numbers that it gave the VMs. A column that virsh says nothing of is checked for its instances and their type; its
values are checked on described hosts.
"""

import os
import re
import string
import xml.etree.ElementTree as xml

import expected_tree
from expected_tree import Between, assert_equal, instance, int32  # noqa: F401 (tests take assert_equal from here)
from libvirt_host import virsh

POWER = {"running": "poweredOn", "idle": "poweredOn", "in shutdown": "poweredOn", "paused": "suspended",
         "pmsuspended": "suspended", "shut off": "poweredOff", "crashed": "poweredOff"}
GUEST = {"running": "running", "idle": "running", "in shutdown": "shuttingDown", "pmsuspended": "standby"}


class Domain:
    """What virsh says of one domain at one moment."""

    def __init__(self, uuid, description, state, info):
        self.uuid = uuid
        self.root = xml.fromstring(description)
        self.name = self.root.findtext("name")
        self.state = state.strip()
        self.persistent = re.search(r"^Persistent:\s+yes", info, re.MULTILINE) is not None
        self.drives = self.root.findall("devices/disk")
        self.cards = self.root.findall("devices/interface")

    def disks(self):
        return [drive for drive in self.drives if drive.get("device", "disk") in ("disk", "lun")]


def domains(uri):
    uuids = virsh(uri, "list --all --uuid")[0].split()
    commands = (f"{command} {uuid}" for uuid in uuids for command in ("dumpxml", "domstate", "dominfo"))
    outputs = iter(virsh(uri, *commands))
    return [Domain(uuid, next(outputs), next(outputs), next(outputs)) for uuid in uuids]


def unescaped(text):
    """A field of /proc/self/mounts, which has spaces and the like as octal numbers."""
    return re.sub(r"\\(\d{3})", lambda match: chr(int(match[1], 8)), text)


class Storage:
    def __init__(self, uri):
        self.mounts = []
        for line in open("/proc/self/mounts", encoding="utf-8"):
            source, directory, kind = line.split()[:3]
            self.mounts.append((unescaped(directory), unescaped(source), kind))
        self.pools = {}
        for name in virsh(uri, "pool-list --name")[0].split():
            pool = xml.fromstring(virsh(uri, f"pool-dumpxml {name}")[0])
            if pool.get("type") in ("dir", "fs", "netfs"):
                self.pools[pool.findtext("target/path")] = (name, pool.get("type"))

    @staticmethod
    def _holder(path, directories):
        found = [d for d in directories if d == "/" or path == d or path.startswith(d + "/")]
        return max(found, key=len, default=None)

    def locate(self, path):
        """The file as a datastore path, and the device that its datastore lies on or None."""
        path = os.path.realpath(path)
        mount = self._holder(path, [directory for directory, _, _ in self.mounts])
        source, kind = [(source, kind) for directory, source, kind in self.mounts if directory == mount][-1]
        pool = self._holder(path, self.pools)
        directory, name, network = mount, mount, False
        if pool:
            directory, name, network = pool, self.pools[pool][0], self.pools[pool][1] == "netfs"
        device = source if not network and (source.startswith("/dev/") or kind == "zfs") else None
        return f"[{name}] {os.path.relpath(path, directory)}", device


def full_guest_name(domain):
    os_id = domain.root.find("metadata//{http://libosinfo.org/xmlns/libvirt/domain/1.0}os")
    if os_id is not None:
        vendor, _, rest = os_id.get("id").removeprefix("http://").partition("/")
        file = f"/usr/share/osinfo/os/{vendor}/{rest.replace('/', '-')}.xml"
        if os.path.exists(file):
            return xml.parse(file).find("os").findtext("name")
    kind = domain.root.find("os/type")
    return f"{kind.text} ({kind.get('arch')})"


def source(drive, storage):
    """The name of a drive's backing, and the instance of its statistics or None."""
    where = drive.find("source")
    if where is None:
        return None, None
    if "file" in where.attrib:
        return storage.locate(where.get("file"))
    name = where.get("dev") or f"{where.get('protocol')}:{where.get('name')}"
    return name, name


def number_of(target):
    """vda 0, vdb 1, … vdz 25, vdaa 26."""
    number = 0
    for letter in target[2:]:
        number = number * 26 + string.ascii_lowercase.index(letter) + 1
    return number - 1


def unit_on_controller(drive):
    address = drive.find("address[@type='drive']")
    if address is None or drive.find("target").get("bus") not in ("ide", "scsi", "sata", "fdc"):
        return None
    target, unit = int(address.get("target")), int(address.get("unit"))
    if drive.find("target").get("bus") != "scsi":
        return unit
    return target if unit == 0 else unit + (target << 14)


def units(drives):
    taken = {unit_on_controller(drive) for drive in drives}
    for drive in drives:
        unit = unit_on_controller(drive)
        if unit is None:
            unit = number_of(drive.find("target").get("dev"))
            while unit in taken:
                unit += 1
            taken.add(unit)
        yield drive, unit


def ide_index(cdrom):
    target = cdrom.find("target")
    if target.get("bus") == "ide":
        return int(cdrom.find("address").get("bus")) * 2 + unit_on_controller(cdrom)
    return {"hd": 100, "sd": 200, "vd": 300}[target.get("dev")[:2]] + number_of(target.get("dev"))


def tables(*names):
    return [expected_tree.Table(name, partial=True) for name in names]


def inventory(listed, vm_ids, config_directory, storage):
    vms, hbas, targets, nics, floppies, cdroms = every = tables(
        "vmTable", "hbaTable", "tgtTable", "nicTable", "floppyTable", "cdromTable")
    for k, domain in enumerate(listed):
        number = vm_ids[domain.uuid]
        known = config_directory and domain.persistent
        file = f"{config_directory}/{domain.name}.xml" if known else f"Unknown config: {number}"
        vms.add(vmIdx=k,
                vmDisplayName=domain.name,
                vmConfigFile=file,
                vmGuestOS=full_guest_name(domain),
                vmMemSize=int(domain.root.findtext("memory")) // 1024,
                vmState=POWER[domain.state],
                vmVMID=number,
                vmGuestState=GUEST.get(domain.state, "notRunning"))
        for controller in domain.root.findall("devices/controller[@type='scsi']"):
            model, bus = controller.get("model"), int(controller.get("index"))
            hbas.add(hbaVmIdx=k,
                     hbaBus=bus,
                     hbaLabel=f"SCSI controller {bus}",
                     hbaType=model if model in ("lsilogic", "buslogic") else "unknown")
        disk = 0
        for drive, unit in units(domain.drives):
            shown, _ = source(drive, storage)
            kind, target = drive.get("device", "disk"), drive.find("target")
            connected = "false" if shown is None else "true"
            if kind == "cdrom":
                cdroms.add(cdVmIdx=k,
                           cdIdeIndex=ide_index(drive),
                           cdBacking=shown or "no medium",
                           cdConnected=connected)
            elif kind == "floppy":
                floppies.add(fdVmIdx=k,
                             fdUnit=unit,
                             fdBacking=shown or "no medium",
                             fdConnected=connected)
            else:
                disk += 1
                targets.add(tgtVmIdx=k,
                            tgtUnit=unit,
                            tgtLabel=f"Hard disk {disk} ({target.get('dev')})")
        for ordinal, card in enumerate(domain.cards):
            nics.add(nicVmIdx=k,
                     nicIdx=ordinal,
                     nicLabel=f"Network adapter {ordinal + 1}",
                     nicNetwork=network(card),
                     nicDevice="monitor_dev")
    for table in every:
        yield from table.instances()


def network(card):
    where = card.find("source")
    attributes = {} if where is None else where.attrib
    return attributes.get("network") or attributes.get("bridge") or attributes.get("dev") or card.get("type")


def span(before, after, name, scale=1, slack=0):
    """A statistic that was read before and after the walk, in units of `scale`; -1 where there is none."""
    if name not in before or name not in after:
        return -1
    low, high = sorted((before[name] // scale, after[name] // scale))
    return Between(int32(low - slack), int32(low - slack) + high - low + 2 * slack, 32)


def summed(statistics, prefixes, name):
    present = [statistics[prefix + name] for prefix in prefixes if prefix + name in statistics]
    return {name: sum(present)} if present else {}


def resources(listed, vm_ids, storage, before, after, cpu_shares):
    """`before` and `after`: by UUID, statistics under the names of domstats."""
    cpus, memories, disks, nets = every = tables("cpuTable", "memTable", "diskTable", "netTable")
    for domain in listed:
        if POWER[domain.state] == "poweredOff":
            continue
        number, old, new = vm_ids[domain.uuid], before[domain.uuid], after[domain.uuid]
        shares = domain.root.findtext("cputune/shares")
        cpu = domain.root.find("vcpu")
        for i in range(int(cpu.get("current", cpu.text))):
            used = span(old, new, f"vcpu.{i}.time", 10 ** 9, slack=1)
            cpus.add(cpuVMID=number + i,
                     cpuShares=int(shares or cpu_shares) if i == 0 else 0,
                     cpuUsedSec=0 if used == -1 else used)
        memory = int(domain.root.findtext("memory")) // 1024
        memories.add(memVMID=number,
                     memShares=memory,
                     memConfiguredKB=memory << 10,
                     memActive=span(old, new, "active", slack=16384))
        by_name = {}
        for drive in domain.disks():
            entry = f"block.{drive.find('target').get('dev')}."
            by_name.setdefault(source(drive, storage)[1], []).append(entry)
        for drive in domain.disks():
            name = source(drive, storage)[1]
            if name is None and drive.find("source") is not None:
                continue

            def traffic(statistic, scale=1):
                earlier, later = (summed(sample, by_name[name], statistic) for sample in (old, new))
                return span(earlier, later, statistic, scale)

            disks.add(diskIdx=len(disks.rows) + 1,
                      diskName=name or "unknown",
                      diskVMID=number,
                      diskShares=100,
                      diskNumRead=traffic("rd.reqs"),
                      diskRead=traffic("rd.bytes", 1024),
                      diskNumWrite=traffic("wr.reqs"),
                      diskWrite=traffic("wr.bytes", 1024))
        for card in domain.cards:
            target = card.find("target")
            entry = f"net.{target.get('dev') if target is not None else None}."
            nets.add(netIdx=len(nets.rows) + 1,
                     netName=network(card),
                     netVMID=number,
                     netMac=card.find("mac").get("address"),
                     netSpare=0,
                     netPktTx=span(old, new, entry + "tx.pkts"),
                     netTx=span(old, new, entry + "tx.bytes", 1024),
                     netPktRx=span(old, new, entry + "rx.pkts"),
                     netRx=span(old, new, entry + "rx.bytes", 1024),
                     netHCPktTx=wide_span(old, new, entry + "tx.pkts"),
                     netHCTx=wide_span(old, new, entry + "tx.bytes", 1024),
                     netHCPktRx=wide_span(old, new, entry + "rx.pkts"),
                     netHCRx=wide_span(old, new, entry + "rx.bytes", 1024))
    for table in every:
        yield from table.instances()


def wide_span(before, after, name, scale=1):
    if name not in before or name not in after:
        return (1 << 64) - 1
    low, high = before[name] // scale, after[name] // scale
    return Between(low, high, 64)


def scalars(uri, kernel_loaded=False):
    version = virsh(uri, "version", "nodeinfo")
    product = re.search(r"Running hypervisor: (\w+) ([\d.]+)", version[0])
    library = re.search(r"Using API: \w+ ([\d.]+)", version[0])[1]
    node = {key.strip(): value.strip() for key, _, value in (line.partition(":") for line in version[1].splitlines())}
    cores = int(node["NUMA cell(s)"]) * int(node["CPU socket(s)"]) * int(node["Core(s) per socket"])
    yield from expected_tree.product({"about": {"name": product[1], "version": product[2], "build": library}})
    memory = int(node["Memory size"].split()[0])
    yield instance("numCpuCores", cores)
    yield instance("memTotal", memory)
    yield instance("memReserved", 0)
    yield instance("memUnreserved", memory)
    yield instance("kernelLoaded", "yes" if kernel_loaded else "no")


def tree(uri, vm_ids, before, after, listed=None, config_directory=None, cpu_shares=1024):
    """Every instance under the enterprise, in walk order; `listed`: the domains, where they have not changed since."""
    storage = Storage(uri)
    listed = sorted(listed or domains(uri), key=lambda domain: vm_ids[domain.uuid])
    instances = [*scalars(uri), *inventory(listed, vm_ids, config_directory, storage),
                 *resources(listed, vm_ids, storage, before, after, cpu_shares)]
    return sorted(instances, key=lambda instance: instance.oid)
