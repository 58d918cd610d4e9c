// Makes objects of the management API in one line each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "runtime/hask/api.h"
#include "tests/support/fake_host.h"

namespace ApiObjects {

using Tessim::Ref;
using Performance = Hask::PerformanceManager;

template <class T>
Ref<Ordane::DataArray<T>> Array(const std::vector<Ref<T>>& elements = {}) {
    auto array = Tessim::MakeRef<Ordane::DataArray<T>>();
    for (const Ref<T>& element : elements) {
        array->Append(element);
    }
    return array;
}

Ref<Ordane::MoRef> Reference(const std::string& type, const std::string& id);

Ref<Performance::CounterInfo> Counter(std::int32_t key, const std::string& group, const std::string& name,
                                      Performance::RollupType rollup = Performance::RollupType::average);
// The counters that the module reads, with the ids 1 to 10 in the module's order.
Ref<Ordane::DataArray<Performance::CounterInfo>> AllCounters();
Ref<Performance::MetricSeries> Series(std::int32_t counterId, const std::string& instance,
                                      const std::vector<std::int64_t>& samples);
// The statistics of the entity with that id; without one, of no entity.
Ref<Performance::EntityMetric> Metric(const std::optional<std::string>& id,
                                      const std::vector<Ref<Performance::MetricSeries>>& series);

// Makes the host the one that `yaml`, in the format of tovric-host(5), describes: its datastores, counters,
// VMs and their statistics.
void Describe(TestSupport::FakeHost& host, const std::string& yaml);

}  // namespace ApiObjects
