#include "apps/vessad/Performance.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
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
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Specs = Ordane::DataArray<PerformanceManager::QuerySpec>;
using Metrics = std::vector<std::pair<std::int32_t, std::string>>;
using Figure = std::tuple<std::int32_t, std::string, std::int64_t>;

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

// The answers, each as its entity's id and its figures.
std::vector<std::pair<std::string, std::vector<Figure>>> Ask(
    const Inventory& inventory, const std::vector<Tessim::Ref<PerformanceManager::QuerySpec>>& specs,
    std::chrono::nanoseconds elapsed = {}) {
    Specs list;
    for (const auto& spec : specs) {
        list.Append(spec);
    }
    std::vector<std::pair<std::string, std::vector<Figure>>> answers;
    const auto answer = QueryPerformance(inventory, list, elapsed);
    for (const auto& base : *answer) {
        const auto* metric = Tessim::NarrowToType<PerformanceManager::EntityMetric>(base);
        std::vector<Figure> figures;
        for (const auto& series : *metric->GetValue()) {
            const auto* whole = Tessim::NarrowToType<PerformanceManager::IntSeries>(series);
            EXPECT_EQ(whole->GetValue().size(), 1U);
            figures.emplace_back(whole->GetId()->GetCounterId(), whole->GetId()->GetInstance(),
                                 whole->GetValue().at(0));
        }
        answers.emplace_back(metric->GetEntity()->GetId(), figures);
    }
    return answers;
}

std::shared_ptr<const Inventory> SampleInventory() {
    return ReadHost(VessadTest::sampleHost, "test");
}

TEST(Performance, AnswersEveryInstanceForAStar) {
    const auto answers = Ask(*SampleInventory(), {Spec("16", {{cpuUsed, "*"}, {memActive, "*"}})});
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].first, "16");
    EXPECT_THAT(answers[0].second, ElementsAre(Figure(cpuUsed, "0", 181000), Figure(cpuUsed, "1", 90500),
                                               Figure(memActive, "", 131072)));
}

TEST(Performance, AnswersInTheOrderOfTheMetricIds) {
    const auto answers =
        Ask(*SampleInventory(), {Spec("16", {{memActive, ""}, {cpuUsed, "1"}, {cpuUsed, "0"}})});
    EXPECT_THAT(answers[0].second, ElementsAre(Figure(memActive, "", 131072), Figure(cpuUsed, "1", 90500),
                                               Figure(cpuUsed, "0", 181000)));
}

TEST(Performance, MatchesOtherInstancesExactly) {
    const auto answers =
        Ask(*SampleInventory(), {Spec("16", {{cpuUsed, ""}, {cpuUsed, "00"}, {memActive, "0"}})});
    EXPECT_THAT(answers[0].second, IsEmpty());
}

TEST(Performance, AnswersSpecificationsInOrderAndLeavesUnknownEntitiesOut) {
    const Metrics metrics{{cpuUsed, "*"}};
    const auto answers =
        Ask(*SampleInventory(), {Spec("name-17", metrics), Spec("gone", metrics), Spec("16", metrics),
                                 Spec("ds-1", metrics, 0, "Datastore"), Spec("16", metrics, 0, "Folder")});
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0].first, "name-17");
    EXPECT_THAT(answers[0].second, ElementsAre(Figure(cpuUsed, "0", 4611686018427387904)));
    EXPECT_EQ(answers[1].first, "16");
}

TEST(Performance, AnswersAMachineWithoutFiguresWithAnEmptyList) {
    const auto answers = Ask(*SampleInventory(), {Spec("17", {{cpuUsed, "*"}}), Spec("16", {})});
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_THAT(answers[0].second, IsEmpty());
    EXPECT_THAT(answers[1].second, IsEmpty());
}

TEST(Performance, MatchesNothingForAnUnknownCounter) {
    EXPECT_THAT(Ask(*SampleInventory(), {Spec("16", {{-1, "*"}, {4711, "*"}})})[0].second, IsEmpty());
}

TEST(Performance, AnswersNoSpecificationsWithNothing) {
    EXPECT_THAT(Ask(*SampleInventory(), {}), IsEmpty());
}

TEST(Performance, KnowsOnlyTheLatestFigures) {
    EXPECT_EQ(Ask(*SampleInventory(), {Spec("16", {}, std::nullopt)}).size(), 1U);
    EXPECT_THROW(Ask(*SampleInventory(), {Spec("16", {}, 20)}), Ordane::Fault::InvalidArgument::Exception);
    EXPECT_THROW(Ask(*SampleInventory(), {Spec("gone", {}, -1)}), Ordane::Fault::InvalidArgument::Exception);
}

TEST(Performance, RefusesMoreFiguresThanAnAnswerCanCarry) {
    const Metrics metrics(200'000, {memActive, "*"});
    EXPECT_THROW(Ask(*SampleInventory(), {Spec("16", metrics)}), Ordane::Fault::InvalidArgument::Exception);
}

TEST(Performance, LetsRatesRunFromTheStartOfTheDaemon) {
    const auto value = [](std::int64_t start, double perSecond, std::chrono::nanoseconds elapsed) {
        return ValueAt({1, "", start, perSecond}, elapsed);
    };
    EXPECT_EQ(value(100, 35, seconds(0)), 100);
    EXPECT_EQ(value(100, 35, seconds(2)), 170);
    EXPECT_EQ(value(100, 0.5, milliseconds(1999)), 100);
    EXPECT_EQ(value(100, 0.5, seconds(2)), 101);
    EXPECT_EQ(value(100, -0.5, seconds(1)), 99);
    EXPECT_EQ(value(4294967301, 10, seconds(1)), 4294967311);
    EXPECT_EQ(value(4611686018427387904, 1, seconds(7)), 4611686018427387911);
}

TEST(Performance, WrapsAtSixtyFourBits) {
    constexpr std::int64_t high = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t low = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ(ValueAt({1, "", high, 1}, seconds(1)), low);
    EXPECT_EQ(ValueAt({1, "", low, -1}, seconds(1)), high);
    // 10^19 lies between 2^63 and 2^64: it becomes 10^19 - 2^64, and its negative the opposite.
    EXPECT_EQ(ValueAt({1, "", 0, 1e18}, seconds(10)), -8446744073709551616);
    EXPECT_EQ(ValueAt({1, "", 0, -1e18}, seconds(10)), 8446744073709551616);
    // 10^24 as a double, without what goes beyond 64 bits.
    EXPECT_EQ(ValueAt({1, "", 5, 1e18}, seconds(1'000'000)), 2003764205190119429);
}

}  // namespace
}  // namespace Vessad
