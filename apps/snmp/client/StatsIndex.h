// Finds one statistic among the results of a query, at a cost that does not grow with the number of VMs.
//
// Returns what a walk over the results in order finds: of the first series of the entity, counter and
// instance that has a sample, the first sample. Used on the agent's one request thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "runtime/hask/api.h"

namespace SNMP {

class StatsIndex {
  public:
    // Adds the next result, whose array of values must not be null.
    void Add(const Hask::PerformanceManager::EntityMetric& metric);
    void Clear();

    // Returns the sample, or nothing. A null entity matches results without an entity, a null instance any
    // instance.
    std::optional<std::int64_t> Find(const Ordane::MoRef* entity, std::int32_t counterId,
                                     const char* instance) const;

  private:
    // The series of one entity that have a counter and a sample, in the order of the results.
    using Samples = std::vector<Tessim::Ref<Hask::PerformanceManager::IntSeries>>;

    // Returns null for an entity without results.
    const Samples* FindSamples(const Ordane::MoRef* entity) const;

    std::unordered_map<std::string, Samples> samplesById;
    Samples nameless;  // of the results without an entity
};

}  // namespace SNMP
