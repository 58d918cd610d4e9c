// Finds one figure among the results of a statistics query, at a cost that does not grow with the number of
// VMs.
//
// The answers are those of a walk over the results in order: of the first series of the entity, counter and
// instance that has a sample, the first sample.
#pragma once

#include <cstddef>
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

    // The sample, or nothing. A null entity matches results without an entity, a null instance any instance.
    std::optional<std::int64_t> Find(const Ordane::MoRef* entity, std::int32_t counterId,
                                     const char* instance) const;

  private:
    struct Sample {
        std::int32_t counterId;
        std::string instance;
        std::int64_t value;
    };
    // What is known of one entity, in the order of the results.
    struct Entity {
        std::string id;
        std::vector<Sample> samples;
    };

    const Entity* FindEntity(const Ordane::MoRef* entity) const;

    std::vector<Entity> entities;
    std::unordered_map<std::string, std::size_t> positions;  // in entities, by id
    std::optional<std::size_t> nameless;                     // position of the results without an entity
    mutable std::size_t latest = 0;  // position of the last one found: figures are asked for VM by VM
};

}  // namespace SNMP
