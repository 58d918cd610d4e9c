// The inventory that the daemon serves, and the interface of its sources.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "runtime/hask/api.h"

namespace Vessad {

// A statistic as a function of time: start + perSecond × seconds since the daemon started, rounded down,
// wrapping at 64 bits.
struct Series {
    std::int32_t counterKey = 0;
    std::string instance;  // empty: the whole VM
    std::int64_t start = 0;
    double perSecond = 0;
};

struct Vm {
    std::string id;                            // unique; text that XML can carry
    Tessim::Ref<Hask::Vm::ConfigInfo> config;  // null: the VM has none
    Tessim::Ref<Hask::Vm::RuntimeInfo> runtime;
    Tessim::Ref<Hask::Vm::GuestInfo> guest;
    std::vector<Series> series;
};

// The API objects of a host. A snapshot, immutable once it is published, so that any number of connections
// may read it while the backend makes the next one. References are null where the host has no such object.
struct Inventory {
    Tessim::Ref<Hask::AboutInfo> about;
    Tessim::Ref<Hask::Host::HardwareInfo> hardware;
    Tessim::Ref<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo> serviceConsole;
    std::vector<Tessim::Ref<Hask::PerformanceManager::CounterInfo>> counters;  // the catalogue, in order
    std::map<std::string, Tessim::Ref<Hask::Datastore::Info>> datastores;      // by id
    std::vector<std::shared_ptr<const Vm>> vms;                                // in the folder's order
    std::map<std::string, std::shared_ptr<const Vm>, std::less<>> vmsById;

    // The VM that `reference` names, or null.
    std::shared_ptr<const Vm> FindVm(const Ordane::MoRef& reference) const;

    // Adds the VM to both; returns false, and adds nothing, when its id is taken.
    bool Add(std::shared_ptr<const Vm> vm);
};

// Where a backend's inventory comes from, for people, and whether that could be read.
struct SourceStatus {
    std::string source;
    bool connected = false;                   // the latest attempt succeeded
    std::optional<std::string> lastError;     // why it failed, if it did
    std::optional<std::chrono::seconds> age;  // since the newest inventory was read; none before the first
};

// A source of inventories. Every operation may be called from any thread.
class Backend {
  public:
    Backend() = default;
    Backend(const Backend&) = delete;
    Backend& operator=(const Backend&) = delete;
    virtual ~Backend() = default;

    // The newest complete inventory; never null, never waits for the host.
    virtual std::shared_ptr<const Inventory> GetInventory() = 0;

    // Never waits for the host.
    virtual SourceStatus GetStatus() = 0;

    // Reads the source again (SIGHUP). Logs a failure, and keeps the current inventory then. Does not throw.
    virtual void Reload() = 0;

    // Returns whether the backend's own threads run; a host that does not respond stops none of them.
    virtual bool IsMakingProgress() { return true; }
};

// Makes an entry of the catalogue, whose descriptions have `group` and `name` as key, label and summary.
Tessim::Ref<Hask::PerformanceManager::CounterInfo> MakeCounter(std::int32_t key, const std::string& group,
                                                               const std::string& name,
                                                               Hask::PerformanceManager::RollupType rollup);

// The ten counters that the module queries, as a catalogue with keys from 1.
std::vector<Tessim::Ref<Hask::PerformanceManager::CounterInfo>> StandardCounters();

// The keys of counters by "group.name"; of several counters with one name, the first.
using CounterKeys = std::map<std::string, std::int32_t, std::less<>>;

CounterKeys KeysOf(const std::vector<Tessim::Ref<Hask::PerformanceManager::CounterInfo>>& catalogue);

}  // namespace Vessad
