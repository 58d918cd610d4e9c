"""Rebuild after rebuild: the memory that a year of monitoring costs the agent, in minutes.

KELV_REBUILDS sets how many (500 by default).
"""

import os

import expected_tree
import pytest
import system
import watch

REBUILDS = int(os.environ.get("KELV_REBUILDS", "500"))
VMS = 100

VM = """
  - id: "{id}"
    config:
      name: vm {id}
      guestFullName: Debian GNU/Linux 12 (64-bit)
      files: {{vmPathName: "[storage1] m{id}/m{id}.cfg"}}
      datastoreUrl: [{{name: storage1, url: /volumes/4a5b/}}]
      hardware:
        numCPU: 2
        memoryMB: 512
        device:
          - {{type: VirtualDisk, key: 2000, deviceInfo: {{label: Hard Disk 1, summary: 8 GB}}, unitNumber: 0,
             backing: {{type: DeviceBackingInfo, deviceName: "disk-{id}"}}}}
          - {{type: VirtualEthernetCard, key: 4000, deviceInfo: {{label: Network Adapter 1, summary: network {id}}},
             backing: {{type: DeviceBackingInfo, deviceName: VM Network}}, macAddress: "00:16:3e:00:00:{low:02x}"}}
    runtime: {{powerState: poweredOn}}
    guest: {{guestState: running}}
    stats:
      cpu.used: {{"0": 181000, "1": 90500}}
      mem.active: {{"": 131072}}
      disk.read: {{"disk-{id}": 4096}}
      disk.numberRead: {{"disk-{id}": 1}}
      disk.write: {{"disk-{id}": 4096}}
      disk.numberWrite: {{"disk-{id}": 1}}
      net.packetsTx: {{"4000": 1}}
      net.packetsRx: {{"4000": 2}}
      net.transmitted: {{"4000": 3}}
      net.received: {{"4000": 4294967301}}
"""
HOST = ('about: {name: Tovric Kelv Server, version: 3.0.2, build: "13638"}\nhardware: {cpuInfo: {numCpuCores: 8}}\n'
        "serviceConsole: {serviceConsoleReserved: 285212672, unreserved: 1862270976}\nvms:"
        + "".join(VM.format(id=100 + 10 * n, low=n) for n in range(VMS)))


@pytest.mark.slow
@system.needs_plain_build
def test_rebuilds_cost_no_memory_and_one_statistics_query_each(directory, start_daemon, shifted_agent):
    file = directory / "host.yaml"
    file.write_text(HOST)
    daemon = start_daemon(file, "--log-level", "debug")
    agent = shifted_agent()
    queries = daemon.log_text().count("QueryLatest for")
    resident, heap = [], []     # in kB and in bytes, after each tenth of the rebuilds
    for number in range(1, REBUILDS + 1):
        assert agent.refresh()[1], f"rebuild {number}"
        if number % (REBUILDS // 10) == 0:
            resident.append(watch.memory(agent.pid))
            heap.append(agent.heap())
    early, late = resident[0], resident[-1]
    assert daemon.log_text().count(f"QueryLatest for {VMS} entities") - queries == REBUILDS
    watch.report(f"{REBUILDS} rebuilds of {VMS} VMs", "holds as much memory after the last as after a tenth of them", 0,
                 resident_kilobytes=resident, heap_bytes=heap)
    assert late <= early * 1.01
    # The names of disks and cards are lasting strings.
    agent.assert_right(expected_tree.parse(HOST))
