#include "runtime/hask/object_cache.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "runtime/ordane/faults.h"
#include "runtime/ordane/soap.h"
#include "runtime/ordane/xml_codec.h"
#include "runtime/tessim/service.h"

namespace Hask {

namespace {

namespace Fault = Ordane::Fault;
using Ordane::DataArray;
using Ordane::MoRef;
using Tessim::MakeRef;
using Tessim::Ref;

// As long as a client may take for what it does with a listing.
constexpr std::chrono::seconds maxAge{5};
// As many samples as a reply may have elements.
constexpr std::size_t maxSamples = Ordane::Soap::Limits{}.maxElements;

// About the memory that an object takes: its texts, an allocation for each of its values, and its place.
std::size_t EstimateBytes(const Ordane::DataObject& object) {
    constexpr std::size_t bytesOfValue = 48;
    constexpr std::size_t bytesOfPlace = 256;
    const Ordane::Xml::Size size = Ordane::Xml::SizeOf(object);
    return bytesOfPlace + size.bytes + size.elements * bytesOfValue;
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

// A sample takes many times the memory of its text.
void CheckCount(const std::vector<std::string>& samples) {
    std::size_t blanks = 0;
    for (const std::string& text : samples) {
        blanks += static_cast<std::size_t>(std::count(text.begin(), text.end(), ' '));
    }
    if (blanks / 2 > maxSamples) {
        throw Fault::InvalidResponse::Exception("QueryLatest: more than " + std::to_string(maxSamples) +
                                                " samples");
    }
}

// Returns the samples as QueryPerf does.
Ref<DataArray<PerformanceManager::EntityMetricBase>> Expand(const PerformanceManager::LatestSamples& latest,
                                                            const DataArray<MoRef>& entities) {
    CheckCount(latest.GetSamples());
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

}  // namespace

template <class Call>
bool ShortCut::Try(Call call) {
    if (left > 0) {
        --left;
        return false;
    }
    try {
        call();
        failures = 0;
        return true;
    } catch (const Fault::HostCommunication::Exception&) {
        throw;
    } catch (const Fault::MethodFault::Exception& failure) {
        Fail(failure.what());
        return false;
    }
}

void ShortCut::Fail(const char* reason) {
    constexpr unsigned longest = 6;  // a power of two
    if (failures == 0) {
        Tessim::Service::Log(nullptr, Tessim::Service::Logger::LogLevel::Info,
                             Tessim::PrintFormatter("Making other calls in place of %1: %2")
                                 << method << reason);
    }
    left = (1U << failures) - 1;
    failures = std::min(failures + 1, longest);
}

void ObjectCache::ListChildren(Folder& folder, Ref<DataArray<MoRef>>& out) {
    currentUntil = {};
    listed.Reset();
    folder.GetChildEntity(out);
    listed = &folder;
}

void ObjectCache::Update() {
    const Ref<Folder> folder = std::exchange(listed, nullptr);
    if (!folder) {
        return;
    }
    if (retrieveChanges.Try([&] { Receive(*folder); })) {
        currentUntil = now() + maxAge;
    } else {
        Clear();
    }
}

void ObjectCache::Receive(Folder& from) {
    for (bool complete = false; !complete;) {
        Ref<Folder::Changes> changes;
        from.RetrieveChanges(version, changes);
        if (!changes) {
            throw Fault::InvalidResponse::Exception("RetrieveChanges: no result");
        }
        complete = changes->IsComplete();
        if (!complete && version == changes->GetVersion()) {
            throw Fault::InvalidResponse::Exception("RetrieveChanges: more changes without a new version");
        }
        Apply(*changes);
    }
    if (!objects.state) {
        throw Fault::InvalidResponse::Exception("RetrieveChanges: no list of the objects");
    }
    RemoveAllBut(*objects.state->GetVm(), vms);
    RemoveAllBut(*objects.state->GetDatastore(), datastores);
}

void ObjectCache::Apply(const Folder::Changes& changes) {
    if (changes.IsReset()) {
        Clear();
    }
    for (const auto& state : *changes.GetVm()) {
        Keep(vms, state);
    }
    for (const auto& state : *changes.GetDatastore()) {
        Keep(datastores, state);
    }
    if (Folder::Objects* const list = changes.GetObjects(); list != nullptr) {
        const std::size_t size = EstimateBytes(*list);
        bytes += size - objects.bytes;
        objects = {list, size};
    }
    version = changes.GetVersion();
    if (bytes > maxBytes) {
        throw Fault::InvalidResponse::Exception("RetrieveChanges: more than " + std::to_string(maxBytes) +
                                                " bytes");
    }
}

template <class State>
void ObjectCache::Keep(States<State>& states, const Ref<State>& state) {
    const std::size_t size = EstimateBytes(*state);
    Kept<State>& kept = states[state->GetEntity()->GetId()];
    bytes += size - kept.bytes;
    kept = {state, size};
}

template <class State>
void ObjectCache::RemoveAllBut(const DataArray<MoRef>& listed, States<State>& states) {
    std::unordered_set<std::string_view> ids;
    ids.reserve(static_cast<std::size_t>(listed.GetLength()));
    for (const Ref<MoRef>& reference : listed) {
        ids.insert(reference->GetId());
    }
    std::erase_if(states, [&](const auto& each) {
        const bool removed = !ids.contains(each.first);
        bytes -= removed ? each.second.bytes : 0;
        return removed;
    });
}

void ObjectCache::Clear() {
    version.reset();
    vms.clear();
    datastores.clear();
    objects = {};
    bytes = 0;
}

template <class State>
const State* ObjectCache::Find(const States<State>& states, const std::string& id) {
    Update();
    const auto found = states.find(id);
    // Every call on a broken connection fails.
    const bool isCurrent = now() < currentUntil && !adapter->IsBroken();
    return found != states.end() && isCurrent ? found->second.state.Get() : nullptr;
}

const Vm::State* ObjectCache::FindVm(const std::string& id) {
    return Find(vms, id);
}

const Datastore::State* ObjectCache::FindDatastore(const std::string& id) {
    return Find(datastores, id);
}

void ObjectCache::QueryPerf(PerformanceManager& manager, DataArray<PerformanceManager::QuerySpec>* specs,
                            Ref<DataArray<PerformanceManager::EntityMetricBase>>& out) {
    auto* const metrics = CommonMetrics(*specs);
    const bool done = metrics != nullptr && queryLatest.Try([&] {
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
