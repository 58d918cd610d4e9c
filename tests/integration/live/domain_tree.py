"""The tree that the agent must answer for a libvirt host, worked out from what virsh says.

A second, separate reading of docs/libvirt.md: it shares no code with the daemon and asks nothing of it, but for the
numbers that it gave the machines.
"""

import os
import re
import string
import xml.etree.ElementTree as xml

import expected_tree
from expected_tree import ENTERPRISE, Between, Instance, Table, counter64, int32, integer, text
from libvirt_host import virsh

POWER = {"running": "poweredOn", "idle": "poweredOn", "in shutdown": "poweredOn", "paused": "suspended",
         "pmsuspended": "suspended", "shut off": "poweredOff", "crashed": "poweredOff"}
GUEST = {"running": "running", "idle": "running", "in shutdown": "shuttingDown", "pmsuspended": "standby"}


class Domain:
    """What virsh says of one machine at one moment."""

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
    answers = iter(virsh(uri, *(f"{command} {uuid}" for uuid in uuids for command in ("dumpxml", "domstate", "dominfo"))))
    return [Domain(uuid, next(answers), next(answers), next(answers)) for uuid in uuids]


class Storage:
    def __init__(self, uri):
        self.mounts = []
        for line in open("/proc/self/mounts", encoding="utf-8"):
            source, directory, kind = line.split()[:3]
            unescape = lambda s: re.sub(r"\\(\d{3})", lambda m: chr(int(m[1], 8)), s)
            self.mounts.append((unescape(directory), unescape(source), kind))
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
        directory, name, network = (pool, self.pools[pool][0], self.pools[pool][1] == "netfs") if pool else (mount, mount, False)
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
    """What a drive shows, and the name of its figures or None."""
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


def inventory(machines, identities, config_directory, storage):
    vms, hbas, targets = Table(2, 1, 1), Table(2, 2, 1), Table(2, 3, 1)
    nics, floppies, cdroms = Table(2, 4, 1), Table(2, 5, 1), Table(2, 6, 1)
    for k, domain in enumerate(machines):
        number = identities[domain.uuid]
        file = f"{config_directory}/{domain.name}.xml" if config_directory and domain.persistent else f"Unknown config: {number}"
        vms.add((k,), integer(k), text(domain.name), text(file), text(full_guest_name(domain)),
                integer(int(domain.root.findtext("memory")) // 1024), text(POWER[domain.state]), integer(number),
                text(GUEST.get(domain.state, "notRunning")))
        for controller in domain.root.findall("devices/controller[@type='scsi']"):
            model, bus = controller.get("model"), int(controller.get("index"))
            hbas.add((k, bus), integer(k), integer(bus), text(f"SCSI controller {bus}"),
                     text(model if model in ("lsilogic", "buslogic") else "unknown"))
        disk = 0
        for drive, unit in units(domain.drives):
            shown, _ = source(drive, storage)
            kind, target = drive.get("device", "disk"), drive.find("target")
            connected = text("false" if shown is None else "true")
            if kind == "cdrom":
                place = drive.find("address")
                position = int(place.get("bus")) * 2 + unit if target.get("bus") == "ide" else 0
                cdroms.add((k, position), integer(k), integer(position), text(shown or "no medium"), connected)
            elif kind == "floppy":
                floppies.add((k, unit), integer(k), integer(unit), text(shown or "no medium"), connected)
            else:
                disk += 1
                targets.add((k, unit), integer(k), integer(unit), text(f"Hard disk {disk} ({target.get('dev')})"))
        for ordinal, card in enumerate(domain.cards):
            nics.add((k, ordinal), integer(k), integer(ordinal), text(f"Network adapter {ordinal + 1}"),
                     text(network(card)), text("monitor_dev"))
    for table in (vms, hbas, targets, nics, floppies, cdroms):
        yield from table.instances()


def network(card):
    where = card.find("source")
    attributes = {} if where is None else where.attrib
    return attributes.get("network") or attributes.get("bridge") or attributes.get("dev") or card.get("type")


def span(before, after, name, scale=1, slack=0):
    """A figure that was read before and after the walk, in units of `scale`; -1 where there is none."""
    if name not in before or name not in after:
        return -1
    low, high = sorted((before[name] // scale, after[name] // scale))
    return Between(int32(low - slack), int32(low - slack) + high - low + 2 * slack, 32)


def summed(figures, prefixes, name):
    present = [figures[prefix + name] for prefix in prefixes if prefix + name in figures]
    return {name: sum(present)} if present else {}


def resources(machines, identities, storage, before, after, cpu_shares):
    """`before` and `after`: by UUID, figures under the names of domstats."""
    cpus, memories, disks, nets = Table(3, 1, 2, 1), Table(3, 2, 4, 1), Table(3, 3, 1), Table(3, 4, 1)
    for domain in machines:
        if POWER[domain.state] == "poweredOff":
            continue
        number, old, new = identities[domain.uuid], before[domain.uuid], after[domain.uuid]
        shares = domain.root.findtext("cputune/shares")
        cpu = domain.root.find("vcpu")
        for i in range(int(cpu.get("current", cpu.text))):
            used = span(old, new, f"vcpu.{i}.time", 10 ** 9, slack=1)
            cpus.add((number + i,), integer(number + i), integer(int(shares or cpu_shares) if i == 0 else 0),
                     integer(0 if used == -1 else used))
        memory = int(domain.root.findtext("memory"))
        memories.add((number,), integer(number), integer(memory // 1024), integer(memory // 1024 << 10),
                     integer(span(old, new, "active", slack=16384)))
        by_name = {}
        for drive in domain.disks():
            entry = f"block.{drive.find('target').get('dev')}."
            by_name.setdefault(source(drive, storage)[1], []).append(entry)
        for drive in domain.disks():
            name = source(drive, storage)[1]
            if name is None and drive.find("source") is not None:
                continue
            index = len(disks.rows) + 1
            figures = [span(summed(old, by_name[name], f), summed(new, by_name[name], f), f, scale)
                       for f, scale in (("rd.reqs", 1), ("rd.bytes", 1024), ("wr.reqs", 1), ("wr.bytes", 1024))]
            disks.add((index,), integer(index), text(name or "unknown"), integer(number), integer(100), *map(integer, figures))
        for card in domain.cards:
            index = len(nets.rows) + 1
            target = card.find("target")
            entry = f"net.{target.get('dev') if target is not None else None}."
            figures = [(entry + f, scale) for f, scale in (("tx.pkts", 1), ("tx.bytes", 1024), ("rx.pkts", 1), ("rx.bytes", 1024))]
            narrow = [span(old, new, name, scale) for name, scale in figures]
            long = [wide_span(old, new, name, scale) for name, scale in figures]
            nets.add((index,), integer(index), text(network(card)), integer(number), text(card.find("mac").get("address")),
                     integer(0), *map(integer, narrow), *map(counter64, long))
    for table in (cpus, memories, disks, nets):
        yield from table.instances()


def wide_span(before, after, name, scale):
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
    for suffix, value in (((1, 1), cores), ((2, 1), memory), ((2, 2), 0), ((2, 3), memory)):
        yield Instance(ENTERPRISE + (3, *suffix, 0), "INTEGER", int32(value))
    yield Instance(ENTERPRISE + (4, 1, 1, 1, 0), "OCTET STRING", b"yes" if kernel_loaded else b"no")


def tree(uri, identities, before, after, machines=None, config_directory=None, cpu_shares=1024):
    """Every instance under the enterprise, in the order of a walk; `machines`: where they have not changed since then."""
    storage = Storage(uri)
    machines = sorted(machines or domains(uri), key=lambda domain: identities[domain.uuid])
    instances = [*scalars(uri), *inventory(machines, identities, config_directory, storage),
                 *resources(machines, identities, storage, before, after, cpu_shares)]
    return sorted(instances, key=lambda instance: instance.oid)


def assert_equal(found, expected):
    assert [i.oid for i in found] == [i.oid for i in expected]
    wrong = [(f, e) for f, e in zip(found, expected) if f.type != e.type or not e.value == f.value]
    assert not wrong, f"{len(wrong)} instances differ (found, expected), the first: {wrong[:3]}"
