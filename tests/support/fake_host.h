// The objects of a management daemon, with replies that the test sets.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "runtime/hask/api.h"

namespace TestSupport {

// One VM; the daemon does not know what is null here.
struct FakeVm {
    std::string id;
    Tessim::Ref<Hask::Vm::ConfigInfo> config;
    Tessim::Ref<Hask::Vm::RuntimeInfo> runtime;
    Tessim::Ref<Hask::Vm::GuestInfo> guest;
};

class FakeHost {
  public:
    // A host without VMs, datastores or statistics, whose content names its managers.
    FakeHost();
    ~FakeHost();
    FakeHost(const FakeHost&) = delete;
    FakeHost& operator=(const FakeHost&) = delete;

    // The replies.
    Tessim::Ref<Hask::ServiceInstanceContent> content;
    std::vector<FakeVm> vms;  // the folder's children
    // By id; null is a datastore without information, a missing one is unknown to the daemon.
    std::map<std::string, Tessim::Ref<Hask::Datastore::Info>> datastores;
    Tessim::Ref<Hask::Host::HardwareInfo> hardware;
    Tessim::Ref<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo> consoleReservation;
    Tessim::Ref<Ordane::DataArray<Hask::PerformanceManager::CounterInfo>> counters;      // never null
    Tessim::Ref<Ordane::DataArray<Hask::PerformanceManager::EntityMetricBase>> metrics;  // never null

    // The ticket: whom it is for, and what its fresh file of mode 0600 holds, unless another path is set.
    std::string ticketUser = "root";
    std::string ticketContent = "one-time-password";
    std::optional<std::string> ticketPath;

    // The requests.
    std::map<std::string, std::vector<std::vector<std::string>>> texts;  // by method, those of each call
    std::vector<Tessim::Ref<Ordane::DataArray<Hask::PerformanceManager::QuerySpec>>> queries;

    // Makes the objects run `action` before they reply to that method. What it throws becomes a fault.
    void WhenRequested(const std::string& method, std::function<void()> action) {
        actions[method] = std::move(action);
    }

    // Whether the daemon has the calls that return much at once, RetrieveChanges and QueryLatest.
    bool newer = false;
    bool Knows(const std::string& method) const;

    // The object of that type and id, or null. It uses this host and must not outlive it.
    Tessim::Ref<Ordane::ManagedObject> Find(const Ordane::MoRef& reference);

    // For the objects: the response of the object with that id.
    Tessim::Ref<Ordane::DataObject> Reply(const std::string& id, const Ordane::MethodInfo& method,
                                          const Ordane::DataObject& request);

  private:
    // Keeps the parameters of a call.
    void Record(const std::string& method, const Ordane::DataObject& request);
    FakeVm FindVm(const std::string& id) const;
    // Everything, as if nothing had been received before.
    Tessim::Ref<Hask::Folder::Changes> MakeChanges() const;
    // The metrics of the entities in `query`.
    Tessim::Ref<Hask::PerformanceManager::LatestSamples> MakeSamples(const Ordane::DataObject& query) const;
    Tessim::Ref<Hask::SessionManager::LocalTicket> MakeTicket();
    std::string MakeTicketFile();

    std::map<std::string, std::function<void()>> actions;
    std::filesystem::path folder;  // holds the ticket files
    int ticketCount = 0;
};

}  // namespace TestSupport
