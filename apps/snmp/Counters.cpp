// The counters of the client: which ids the daemon's catalogue gives to the ten that the module asks for.

#include "apps/snmp/NetSnmp.h"
#include "apps/snmp/OrdaneClient.h"
#include "runtime/hask/performance_counters.h"
#include "runtime/ordane/faults.h"

namespace SNMP {

using Hask::PerformanceManager;
using Tessim::Ref;

namespace {

constexpr std::size_t counterCount = 10;

// The catalogue's name of a counter. Roll-up and level are no part of it.
std::string NameOf(const PerformanceManager::CounterInfo& counter) {
    const auto keyOf = [](const Hask::ElementDescription* description) {
        return description != nullptr ? description->GetKey() : std::string();
    };
    return StatsName(keyOf(counter.GetGroupInfo()), keyOf(counter.GetNameInfo()));
}

}  // namespace

void OrdaneClient::GetPerfManager(Ref<PerformanceManager>& out) {
    out.Reset();
    Ref<Hask::ServiceInstanceContent> content;
    GetServiceInstanceContent(content);
    if (content && content->GetPerfManager() != nullptr && Init(nullptr)) {
        connection->GetMoFactory()->GetPerformanceManager(content->GetPerfManager()->GetId(), out);
    }
}

const CounterList& OrdaneClient::GetAvailableCounterIds() {
    static CounterList list;
    if (countersResolved) {
        return list;
    }
    list.clear();
    Ref<PerformanceManager> manager;
    GetPerfManager(manager);
    if (!manager) {
        return list;
    }
    list.reserve(counterCount);
    for (const auto& counter : Hask::Counters::standard) {
        PackStatsName(list, counter.group, counter.name, -1);
    }
    if (list.size() != counterCount) {
        static constexpr const char* bug = "OrdaneClient::GetAvailableCounterIds, BUG - bad count.\n";
        snmp_log(LOG_ERR, "%s", bug);
        throw Ordane::Fault::SystemError::Exception(bug);
    }
    Ref<Ordane::DataArray<PerformanceManager::CounterInfo>> catalogue;
    manager->GetPerfCounter(catalogue);
    for (auto& [name, id] : list) {
        for (const Ref<PerformanceManager::CounterInfo>& counter : *catalogue) {
            if (NameOf(*counter) == name) {
                id = counter->GetKey();
                break;
            }
        }
    }
    countersResolved = true;
    return list;
}

void OrdaneClient::GetQueryMetricIds(Ref<Ordane::DataArray<PerformanceManager::MetricId>>& out) {
    out = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::MetricId>>();
    for (const auto& [name, id] : GetAvailableCounterIds()) {
        const auto metric = Tessim::MakeRef<PerformanceManager::MetricId>();
        metric->SetCounterId(id);
        metric->SetInstance("*");
        out->Append(metric);
    }
}

std::int32_t OrdaneClient::GetCounterIdFromName(const std::string& group, const std::string& counter) {
    const std::string wanted = StatsName(group, counter);
    for (const auto& [name, id] : GetAvailableCounterIds()) {
        if (name == wanted) {
            return id;
        }
    }
    return -1;
}

}  // namespace SNMP
