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
// A statistic takes five elements of a response, of which a client reads at most a million.
constexpr std::size_t maxStatistics = 190'000;

// A VM's series by counter; those of one counter in the VM's order.
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

Tessim::Ref<PerformanceManager::MetricSeries> MakeStatistic(const Series& series,
                                                            std::chrono::nanoseconds elapsed) {
    auto id = Tessim::MakeRef<PerformanceManager::MetricId>();
    id->SetCounterId(series.counterKey);
    id->SetInstance(series.instance);
    auto statistic = Tessim::MakeRef<PerformanceManager::IntSeries>();
    statistic->SetId(id);
    statistic->SetValue({ValueAt(series, elapsed)});
    return statistic;
}

}  // namespace

std::int64_t ValueAt(const Series& series, std::chrono::nanoseconds elapsed) {
    const double seconds = std::chrono::duration<double>(elapsed).count();
    // Converting a double beyond 64 bits is undefined.
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
    auto result = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::EntityMetricBase>>();
    std::size_t count = 0;
    for (const auto& spec : specs) {
        if (spec->GetIntervalId().value_or(0) != 0) {
            throw Ordane::Fault::InvalidArgument::Exception(
                "only the latest samples are kept: the interval must be 0");
        }
        const std::shared_ptr<const Vm> vm = inventory.FindVm(*spec->GetEntity());
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
                if (++count > maxStatistics) {
                    throw Ordane::Fault::InvalidArgument::Exception(
                        "more than " + std::to_string(maxStatistics) + " statistics are requested at once");
                }
                found->Append(MakeStatistic(series, elapsed));
            });
        }
        auto metric = Tessim::MakeRef<PerformanceManager::EntityMetric>();
        metric->SetEntity(Tessim::Ref<Ordane::MoRef>(spec->GetEntity()));
        metric->SetValue(found);
        result->Append(Tessim::Ref<PerformanceManager::EntityMetricBase>(metric));
    }
    return result;
}

}  // namespace Vessad
