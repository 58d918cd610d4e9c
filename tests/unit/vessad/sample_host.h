// The described host of the daemon's tests.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "apps/vessad/backends/HostDescription.h"

namespace VessadTest {

// Two VMs with statistics, one without, and two datastores.
inline const std::string sampleHost = R"(
about: {name: Sample, version: 1.2.3, build: "77"}
hardware: {cpuInfo: {numCpuCores: 12}}
serviceConsole: {serviceConsoleReserved: 285212672, unreserved: 1862270976}
datastores:
  - {id: ds-1, type: DrellDatastoreInfo, drell: {extent: [{diskName: "disk-0:0"}]}}
  - {id: ds-2}
vms:
  - id: "16"
    config: {name: web, guestFullName: Debian, hardware: {numCPU: 2, memoryMB: 512}}
    runtime: {powerState: poweredOn}
    guest: {guestState: running}
    stats:
      cpu.used: {"0": 181000, "1": {start: 90500, perSecond: 35}}
      mem.active: {"": 131072}
  - id: "17"
    config: null
    runtime: {powerState: poweredOff}
    guest: {guestState: notRunning}
  - id: name-17
    config: {name: db, guestFullName: Other}
    stats: {cpu.used: {"0": 4611686018427387904}}
)";

// A backend whose inventory the test replaces.
class TestBackend final : public Vessad::Backend {
  public:
    explicit TestBackend(const std::string& host = sampleHost) : inventory(Vessad::ReadHost(host, "test")) {}

    std::shared_ptr<const Vessad::Inventory> GetInventory() override { return inventory; }
    Vessad::SourceStatus GetStatus() override { return status; }
    void Reload() override {}
    void Replace(const std::string& host) { inventory = Vessad::ReadHost(host, "test"); }

    Vessad::SourceStatus status;

  private:
    std::shared_ptr<const Vessad::Inventory> inventory;
};

}  // namespace VessadTest
