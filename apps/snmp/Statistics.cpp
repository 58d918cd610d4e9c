// The performance figures of the client: what the counters stood at in the last collection.

#include "apps/snmp/Backtrace.h"
#include "apps/snmp/NetSnmp.h"
#include "apps/snmp/OrdaneClient.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

namespace SNMP {

using Hask::PerformanceManager;
using Tessim::Ref;

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
        Ref<Ordane::DataArray<PerformanceManager::EntityMetricBase>> answer;
        manager->QueryPerf(specs.Get(), answer);
        entityMetrics = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::EntityMetric>>();
        for (const Ref<PerformanceManager::EntityMetricBase>& element : *answer) {
            auto* metric = Tessim::NarrowToType<PerformanceManager::EntityMetric>(element);
            if (metric != nullptr && metric->GetValue() != nullptr) {
                entityMetrics->Append(metric);
                statsIndex.Add(*metric);
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

std::int64_t OrdaneClient::RetrieveHCStats(Ordane::MoRef* entity, const std::string& group,
                                           const std::string& counter, const char* instance) {
    // Every message names RetrieveStats, whichever of the two was called: log filters match it.
    if (!entityMetrics) {
        snmp_log(LOG_WARNING, "OrdaneClient::RetrieveStats: no stats available.");
        return noFigure;
    }
    const std::int32_t counterId = GetCounterIdFromName(group, counter);
    if (counterId < 0) {
        snmp_log(LOG_WARNING, "OrdaneClient::RetrieveStats: couldn't find stats for %s.%s\n", group.c_str(),
                 counter.c_str());
        return noFigure;
    }
    if (const auto sample = statsIndex.Find(entity, counterId, instance)) {
        return *sample;
    }
    // An instance may be a text of the daemon's, which must not forge a line.
    snmp_log(LOG_WARNING, "OrdaneClient::RetrieveStats: couldn't find stats for %s.%s.%s\n", group.c_str(),
             counter.c_str(),
             Tessim::StringUtil::EscapeControls(instance != nullptr ? instance : "any").c_str());
    return noFigure;
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
