#include "apps/vessad/Performance.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "runtime/ordane/faults.h"
#include "runtime/ordane/soap.h"
#include "runtime/ordane/xml_codec.h"

namespace Vessad {

namespace {

using Hask::PerformanceManager;

constexpr const char* everyInstance = "*";
constexpr Ordane::Soap::Limits clientLimits;
constexpr std::size_t maxStatistics = 190'000;
// A statistic takes five elements of a response.
static_assert(5 * maxStatistics < clientLimits.maxElements);
// In the compact form: no more than a client expands.
constexpr std::size_t maxCompactStatistics = clientLimits.maxElements;
// What the series and texts of the compact form may take; the message around them takes less than 1 KiB.
constexpr Ordane::Xml::Size maxCompactSize{30UL << 20U, 990'000, 990'000};
static_assert(maxCompactSize.FitsIn({clientLimits.maxBytes - 1024, clientLimits.maxElements - 1024,
                                     clientLimits.maxElements - 1024}));
// "<samples></samples>", which is longer than that of a series.
constexpr Ordane::Xml::Size elementOfList{19, 1, 0};

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

// Calls `visit` with the series of the VM that match, in the order of the metrics and, within one, of the VM.
template <class Visit>
void ForEachMatch(const Vm& vm, const Ordane::DataArray<PerformanceManager::MetricId>& metrics, Visit visit) {
    const CounterIndex index(vm);
    for (const auto& metric : metrics) {
        const std::string& instance = metric->GetInstance();
        index.ForEach(metric->GetCounterId(), [&](const Series& series) {
            if (instance == everyInstance || instance == series.instance) {
                visit(series);
            }
        });
    }
}

void CheckCount(std::size_t count, std::size_t limit) {
    if (count > limit) {
        throw Ordane::Fault::InvalidArgument::Exception("more than " + std::to_string(limit) +
                                                        " statistics are requested at once");
    }
}

void CheckSize(Ordane::Xml::Size samples, const Ordane::Xml::Size& series) {
    samples += series;
    if (!samples.FitsIn(maxCompactSize)) {
        throw Ordane::Fault::InvalidArgument::Exception(
            "more statistics are requested at once than one response can carry");
    }
}

// Gives each pair of counter and instance a number, from 0.
class SeriesNumbers {
  public:
    std::size_t Of(const Series& series) {
        const auto [entry, added] =
            numbers.try_emplace(Key(series.counterKey, series.instance), numbers.size());
        if (added) {
            auto id = Tessim::MakeRef<PerformanceManager::MetricId>();
            id->SetCounterId(series.counterKey);
            id->SetInstance(series.instance);
            size += Ordane::Xml::SizeOf(*id);
            size += elementOfList;
            list->Append(id);
        }
        return entry->second;
    }
    // What the list takes.
    const Ordane::Xml::Size& GetSize() const { return size; }
    // The pairs by number.
    Tessim::Ref<Ordane::DataArray<PerformanceManager::MetricId>> List() const { return list; }

  private:
    using Key = std::pair<std::int32_t, std::string_view>;
    struct Hash {
        std::size_t operator()(const Key& key) const {
            return std::hash<std::string_view>()(key.second) + static_cast<std::size_t>(key.first);
        }
    };

    Ordane::Xml::Size size;
    std::unordered_map<Key, std::size_t, Hash> numbers;
    Tessim::Ref<Ordane::DataArray<PerformanceManager::MetricId>> list =
        Tessim::MakeRef<Ordane::DataArray<PerformanceManager::MetricId>>();
};

void AppendNumber(std::string& text, std::int64_t number) {
    if (!text.empty()) {
        text += ' ';
    }
    text += std::to_string(number);
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
        auto found = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::MetricSeries>>();
        ForEachMatch(*vm, *spec->GetMetricId(), [&](const Series& series) {
            CheckCount(++count, maxStatistics);
            found->Append(MakeStatistic(series, elapsed));
        });
        auto metric = Tessim::MakeRef<PerformanceManager::EntityMetric>();
        metric->SetEntity(Tessim::Ref<Ordane::MoRef>(spec->GetEntity()));
        metric->SetValue(found);
        result->Append(Tessim::Ref<PerformanceManager::EntityMetricBase>(metric));
    }
    return result;
}

Tessim::Ref<PerformanceManager::LatestSamples> QueryLatestSamples(
    const Inventory& inventory, const Ordane::DataArray<Ordane::MoRef>& entities,
    const Ordane::DataArray<PerformanceManager::MetricId>& metricIds, std::chrono::nanoseconds elapsed) {
    SeriesNumbers numbers;
    std::vector<std::string> samples;
    Ordane::Xml::Size size;  // of the samples
    std::size_t count = 0;
    for (int position = 0; position < entities.GetLength(); ++position) {
        const std::shared_ptr<const Vm> vm = inventory.FindVm(*entities[position]);
        if (vm == nullptr) {
            continue;
        }
        std::string& text = samples.emplace_back();
        size += elementOfList;
        AppendNumber(text, position);
        ForEachMatch(*vm, metricIds, [&](const Series& series) {
            const std::size_t before = text.size();
            CheckCount(++count, maxCompactStatistics);
            AppendNumber(text, static_cast<std::int64_t>(numbers.Of(series)));
            AppendNumber(text, ValueAt(series, elapsed));
            size.bytes += text.size() - before;
            CheckSize(size, numbers.GetSize());
        });
    }
    auto result = Tessim::MakeRef<PerformanceManager::LatestSamples>();
    result->SetSeries(numbers.List());
    result->SetSamples(std::move(samples));
    return result;
}

}  // namespace Vessad
