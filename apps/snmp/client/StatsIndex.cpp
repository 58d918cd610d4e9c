#include "apps/snmp/client/StatsIndex.h"

#include <algorithm>

namespace SNMP {

void StatsIndex::Add(const Hask::PerformanceManager::EntityMetric& metric) {
    Samples& samples = metric.GetEntity() != nullptr ? samplesById[metric.GetEntity()->GetId()] : nameless;
    for (const auto& element : *metric.GetValue()) {
        auto* series = Tessim::NarrowToType<Hask::PerformanceManager::IntSeries>(element);
        if (series != nullptr && series->GetId() != nullptr && !series->GetValue().empty()) {
            samples.emplace_back(series);
        }
    }
}

void StatsIndex::Clear() {
    samplesById.clear();
    nameless.clear();
}

const StatsIndex::Samples* StatsIndex::FindSamples(const Ordane::MoRef* entity) const {
    if (entity == nullptr) {
        return &nameless;
    }
    const auto found = samplesById.find(entity->GetId());
    return found != samplesById.end() ? &found->second : nullptr;
}

std::optional<std::int64_t> StatsIndex::Find(const Ordane::MoRef* entity, std::int32_t counterId,
                                             const char* instance) const {
    const Samples* samples = FindSamples(entity);
    if (samples == nullptr) {
        return std::nullopt;
    }
    const auto found = std::find_if(samples->begin(), samples->end(), [&](const auto& series) {
        return series->GetId()->GetCounterId() == counterId &&
               (instance == nullptr || series->GetId()->GetInstance() == instance);
    });
    return found == samples->end() ? std::nullopt : std::optional((*found)->GetValue().front());
}

}  // namespace SNMP
