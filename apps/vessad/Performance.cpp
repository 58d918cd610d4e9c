#include "apps/vessad/Performance.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string>
#include <vector>

#include "runtime/ordane/faults.h"

namespace Vessad {

namespace {

using Hask::PerformanceManager;

constexpr const char* everyInstance = "*";
// A figure takes five elements of an answer, of which a client reads a million.
constexpr std::size_t maxFigures = 190'000;

// A machine's series by counter; those of one counter in the machine's order.
class CounterIndex {
  public:
    explicit CounterIndex(const Vm& vm) {
        sorted.reserve(vm.series.size());
        for (const Series& series : vm.series) {
            sorted.push_back(&series);
        }
        std::stable_sort(sorted.begin(), sorted.end(),
                         [](const Series* a, const Series* b) { return a->counterKey < b->counterKey; });
    }

    template <class Visit>
    void ForEach(std::int32_t counterKey, Visit visit) const {
        auto at = std::lower_bound(sorted.begin(), sorted.end(), counterKey,
                                   [](const Series* a, std::int32_t key) { return a->counterKey < key; });
        for (; at != sorted.end() && (*at)->counterKey == counterKey; ++at) {
            visit(**at);
        }
    }

  private:
    std::vector<const Series*> sorted;
};

Tessim::Ref<PerformanceManager::MetricSeries> MakeFigure(const Series& series,
                                                         std::chrono::nanoseconds elapsed) {
    auto id = Tessim::MakeRef<PerformanceManager::MetricId>();
    id->SetCounterId(series.counterKey);
    id->SetInstance(series.instance);
    auto figure = Tessim::MakeRef<PerformanceManager::IntSeries>();
    figure->SetId(id);
    figure->SetValue({ValueAt(series, elapsed)});
    return figure;
}

const Vm* FindVm(const Inventory& inventory, const Ordane::MoRef& entity) {
    if (entity.GetType() != Hask::VirtualMachine::staticType.name) {
        return nullptr;
    }
    const auto found = inventory.vmsById.find(entity.GetId());
    return found == inventory.vmsById.end() ? nullptr : found->second.get();
}

}  // namespace

std::int64_t ValueAt(const Series& series, std::chrono::nanoseconds elapsed) {
    const double seconds = std::chrono::duration<double>(elapsed).count();
    // Kept within 64 bits before it becomes a whole number, which is defined for no other.
    const double moved = std::fmod(std::floor(series.perSecond * seconds), 0x1p64);
    if (!std::isfinite(moved)) {
        return series.start;
    }
    const auto start = static_cast<std::uint64_t>(series.start);
    const auto distance = static_cast<std::uint64_t>(std::abs(moved));
    return static_cast<std::int64_t>(moved < 0 ? start - distance : start + distance);
}

Tessim::Ref<Ordane::DataArray<PerformanceManager::EntityMetricBase>> QueryPerformance(
    const Inventory& inventory, const Ordane::DataArray<PerformanceManager::QuerySpec>& specs,
    std::chrono::nanoseconds elapsed) {
    auto answer = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::EntityMetricBase>>();
    std::size_t figures = 0;
    for (const auto& spec : specs) {
        if (spec->GetIntervalId().value_or(0) != 0) {
            throw Ordane::Fault::InvalidArgument::Exception(
                "only the latest figures are kept: the interval must be 0");
        }
        const Vm* vm = FindVm(inventory, *spec->GetEntity());
        if (vm == nullptr) {
            continue;
        }
        const CounterIndex index(*vm);
        auto found = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::MetricSeries>>();
        for (const auto& metric : *spec->GetMetricId()) {
            const std::string& instance = metric->GetInstance();
            index.ForEach(metric->GetCounterId(), [&](const Series& series) {
                if (instance != everyInstance && instance != series.instance) {
                    return;
                }
                if (++figures > maxFigures) {
                    throw Ordane::Fault::InvalidArgument::Exception(
                        "more than " + std::to_string(maxFigures) + " figures are asked for at once");
                }
                found->Append(MakeFigure(series, elapsed));
            });
        }
        auto metric = Tessim::MakeRef<PerformanceManager::EntityMetric>();
        metric->SetEntity(Tessim::Ref<Ordane::MoRef>(spec->GetEntity()));
        metric->SetValue(found);
        answer->Append(Tessim::Ref<PerformanceManager::EntityMetricBase>(metric));
    }
    return answer;
}

}  // namespace Vessad
