#include "apps/snmp/client/StatsIndex.h"

#include <gtest/gtest.h>

#include <array>
#include <random>

#include "tests/support/api_objects.h"

namespace SNMP {
namespace {

using ApiObjects::Metric;
using ApiObjects::Performance;
using ApiObjects::Reference;
using ApiObjects::Series;
using Tessim::Ref;

using Results = std::vector<Ref<Performance::EntityMetric>>;

// What the index must return: a walk over everything in order.
std::optional<std::int64_t> Walk(const Results& results, const Ordane::MoRef* entity, std::int32_t counterId,
                                 const char* instance) {
    for (const auto& metric : results) {
        const Ordane::MoRef* found = metric->GetEntity();
        const bool same = (found == nullptr) == (entity == nullptr) &&
                          (found == nullptr || found->GetId() == entity->GetId());
        if (!same) {
            continue;
        }
        for (const auto& element : *metric->GetValue()) {
            const auto* series = Tessim::NarrowToType<Performance::IntSeries>(element);
            if (series != nullptr && series->GetId() != nullptr && !series->GetValue().empty() &&
                series->GetId()->GetCounterId() == counterId &&
                (instance == nullptr || series->GetId()->GetInstance() == instance)) {
                return series->GetValue().front();
            }
        }
    }
    return std::nullopt;
}

// Few of each, so that they repeat.
const std::array<std::optional<std::string>, 6> entities = {std::nullopt, "", "16", "32", "161", "vm"};
const std::array<const char*, 6> instances = {"", "0", "1", "10", "*", "any"};
constexpr std::int32_t firstCounter = -1;
constexpr std::int32_t lastCounter = 4;

class RandomResults {
  public:
    explicit RandomResults(unsigned seed) : random(seed) {}

    Results Make() {
        Results results;
        for (int i = Number(0, 8); i > 0; --i) {
            results.push_back(MakeMetric());
        }
        return results;
    }

  private:
    int Number(int from, int to) { return std::uniform_int_distribution<int>(from, to)(random); }

    Ref<Performance::EntityMetric> MakeMetric() {
        std::vector<Ref<Performance::MetricSeries>> series;
        for (int i = Number(0, 10); i > 0; --i) {
            series.push_back(MakeSeries());
        }
        return Metric(entities.at(static_cast<std::size_t>(Number(0, entities.size() - 1))), series);
    }

    Ref<Performance::MetricSeries> MakeSeries() {
        if (Number(0, 9) == 0) {
            return Tessim::MakeRef<Performance::MetricSeries>();  // of a kind without samples
        }
        std::vector<std::int64_t> samples;
        for (int i = Number(0, 3); i > 0; --i) {
            samples.push_back(++nextSample);
        }
        auto series =
            Series(Number(firstCounter, lastCounter),
                   instances.at(static_cast<std::size_t>(Number(0, instances.size() - 1))), samples);
        if (Number(0, 19) == 0) {
            series->SetId(nullptr);
        }
        return series;
    }

    std::mt19937 random;
    std::int64_t nextSample = 0;
};

// Looks up everything that is possible, and some that is not.
void ExpectTheSameAsAWalk(const StatsIndex& index, const Results& results) {
    std::vector<Ref<Ordane::MoRef>> asked = {nullptr, Reference("VirtualMachine", "nobody")};
    for (const auto& id : entities) {
        if (id) {
            asked.push_back(Reference("VirtualMachine", *id));
        }
    }
    for (const auto& entity : asked) {
        for (std::int32_t counter = firstCounter; counter <= lastCounter + 1; ++counter) {
            EXPECT_EQ(index.Find(entity.Get(), counter, nullptr),
                      Walk(results, entity.Get(), counter, nullptr));
            for (const char* instance : instances) {
                EXPECT_EQ(index.Find(entity.Get(), counter, instance),
                          Walk(results, entity.Get(), counter, instance))
                    << (entity ? entity->GetId() : "none") << ' ' << counter << ' ' << instance;
            }
            EXPECT_EQ(index.Find(entity.Get(), counter, "nothing"), std::nullopt);
        }
    }
}

TEST(StatsIndex, FindsWhatAWalkOverTheResultsFinds) {
    constexpr int rounds = 300;
    RandomResults source(20240229);
    StatsIndex index;
    for (int round = 0; round < rounds; ++round) {
        const Results results = source.Make();
        index.Clear();
        for (const auto& metric : results) {
            index.Add(*metric);
        }
        ExpectTheSameAsAWalk(index, results);
        if (HasFailure()) {
            FAIL() << "in round " << round;
        }
    }
}

TEST(StatsIndex, FindsWhatWasAddedSoFar) {
    RandomResults source(7);
    Results results;
    StatsIndex index;
    for (int i = 0; i < 20; ++i) {
        for (const auto& metric : source.Make()) {
            results.push_back(metric);
            index.Add(*metric);
        }
        ExpectTheSameAsAWalk(index, results);
    }
}

TEST(StatsIndex, FindsNothingWhenItIsEmpty) {
    StatsIndex index;
    EXPECT_EQ(index.Find(nullptr, 1, nullptr), std::nullopt);
    index.Add(*Metric(std::nullopt, {Series(1, "", {5})}));
    EXPECT_EQ(index.Find(nullptr, 1, nullptr), 5);
    index.Clear();
    EXPECT_EQ(index.Find(nullptr, 1, nullptr), std::nullopt);
    EXPECT_EQ(index.Find(Reference("VirtualMachine", "16").Get(), 1, ""), std::nullopt);
}

TEST(StatsIndex, DistinguishesNoEntityFromOneWithoutAnId) {
    StatsIndex index;
    index.Add(*Metric(std::nullopt, {Series(1, "", {5})}));
    EXPECT_EQ(index.Find(Reference("VirtualMachine", "").Get(), 1, ""), std::nullopt);
    index.Add(*Metric("", {Series(1, "", {6})}));
    EXPECT_EQ(index.Find(Reference("VirtualMachine", "").Get(), 1, ""), 6);
    EXPECT_EQ(index.Find(nullptr, 1, ""), 5);
}

TEST(StatsIndex, FindsALaterResultOfTheEntity) {
    StatsIndex index;
    index.Add(*Metric("16", {Series(1, "", {})}));
    index.Add(*Metric("32", {Series(2, "", {7})}));
    index.Add(*Metric("16", {Series(1, "", {8, 9})}));
    EXPECT_EQ(index.Find(Reference("VirtualMachine", "16").Get(), 1, ""), 8);
}

}  // namespace
}  // namespace SNMP
