// What the daemon's VMs and datastores were when the VMs were last listed, received in few calls.
//
// A daemon that does not know these calls is asked by one call per object and getter instead; the results are
// the same. Not thread-safe.
#pragma once

#include <string>
#include <unordered_map>

#include "runtime/hask/api.h"
#include "runtime/tessim/time_budget.h"

namespace Hask {

class ObjectCache : public Tessim::ObjectImpl, public virtual Tessim::Object {
  public:
    using TimePoint = Tessim::Clock::time_point;

    // `adapter` carries the calls of the stubs that are passed below. `now` is for tests.
    explicit ObjectCache(Tessim::Ref<Ordane::StubAdapter> adapter, TimePoint (*now)() = Tessim::Clock::now)
        : adapter(std::move(adapter)), now(now) {}

    // Puts the children of `folder`, a stub, into `out`, and brings the cache up to date: what changed since
    // the last time is received, nothing else. Throws what GetChildEntity throws.
    void ListChildren(Folder& folder, Tessim::Ref<Ordane::DataArray<Ordane::MoRef>>& out);

    // Returns what the object's getters return; null, for 5 s after the listing, when the daemon did not send
    // it, and at any other time: it is to be asked then. The cache keeps the object until the next listing.
    const Vm::State* FindVm(const std::string& id) const;
    const Datastore::State* FindDatastore(const std::string& id) const;

    // Puts the result of `manager`, a stub, into `out`. Throws what QueryPerf throws.
    void QueryPerf(PerformanceManager& manager, Ordane::DataArray<PerformanceManager::QuerySpec>* specs,
                   Tessim::Ref<Ordane::DataArray<PerformanceManager::EntityMetricBase>>& out);

  private:
    template <class State>
    using States = std::unordered_map<std::string, Tessim::Ref<State>>;

    void Update(Folder& folder);
    void Apply(const Folder::Changes& changes);
    bool IsCurrent() const;

    const Tessim::Ref<Ordane::StubAdapter> adapter;
    TimePoint (*const now)();
    bool retrievesChanges = true;  // as far as known, the daemon has these methods
    bool queriesLatest = true;
    std::optional<std::string> version;  // of what is below
    States<Vm::State> vms;               // by id
    States<Datastore::State> datastores;
    Tessim::Ref<Ordane::DataArray<Ordane::MoRef>> children;  // in the folder's order
    TimePoint currentUntil{};
};

}  // namespace Hask
