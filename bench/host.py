#!/usr/bin/python3
"""Prints a described host of N VMs: host.py N > file.yaml

Each VM runs, with 2 virtual CPUs, 2 disks on two datastores with an extent each, 4 network cards, a CD-ROM drive and a
floppy drive, and every statistic; those of the CPUs and of what the cards transmit change all the time. A file of
10,000 VMs is within the daemon's limits.
"""
import sys

VMS_PER_DATASTORE = 25

HEAD = """\
about: {name: Tovric Kelv Server, version: 3.0.2, build: "13638"}
hardware: {cpuInfo: {numCpuCores: 64}}
serviceConsole: {serviceConsoleReserved: 285212672, unreserved: 1862270976}
datastores:
"""

DATASTORE = """\
  - {{id: ds-{n}, type: DrellDatastoreInfo, name: storage{n}, drell: {{extent: [{{diskName: "disk-{n}:0"}}]}}}}
"""

VM = """\
  - id: "{id}"
    config:
      name: {name}
      guestFullName: Debian GNU/Linux 12 (64-bit)
      files: {{vmPathName: "[storage{first}] {name}/{name}.cfg"}}
      datastoreUrl: [{{name: storage{first}, url: /volumes/{first:08x}/}},
                     {{name: storage{second}, url: /volumes/{second:08x}/}}]
      cpuAllocation: {{shares: {{shares: 2000}}}}
      memoryAllocation: {{shares: {{shares: 40960}}}}
      hardware:
        numCPU: 2
        memoryMB: 4096
        device:
          - {{type: VirtualLsiLogicController, key: 1000, busNumber: 0,
             deviceInfo: {{label: SCSI Controller 0, summary: LSI Logic}}}}
{disks}{cards}\
          - {{type: VirtualIDEController, key: 200, busNumber: 0, deviceInfo: {{label: IDE 0, summary: IDE 0}}}}
          - {{type: VirtualCdrom, key: 3000, controllerKey: 200, unitNumber: 0, connectable: {{connected: false}},
             deviceInfo: {{label: CD/DVD Drive 1, summary: Remote device}},
             backing: {{type: RemoteDeviceBackingInfo, deviceName: ""}}}}
          - {{type: VirtualFloppy, key: 8000, unitNumber: 0, connectable: {{connected: false}},
             deviceInfo: {{label: Floppy Drive 1, summary: boot.flp}},
             backing: {{type: FileBackingInfo, fileName: "[storage{first}] boot.flp"}}}}
    runtime: {{powerState: poweredOn}}
    guest: {{guestState: running}}
    stats:
      cpu.used: {{"0": {{start: {start}, perSecond: 350}}, "1": {{start: {start}, perSecond: 120}}}}
      mem.active: {{"": 1310720}}
{statistics}"""

DISK = """\
          - {{type: VirtualDisk, key: {key}, controllerKey: 1000, unitNumber: {unit}, shares: {{shares: 1000}},
             deviceInfo: {{label: Hard Disk {number}, summary: 64 GB}}, backing: {{type: FileBackingInfo,
             fileName: "[storage{datastore}] {name}/{name}-{unit}.dsk", datastore: ds-{datastore}}}}}
"""

CARD = """\
          - {{type: VirtualE1000Card, key: {key}, macAddress: "{mac}",
             deviceInfo: {{label: Network Adapter {number}, summary: VM Network {number}}},
             backing: {{type: DeviceBackingInfo, deviceName: VM Network {number}}}}}
"""

CARDS = range(4000, 4004)
# With the increase per second, where there is one: a description may hold 4,000,000 values.
DISK_COUNTERS = {"disk.numberRead": 0, "disk.read": 0, "disk.numberWrite": 0, "disk.write": 0}
CARD_COUNTERS = {"net.packetsTx": 90, "net.transmitted": 64, "net.packetsRx": 0, "net.received": 0}


def statistics(counters, instances, start):
    for counter, rate in counters.items():
        value = "{{start: {}, perSecond: {}}}" if rate else "{}"
        series = ", ".join(f'"{instance}": ' + value.format(start + 1000 * number, rate)
                           for number, instance in enumerate(instances))
        yield f"      {counter}: {{{series}}}\n"


def vm(number, datastores):
    name = f"web-{number:05}.example.net"
    disks = [number % datastores, (number + 1) % datastores]
    start = 5_000_000 + 7919 * number       # some 64-bit counters are beyond 32 bits
    macs = ["00:16:3e:" + ":".join(f"{(4 * number + card) >> shift & 255:02x}" for shift in (16, 8, 0))
            for card in range(len(CARDS))]
    return VM.format(
        id=16 * (number + 1), name=name, first=disks[0], second=disks[1], start=start,
        disks="".join(DISK.format(key=2000 + unit, number=unit + 1, unit=unit, datastore=datastore, name=name)
                      for unit, datastore in enumerate(disks)),
        cards="".join(CARD.format(key=key, number=card + 1, mac=macs[card]) for card, key in enumerate(CARDS)),
        statistics="".join([*statistics(DISK_COUNTERS, [f"disk-{datastore}:0" for datastore in disks], start),
                            *statistics(CARD_COUNTERS, CARDS, start << 10)]))


def write(count, file):
    """Writes the description of `count` VMs."""
    datastores = max(2, count // VMS_PER_DATASTORE)
    file.write(HEAD)
    file.writelines(DATASTORE.format(n=number) for number in range(datastores))
    file.write("vms:\n")
    file.writelines(vm(number, datastores) for number in range(count))


if __name__ == "__main__":
    if len(sys.argv) != 2 or not sys.argv[1].isdecimal():
        sys.exit(__doc__)
    write(int(sys.argv[1]), sys.stdout)
