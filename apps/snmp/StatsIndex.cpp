#include "apps/snmp/StatsIndex.h"

#include <algorithm>

namespace SNMP {

void StatsIndex::Add(const Hask::PerformanceManager::EntityMetric& metric) {
    std::size_t position = entities.size();
    if (metric.GetEntity() != nullptr) {
        position = positions.try_emplace(metric.GetEntity()->GetId(), position).first->second;
    } else {
        position = nameless.value_or(position);
        nameless = position;
    }
    if (position == entities.size()) {
        entities.push_back({metric.GetEntity() != nullptr ? metric.GetEntity()->GetId() : std::string(), {}});
    }
    std::vector<Sample>& samples = entities[position].samples;
    for (const auto& element : *metric.GetValue()) {
        const auto* series = Tessim::NarrowToType<Hask::PerformanceManager::IntSeries>(element);
        if (series != nullptr && series->GetId() != nullptr && !series->GetValue().empty()) {
            samples.push_back({series->GetId()->GetCounterId(), series->GetId()->GetInstance(),
                               series->GetValue().front()});
        }
    }
}

void StatsIndex::Clear() {
    entities.clear();
    positions.clear();
    nameless.reset();
    latest = 0;
}

const StatsIndex::Entity* StatsIndex::FindEntity(const Ordane::MoRef* entity) const {
    if (entity == nullptr) {
        return nameless ? &entities[*nameless] : nullptr;
    }
    if (latest >= entities.size() || latest == nameless || entities[latest].id != entity->GetId()) {
        const auto found = positions.find(entity->GetId());
        if (found == positions.end()) {
            return nullptr;
        }
        latest = found->second;
    }
    return &entities[latest];
}

std::optional<std::int64_t> StatsIndex::Find(const Ordane::MoRef* entity, std::int32_t counterId,
                                             const char* instance) const {
    const Entity* known = FindEntity(entity);
    if (known == nullptr) {
        return std::nullopt;
    }
    const auto found = std::find_if(known->samples.begin(), known->samples.end(), [&](const Sample& sample) {
        return sample.counterId == counterId && (instance == nullptr || sample.instance == instance);
    });
    return found == known->samples.end() ? std::nullopt : std::optional(found->value);
}

}  // namespace SNMP
