// What the performance manager answers.
#pragma once

#include <chrono>
#include <cstdint>

#include "apps/vessad/backends/Backend.h"

namespace Vessad {

// The series' value when the daemon has run for `elapsed`.
std::int64_t ValueAt(const Series& series, std::chrono::nanoseconds elapsed);

// The latest figures that `specs` ask for, in their order; an entity that is no machine of the inventory is
// left out. The figures of one entity stand in the order of its metric ids and, within one, of the machine.
// Throws InvalidArgument's exception for an interval other than the latest, and for more figures than one
// answer can carry.
Tessim::Ref<Ordane::DataArray<Hask::PerformanceManager::EntityMetricBase>> QueryPerformance(
    const Inventory& inventory, const Ordane::DataArray<Hask::PerformanceManager::QuerySpec>& specs,
    std::chrono::nanoseconds elapsed);

}  // namespace Vessad
