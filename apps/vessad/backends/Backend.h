// What the daemon serves, wherever it comes from.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "runtime/hask/api.h"

namespace Vessad {

// One counter of one instance of a machine. Its value at a moment is start + perSecond × seconds since the
// daemon started, rounded down; it wraps at 64 bits.
struct Series {
    std::int32_t counterKey = 0;
    std::string instance;  // empty: the machine as a whole
    std::int64_t start = 0;
    double perSecond = 0;
};

struct Vm {
    std::string id;                            // unique; text that XML can carry
    Tessim::Ref<Hask::Vm::ConfigInfo> config;  // null: the host has no configuration for it
    Tessim::Ref<Hask::Vm::RuntimeInfo> runtime;
    Tessim::Ref<Hask::Vm::GuestInfo> guest;
    std::vector<Series> series;
};

// Everything that can be asked of a host, at one moment. Immutable once published, so that any number of
// connections may read it while the backend makes the next one.
struct Inventory {
    Tessim::Ref<Hask::AboutInfo> about;
    Tessim::Ref<Hask::Host::HardwareInfo> hardware;
    Tessim::Ref<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo> serviceConsole;
    std::vector<Tessim::Ref<Hask::PerformanceManager::CounterInfo>> counters;  // the catalogue, in order
    std::map<std::string, Tessim::Ref<Hask::Datastore::Info>> datastores;      // by id
    std::vector<std::shared_ptr<const Vm>> vms;                                // in the folder's order
    std::map<std::string, std::shared_ptr<const Vm>, std::less<>> vmsById;

    // Adds a machine to both; one whose id is taken already is refused (false).
    bool Add(std::shared_ptr<const Vm> vm);
};

// A source of inventories. Every operation may be called from any thread.
class Backend {
  public:
    Backend() = default;
    Backend(const Backend&) = delete;
    Backend& operator=(const Backend&) = delete;
    virtual ~Backend() = default;

    // The newest whole inventory; never null, never waits for the host.
    virtual std::shared_ptr<const Inventory> GetInventory() = 0;

    // Reads the source again, as an operator asked (SIGHUP). When that fails, says so in the daemon's log and
    // keeps what it has.
    virtual void Reload() = 0;
};

// An entry of the catalogue.
Tessim::Ref<Hask::PerformanceManager::CounterInfo> MakeCounter(std::int32_t key, const std::string& group,
                                                               const std::string& name,
                                                               Hask::PerformanceManager::RollupType rollup);

// The ten counters that the agent module asks for, as a catalogue with keys from 1.
std::vector<Tessim::Ref<Hask::PerformanceManager::CounterInfo>> StandardCounters();

}  // namespace Vessad
