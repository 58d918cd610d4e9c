// What the daemon's VMs and datastores were when the VMs were last listed, received in few calls.
//
// Where the daemon does not know these calls, or their replies cannot be used, the getters of each object are
// called instead; the results are the same. Not thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>

#include "runtime/hask/api.h"
#include "runtime/tessim/time_budget.h"

namespace Hask {

// A method of which one call replaces many, where the daemon has it.
class ShortCut {
  public:
    explicit ShortCut(const char* method) : method(method) {}

    // Runs `call`, which calls the method, and returns whether it succeeded. A fault, or a reply that cannot
    // be used, fails it; the first of several failures in a row is logged, and further ones are followed by
    // 1, 3, 7 and at last 63 runs that fail without a call. The exception of a broken connection passes
    // through, as does any that is no fault.
    template <class Call>
    bool Try(Call call);

  private:
    void Fail(const char* reason);

    const char* method;
    unsigned failures = 0;  // in a row
    unsigned left = 0;      // runs without a call
};

class ObjectCache : public Tessim::ObjectImpl, public virtual Tessim::Object {
  public:
    using TimePoint = Tessim::Clock::time_point;

    // An estimate of the most that the cache takes; more is not kept.
    static constexpr std::size_t defaultMaxBytes = 192UL * 1024 * 1024;

    // `adapter` carries the calls of the stubs that are passed below. `now` and `maxBytes` are for tests.
    explicit ObjectCache(Tessim::Ref<Ordane::StubAdapter> adapter, TimePoint (*now)() = Tessim::Clock::now,
                         std::size_t maxBytes = defaultMaxBytes)
        : adapter(std::move(adapter)), now(now), maxBytes(maxBytes) {}

    // Puts the children of `folder`, a stub, into `out`. Throws what GetChildEntity throws.
    void ListChildren(Folder& folder, Tessim::Ref<Ordane::DataArray<Ordane::MoRef>>& out);

    // Returns what the object's getters return, as the cache keeps it until the next listing. The first of
    // these calls after a listing receives what changed since the one before, and throws the exception of a
    // connection that breaks meanwhile. Null 5 s after that, and for an object that the daemon did not send:
    // its getters are to be called then.
    const Vm::State* FindVm(const std::string& id);
    const Datastore::State* FindDatastore(const std::string& id);

    // Puts the result of `manager`, a stub, into `out`. Throws what QueryPerf throws.
    void QueryPerf(PerformanceManager& manager, Ordane::DataArray<PerformanceManager::QuerySpec>* specs,
                   Tessim::Ref<Ordane::DataArray<PerformanceManager::EntityMetricBase>>& out);

  private:
    template <class State>
    struct Kept {
        Tessim::Ref<State> state;
        std::size_t bytes = 0;
    };
    template <class State>
    using States = std::unordered_map<std::string, Kept<State>>;

    void Update();
    // Receives every change, whose first parts may be kept when it throws.
    void Receive(Folder& from);
    void Apply(const Folder::Changes& changes);
    template <class State>
    void Keep(States<State>& states, const Tessim::Ref<State>& state);
    // Removes the states of objects that `listed` lacks.
    template <class State>
    void RemoveAllBut(const Ordane::DataArray<Ordane::MoRef>& listed, States<State>& states);
    void Clear();
    template <class State>
    const State* Find(const States<State>& states, const std::string& id);

    const Tessim::Ref<Ordane::StubAdapter> adapter;
    TimePoint (*const now)();
    const std::size_t maxBytes;
    ShortCut retrieveChanges{"RetrieveChanges"};
    ShortCut queryLatest{"QueryLatest"};
    Tessim::Ref<Folder> listed;          // whose changes since the listing are not received yet
    std::optional<std::string> version;  // of what is below
    States<Vm::State> vms;               // by id
    States<Datastore::State> datastores;
    Kept<Folder::Objects> objects;  // those that have a state
    std::size_t bytes = 0;          // of all that is kept
    TimePoint currentUntil{};
};

}  // namespace Hask
