#include "tests/support/api_objects.h"

#include "apps/vessad/backends/HostDescription.h"

namespace ApiObjects {

using Tessim::MakeRef;

Ref<Ordane::MoRef> Reference(const std::string& type, const std::string& id) {
    return MakeRef<Ordane::MoRef>(type, id);
}

Ref<Performance::CounterInfo> Counter(std::int32_t key, const std::string& group, const std::string& name,
                                      Performance::RollupType rollup) {
    return Vessad::MakeCounter(key, group, name, rollup);
}

Ref<Ordane::DataArray<Performance::CounterInfo>> AllCounters() {
    return Array(Vessad::StandardCounters());
}

Ref<Performance::MetricSeries> Series(std::int32_t counterId, const std::string& instance,
                                      const std::vector<std::int64_t>& samples) {
    auto id = MakeRef<Performance::MetricId>();
    id->SetCounterId(counterId);
    id->SetInstance(instance);
    auto series = MakeRef<Performance::IntSeries>();
    series->SetId(id);
    series->SetValue(samples);
    return series;
}

Ref<Performance::EntityMetric> Metric(const std::optional<std::string>& id,
                                      const std::vector<Ref<Performance::MetricSeries>>& series) {
    auto metric = MakeRef<Performance::EntityMetric>();
    if (id) {
        metric->SetEntity(Reference("VirtualMachine", *id));
    }
    metric->SetValue(Array(series));
    return metric;
}

void Describe(TestSupport::FakeHost& host, const std::string& yaml) {
    const auto inventory = Vessad::ReadHost(yaml, "described host");
    host.datastores = inventory->datastores;
    host.counters = Array(inventory->counters);
    host.vms.clear();
    host.metrics = Array<Performance::EntityMetricBase>();
    for (const auto& vm : inventory->vms) {
        host.vms.push_back({vm->id, vm->config, vm->runtime, vm->guest});
        std::vector<Ref<Performance::MetricSeries>> series;
        for (const Vessad::Series& each : vm->series) {
            series.push_back(Series(each.counterKey, each.instance, {each.start}));
        }
        host.metrics->Append(Metric(vm->id, series));
    }
}

}  // namespace ApiObjects
