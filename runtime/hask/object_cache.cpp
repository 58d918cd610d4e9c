#include "runtime/hask/object_cache.h"

#include <charconv>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "runtime/ordane/faults.h"

namespace Hask {

namespace {

namespace Fault = Ordane::Fault;
using Ordane::DataArray;
using Ordane::MoRef;
using Tessim::MakeRef;
using Tessim::Ref;

// As long as a client may take for what it does with a listing.
constexpr std::chrono::seconds currentFor{5};
// More than any host has: a daemon must not exhaust the client's memory.
constexpr std::size_t maxObjects = 100'000;

// Removes the states of objects that `existing` does not list.
template <class States>
void RemoveAllBut(const DataArray<MoRef>& existing, States& states) {
    std::unordered_set<std::string_view> ids;
    ids.reserve(static_cast<std::size_t>(existing.GetLength()));
    for (const Ref<MoRef>& reference : existing) {
        ids.insert(reference->GetId());
    }
    std::erase_if(states, [&](const auto& state) { return !ids.contains(state.first); });
}

// Returns the metrics of every query; null unless these are the same and all are of the latest samples.
DataArray<PerformanceManager::MetricId>* CommonMetrics(
    const DataArray<PerformanceManager::QuerySpec>& specs) {
    DataArray<PerformanceManager::MetricId>* common = nullptr;
    for (const Ref<PerformanceManager::QuerySpec>& spec : specs) {
        auto* const metrics = spec->GetMetricId();
        if (spec->GetIntervalId().value_or(0) != 0 || (common != nullptr && metrics != common)) {
            return nullptr;
        }
        common = metrics;
    }
    return common;
}

[[noreturn]] void RefuseSamples() {
    throw Fault::InvalidResponse::Exception("QueryLatest: the samples are malformed");
}

// The numbers of a text, which are separated by blanks.
class Numbers {
  public:
    explicit Numbers(std::string_view text) : text(text) {}

    bool AtEnd() const { return text.empty(); }
    // Throws InvalidResponse's exception when the next number is none or lies outside 0 to `limit` - 1.
    std::size_t NextBelow(std::size_t limit) {
        const auto number = Next<std::size_t>();
        if (number >= limit) {
            RefuseSamples();
        }
        return number;
    }
    template <class Number>
    Number Next() {
        Number number = 0;
        const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc()) {
            RefuseSamples();
        }
        text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
        if (!text.empty()) {
            if (text.front() != ' ' || text.size() == 1) {
                RefuseSamples();
            }
            text.remove_prefix(1);
        }
        return number;
    }

  private:
    std::string_view text;
};

// Returns the samples as QueryPerf does.
Ref<DataArray<PerformanceManager::EntityMetricBase>> Expand(const PerformanceManager::LatestSamples& latest,
                                                            const DataArray<MoRef>& entities) {
    auto result = MakeRef<DataArray<PerformanceManager::EntityMetricBase>>();
    result->Reserve(static_cast<int>(latest.GetSamples().size()));
    const DataArray<PerformanceManager::MetricId>& series = *latest.GetSeries();
    for (const std::string& text : latest.GetSamples()) {
        Numbers numbers(text);
        const std::size_t position = numbers.NextBelow(static_cast<std::size_t>(entities.GetLength()));
        auto values = MakeRef<DataArray<PerformanceManager::MetricSeries>>();
        while (!numbers.AtEnd()) {
            auto sample = MakeRef<PerformanceManager::IntSeries>();
            const auto id = numbers.NextBelow(static_cast<std::size_t>(series.GetLength()));
            sample->SetId(series[static_cast<int>(id)]);
            sample->SetValue({numbers.Next<std::int64_t>()});
            values->Append(Ref<PerformanceManager::MetricSeries>(sample));
        }
        auto metric = MakeRef<PerformanceManager::EntityMetric>();
        metric->SetEntity(entities[static_cast<int>(position)]);
        metric->SetValue(values);
        result->Append(Ref<PerformanceManager::EntityMetricBase>(metric));
    }
    return result;
}

// Calls `compact`; returns false when the daemon did not carry it out, and sets `isKnown` to whether a later
// attempt may succeed. A broken connection's exception passes through.
template <class Call>
bool Try(bool& isKnown, Call compact) {
    if (!isKnown) {
        return false;
    }
    try {
        compact();
        return true;
    } catch (const Fault::HostCommunication::Exception&) {
        throw;
    } catch (const Fault::InvalidRequest::Exception&) {
        isKnown = false;
    } catch (const Fault::InvalidResponse::Exception&) {
        isKnown = false;
    } catch (const Fault::MethodFault::Exception&) {
        // A call of the other kind says what is wrong.
    }
    return false;
}

}  // namespace

void ObjectCache::ListChildren(Folder& folder, Ref<DataArray<MoRef>>& out) {
    currentUntil = {};
    if (Try(retrievesChanges, [&] { Update(folder); })) {
        currentUntil = now() + currentFor;
        out = children;
    } else {
        folder.GetChildEntity(out);
    }
}

void ObjectCache::Update(Folder& folder) {
    for (bool complete = false; !complete;) {
        Ref<Folder::Changes> changes;
        folder.RetrieveChanges(version, changes);
        if (!changes) {
            throw Fault::InvalidResponse::Exception("RetrieveChanges: no result");
        }
        complete = changes->IsComplete();
        if (!complete && version == changes->GetVersion() && !changes->IsReset()) {
            throw Fault::InvalidResponse::Exception("RetrieveChanges: more changes without a new version");
        }
        Apply(*changes);
    }
    if (!children) {
        throw Fault::InvalidResponse::Exception("RetrieveChanges: no list of the objects");
    }
}

void ObjectCache::Apply(const Folder::Changes& changes) {
    if (changes.IsReset()) {
        vms.clear();
        datastores.clear();
        children.Reset();
    }
    for (const auto& state : *changes.GetVm()) {
        vms[state->GetEntity()->GetId()] = state;
    }
    for (const auto& state : *changes.GetDatastore()) {
        datastores[state->GetEntity()->GetId()] = state;
    }
    if (const Folder::Objects* const objects = changes.GetObjects(); objects != nullptr) {
        children = objects->GetVm();
        RemoveAllBut(*children, vms);
        RemoveAllBut(*objects->GetDatastore(), datastores);
    }
    version = changes.GetVersion();
    if (vms.size() + datastores.size() > maxObjects) {
        version.reset();
        vms.clear();
        datastores.clear();
        throw Fault::InvalidResponse::Exception("RetrieveChanges: too many objects");
    }
}

bool ObjectCache::IsCurrent() const {
    // Every call on a broken connection fails.
    return now() < currentUntil && !adapter->IsBroken();
}

const Vm::State* ObjectCache::FindVm(const std::string& id) const {
    const auto found = vms.find(id);
    return found != vms.end() && IsCurrent() ? found->second.Get() : nullptr;
}

const Datastore::State* ObjectCache::FindDatastore(const std::string& id) const {
    const auto found = datastores.find(id);
    return found != datastores.end() && IsCurrent() ? found->second.Get() : nullptr;
}

void ObjectCache::QueryPerf(PerformanceManager& manager, DataArray<PerformanceManager::QuerySpec>* specs,
                            Ref<DataArray<PerformanceManager::EntityMetricBase>>& out) {
    auto* const metrics = CommonMetrics(*specs);
    const bool done = metrics != nullptr && Try(queriesLatest, [&] {
                          const auto entities = MakeRef<DataArray<MoRef>>();
                          entities->Reserve(specs->GetLength());
                          for (const Ref<PerformanceManager::QuerySpec>& spec : *specs) {
                              entities->Append(spec->GetEntity());
                          }
                          Ref<PerformanceManager::LatestSamples> latest;
                          manager.QueryLatest(entities.Get(), metrics, latest);
                          if (!latest) {
                              RefuseSamples();
                          }
                          out = Expand(*latest, *entities);
                      });
    if (!done) {
        manager.QueryPerf(specs, out);
    }
}

}  // namespace Hask
