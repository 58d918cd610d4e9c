// The results of the performance manager.
#pragma once

#include <chrono>
#include <cstdint>

#include "apps/vessad/backends/Backend.h"

namespace Vessad {

// The value of the series at `elapsed` after the daemon's start.
std::int64_t ValueAt(const Series& series, std::chrono::nanoseconds elapsed);

// Returns the latest statistics of the entities in `specs`, in that order; an entity that is not a VM of the
// inventory is skipped. The statistics of one entity are in the order of its metric ids and, within one, of
// the VM's series. Throws InvalidArgument's exception for an interval other than the latest, and for more
// statistics than one response can carry.
Tessim::Ref<Ordane::DataArray<Hask::PerformanceManager::EntityMetricBase>> QueryPerformance(
    const Inventory& inventory, const Ordane::DataArray<Hask::PerformanceManager::QuerySpec>& specs,
    std::chrono::nanoseconds elapsed);

// Returns the same for the latest statistics of the metrics `metricId` of each of `entities`, in a compact
// form. Throws InvalidArgument's exception for more statistics than one response can carry.
Tessim::Ref<Hask::PerformanceManager::LatestSamples> QueryLatestSamples(
    const Inventory& inventory, const Ordane::DataArray<Ordane::MoRef>& entities,
    const Ordane::DataArray<Hask::PerformanceManager::MetricId>& metricIds, std::chrono::nanoseconds elapsed);

}  // namespace Vessad
