// What one look-up of a performance figure costs, on hosts of different sizes.
//
// The figure to watch is the ratio between the sizes within one run: it must stay near 1.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "apps/snmp/StatsIndex.h"

namespace {

using Hask::PerformanceManager;
using Tessim::MakeRef;
using Tessim::Ref;

constexpr int counters = 10;
constexpr int instances = 4;

Ref<PerformanceManager::EntityMetric> MakeMetric(int vm) {
    auto values = MakeRef<Ordane::DataArray<PerformanceManager::MetricSeries>>();
    for (int counter = 1; counter <= counters; ++counter) {
        for (int instance = 0; instance < instances; ++instance) {
            auto id = MakeRef<PerformanceManager::MetricId>();
            id->SetCounterId(counter);
            id->SetInstance(std::to_string(instance));
            auto series = MakeRef<PerformanceManager::IntSeries>();
            series->SetId(id);
            series->SetValue({vm});
            values->Append(series);
        }
    }
    auto metric = MakeRef<PerformanceManager::EntityMetric>();
    metric->SetEntity(MakeRef<Ordane::MoRef>("VirtualMachine", std::to_string(vm)));
    metric->SetValue(values);
    return metric;
}

// Every figure of every VM, looked up once per iteration.
void LookUpEveryFigure(benchmark::State& state) {
    const int vms = static_cast<int>(state.range(0));
    std::vector<Ref<PerformanceManager::EntityMetric>> metrics;
    SNMP::StatsIndex index;
    for (int vm = 0; vm < vms; ++vm) {
        metrics.push_back(MakeMetric(vm));
        index.Add(*metrics.back());
    }
    for (auto step : state) {
        static_cast<void>(step);
        for (const auto& metric : metrics) {
            for (int counter = 1; counter <= counters; ++counter) {
                for (const char* instance : {"0", "1", "2", "3"}) {
                    benchmark::DoNotOptimize(index.Find(metric->GetEntity(), counter, instance));
                }
            }
        }
    }
    // Nanoseconds per value: the figure of merit.
    state.counters["per_value"] =
        benchmark::Counter(static_cast<double>(vms) * counters * instances,
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(LookUpEveryFigure)->Arg(10)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
