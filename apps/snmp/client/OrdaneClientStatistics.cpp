// The statistics of the client: the counters that the module reads, and their values in the last collection.

#include "apps/snmp/agent/Backtrace.h"
#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/client/OrdaneClient.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

namespace SNMP {

using Hask::PerformanceManager;
using Tessim::Ref;
namespace Counters = Hask::Counters;

namespace {

// A counter's name in the daemon's catalogue. Rollup type and level are not part of it.
std::string NameOf(const PerformanceManager::CounterInfo& counter) {
    const auto keyOf = [](const Hask::ElementDescription* description) {
        return description != nullptr ? description->GetKey() : std::string();
    };
    return Counters::FullName(keyOf(counter.GetGroupInfo()), keyOf(counter.GetNameInfo()));
}

}  // namespace

const std::string OrdaneClient::sDISK_STATS_GRP = Counters::diskRead.group;
const std::string OrdaneClient::sNET_STATS_GRP = Counters::netReceived.group;
const std::string OrdaneClient::sMEM_STATS_GRP = Counters::memActive.group;
const std::string OrdaneClient::sCPU_STATS_GRP = Counters::cpuUsed.group;
const std::string OrdaneClient::sDISK_COUNTER_NUMREAD = Counters::diskNumberRead.name;
const std::string OrdaneClient::sDISK_COUNTER_NUMWRITE = Counters::diskNumberWrite.name;
const std::string OrdaneClient::sDISK_COUNTER_READ = Counters::diskRead.name;
const std::string OrdaneClient::sDISK_COUNTER_WRITE = Counters::diskWrite.name;
const std::string OrdaneClient::sNET_COUNTER_PKTRX = Counters::netPacketsRx.name;
const std::string OrdaneClient::sNET_COUNTER_PKTTX = Counters::netPacketsTx.name;
const std::string OrdaneClient::sNET_COUNTER_RX = Counters::netReceived.name;
const std::string OrdaneClient::sNET_COUNTER_TX = Counters::netTransmitted.name;
const std::string OrdaneClient::sCPU_COUNTER_USED = Counters::cpuUsed.name;
const std::string OrdaneClient::sMEM_COUNTER_ACTIVE = Counters::memActive.name;

void PackStatsName(CounterList& list, const std::string& group, const std::string& counter, std::int32_t id) {
    list.emplace_back(Counters::FullName(group, counter), id);
}

CounterList MakeCounterList(std::span<const Counters::Counter> counters) {
    constexpr std::size_t counterCount = 10;
    CounterList list;
    list.reserve(counterCount);
    for (const Counters::Counter& counter : counters) {
        PackStatsName(list, counter.group, counter.name, -1);
    }
    if (list.size() != counterCount) {
        static constexpr const char* bug = "OrdaneClient::GetAvailableCounterIds, BUG - bad count.\n";
        snmp_log(LOG_ERR, "%s", bug);
        throw Ordane::Fault::SystemError::Exception(bug);
    }
    return list;
}

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
    list = MakeCounterList(Hask::Counters::standard);
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
    const std::string wanted = Counters::FullName(group, counter);
    for (const auto& [name, id] : GetAvailableCounterIds()) {
        if (name == wanted) {
            return id;
        }
    }
    return -1;
}

void OrdaneClient::CollectVMStats(Ordane::DataArray<Hask::VirtualMachine>* vms) {
    statsIndex.Clear();
    entityMetrics.Reset();
    if (vms == nullptr) {
        return;
    }
    Ref<Ordane::DataArray<PerformanceManager::MetricId>> metricIds;
    GetQueryMetricIds(metricIds);
    if (!metricIds) {
        snmp_log(LOG_WARNING, "OrdaneClient::CollectVMStats no-op, no metrid Id to query.\n");
        return;
    }
    Ref<PerformanceManager> manager;
    GetPerfManager(manager);
    if (!manager) {
        snmp_log(LOG_WARNING, "OrdaneClient::CollectVMStats failed, no perf manager.\n");
        return;
    }
    try {
        const auto specs = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::QuerySpec>>();
        specs->Reserve(vms->GetLength());
        for (const Ref<Hask::VirtualMachine>& vm : *vms) {
            const auto spec = Tessim::MakeRef<PerformanceManager::QuerySpec>();
            spec->SetEntity(vm->GetMoRef());
            spec->SetIntervalId(0);
            spec->SetMetricId(metricIds);
            specs->Append(spec);
        }
        Ref<Ordane::DataArray<PerformanceManager::EntityMetricBase>> results;
        manager->QueryPerf(specs.Get(), results);
        entityMetrics = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::EntityMetric>>();
        for (const Ref<PerformanceManager::EntityMetricBase>& element : *results) {
            auto* metric = Tessim::NarrowToType<PerformanceManager::EntityMetric>(element);
            if (metric != nullptr && metric->GetValue() != nullptr) {
                AddResult(metric);
            }
        }
    } catch (const Tessim::Exception& failure) {
        snmp_log(LOG_WARNING, "OrdaneClient::CollectVMStats: :%s\n", failure.what());
        LogBacktrace(failure, LOG_WARNING);
        if (dynamic_cast<const Ordane::Fault::HostCommunication::Exception*>(&failure) != nullptr) {
            DropConnection();
        }
    }
}

void OrdaneClient::AddResult(PerformanceManager::EntityMetric* metric) {
    entityMetrics->Append(metric);
    statsIndex.Add(*metric);
}

std::int64_t OrdaneClient::RetrieveHCStats(Ordane::MoRef* entity, const std::string& group,
                                           const std::string& counter, const char* instance) {
    // Every message names RetrieveStats, whichever of the two was called: log filters match it.
    if (!entityMetrics) {
        snmp_log(LOG_WARNING, "OrdaneClient::RetrieveStats: no stats available.");
        return unknownStatistic;
    }
    const std::int32_t counterId = GetCounterIdFromName(group, counter);
    if (counterId < 0) {
        snmp_log(LOG_WARNING, "OrdaneClient::RetrieveStats: couldn't find stats for %s.%s\n", group.c_str(),
                 counter.c_str());
        return unknownStatistic;
    }
    if (const auto sample = statsIndex.Find(entity, counterId, instance)) {
        return *sample;
    }
    // An instance may be a text of the daemon's, which must not forge a log line.
    snmp_log(LOG_WARNING, "OrdaneClient::RetrieveStats: couldn't find stats for %s.%s.%s\n", group.c_str(),
             counter.c_str(),
             Tessim::StringUtil::EscapeControls(instance != nullptr ? instance : "any").c_str());
    return unknownStatistic;
}

std::int64_t OrdaneClient::RetrieveHCStats(Ordane::MoRef* entity, const std::string& group,
                                           const std::string& counter, int instance) {
    return RetrieveHCStats(entity, group, counter, std::to_string(instance).c_str());
}

std::int32_t OrdaneClient::RetrieveStats(Ordane::MoRef* entity, const std::string& group,
                                         const std::string& counter, const char* instance) {
    return static_cast<std::int32_t>(RetrieveHCStats(entity, group, counter, instance));
}

std::int32_t OrdaneClient::RetrieveStats(Ordane::MoRef* entity, const std::string& group,
                                         const std::string& counter, int instance) {
    return RetrieveStats(entity, group, counter, std::to_string(instance).c_str());
}

}  // namespace SNMP
