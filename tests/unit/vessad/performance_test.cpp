#include "apps/vessad/Performance.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "runtime/ordane/faults.h"
#include "tests/unit/vessad/sample_host.h"

namespace Vessad {
namespace {

using Hask::PerformanceManager;
using std::chrono::milliseconds;
using std::chrono::seconds;

using Metrics = std::vector<std::pair<std::int32_t, std::string>>;
using Statistic = std::tuple<std::int32_t, std::string, std::int64_t>;

constexpr std::int32_t memActive = 9;
constexpr std::int32_t cpuUsed = 10;

Tessim::Ref<PerformanceManager::QuerySpec> Spec(const std::string& id, const Metrics& metrics,
                                                std::optional<std::int32_t> interval = 0,
                                                const std::string& type = "VirtualMachine") {
    auto spec = Tessim::MakeRef<PerformanceManager::QuerySpec>();
    spec->SetEntity(Tessim::MakeRef<Ordane::MoRef>(type, id));
    for (const auto& [counter, instance] : metrics) {
        auto metric = Tessim::MakeRef<PerformanceManager::MetricId>();
        metric->SetCounterId(counter);
        metric->SetInstance(instance);
        spec->GetMetricId()->Append(metric);
    }
    spec->SetIntervalId(interval);
    return spec;
}

using Results = std::vector<std::pair<std::string, std::vector<Statistic>>>;

// The results of a query on the sample host after two seconds, each as its entity's id and its statistics.
Results Query(const std::vector<Tessim::Ref<PerformanceManager::QuerySpec>>& specs) {
    static const std::shared_ptr<const Inventory> inventory = ReadHost(VessadTest::sampleHost, "test");
    Ordane::DataArray<PerformanceManager::QuerySpec> list;
    for (const auto& spec : specs) {
        list.Append(spec);
    }
    Results results;
    const auto found = QueryPerformance(*inventory, list, seconds(2));
    for (const auto& base : *found) {
        const auto* metric = Tessim::NarrowToType<PerformanceManager::EntityMetric>(base);
        std::vector<Statistic> statistics;
        for (const auto& series : *metric->GetValue()) {
            const auto* whole = Tessim::NarrowToType<PerformanceManager::IntSeries>(series);
            EXPECT_EQ(whole->GetValue().size(), 1U);
            statistics.emplace_back(whole->GetId()->GetCounterId(), whole->GetId()->GetInstance(),
                                    whole->GetValue().at(0));
        }
        results.emplace_back(metric->GetEntity()->GetId(), statistics);
    }
    return results;
}

TEST(Performance, ReturnsTheStatisticsThatTheMetricIdsNameInTheirOrder) {
    const Statistic cpu0(cpuUsed, "0", 181000);
    const Statistic cpu1(cpuUsed, "1", 90570);  // 35 per second
    const Statistic memory(memActive, "", 131072);
    const Statistic large(cpuUsed, "0", 4611686018427387904);
    const Metrics allCpus{{cpuUsed, "*"}};
    for (const auto& [specs, results] :
         std::vector<std::pair<std::vector<Tessim::Ref<PerformanceManager::QuerySpec>>, Results>>{
             {{Spec("16", {{cpuUsed, "*"}, {memActive, "*"}})}, {{"16", {cpu0, cpu1, memory}}}},
             {{Spec("16", {{memActive, ""}, {cpuUsed, "1"}, {cpuUsed, "0"}})},
              {{"16", {memory, cpu1, cpu0}}}},
             // Other instances match exactly; unknown counters match nothing.
             {{Spec("16", {{cpuUsed, ""}, {cpuUsed, "00"}, {memActive, "0"}})}, {{"16", {}}}},
             {{Spec("16", {{-1, "*"}, {4711, "*"}})}, {{"16", {}}}},
             // Unknown entities are left out.
             {{Spec("name-17", allCpus), Spec("gone", allCpus), Spec("16", allCpus),
               Spec("ds-1", allCpus, 0, "Datastore"), Spec("16", allCpus, 0, "Folder")},
              {{"name-17", {large}}, {"16", {cpu0, cpu1}}}},
             {{Spec("17", allCpus), Spec("16", {})}, {{"17", {}}, {"16", {}}}},
             {{Spec("16", allCpus, std::nullopt)}, {{"16", {cpu0, cpu1}}}},
             {{}, {}}}) {
        EXPECT_EQ(Query(specs), results);
    }
}

TEST(Performance, RejectsOtherIntervalsAndMoreStatisticsThanAResponseCanCarry) {
    EXPECT_THROW(Query({Spec("16", {}, 20)}), Ordane::Fault::InvalidArgument::Exception);
    EXPECT_THROW(Query({Spec("gone", {}, -1)}), Ordane::Fault::InvalidArgument::Exception);
    EXPECT_THROW(Query({Spec("16", Metrics(200'000, {memActive, "*"}))}),
                 Ordane::Fault::InvalidArgument::Exception);
}

TEST(Performance, ComputesRatesFromTheStartOfTheDaemonAndWrapsAtSixtyFourBits) {
    constexpr std::int64_t high = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t low = std::numeric_limits<std::int64_t>::min();
    for (const auto& [start, perSecond, elapsed, value] :
         std::vector<std::tuple<std::int64_t, double, std::chrono::nanoseconds, std::int64_t>>{
             {100, 35, seconds(0), 100},
             {100, 35, seconds(2), 170},
             {100, 0.5, milliseconds(1999), 100},
             {100, 0.5, seconds(2), 101},
             {100, -0.5, seconds(1), 99},
             {4294967301, 10, seconds(1), 4294967311},
             {4611686018427387904, 1, seconds(7), 4611686018427387911},
             {high, 1, seconds(1), low},
             {low, -1, seconds(1), high},
             // 10^19 lies between 2^63 and 2^64: it becomes 10^19 - 2^64, and its negative the opposite.
             {0, 1e18, seconds(10), -8446744073709551616},
             {0, -1e18, seconds(10), 8446744073709551616},
             // 10^24 as a double, without what goes beyond 64 bits.
             {5, 1e18, seconds(1'000'000), 2003764205190119429}}) {
        EXPECT_EQ(ValueAt({1, "", start, perSecond}, elapsed), value);
    }
}

}  // namespace
}  // namespace Vessad
