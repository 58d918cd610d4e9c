#include "apps/vessad/Performance.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "apps/vessad/HostObjects.h"
#include "runtime/hask/object_cache.h"
#include "runtime/ordane/faults.h"
#include "runtime/ordane/soap.h"
#include "tests/support/files.h"
#include "tests/unit/vessad/sample_host.h"

namespace Vessad {
namespace {

using Hask::PerformanceManager;
using std::chrono::milliseconds;
using std::chrono::seconds;

using Results = Ordane::DataArray<PerformanceManager::EntityMetricBase>;

// Returns "ID:" and "COUNTER/INSTANCE=VALUE" of each result.
std::string Render(const Results& found) {
    std::string results;
    for (const auto& base : found) {
        const auto* metric = Tessim::NarrowToType<PerformanceManager::EntityMetric>(base);
        results += metric->GetEntity()->GetId() + ": ";
        for (const auto& series : *metric->GetValue()) {
            const auto* whole = Tessim::NarrowToType<PerformanceManager::IntSeries>(series);
            results += std::to_string(whole->GetId()->GetCounterId()) + "/" + whole->GetId()->GetInstance();
            for (const std::int64_t value : whole->GetValue()) {
                results += "=" + std::to_string(value);
            }
            results += " ";
        }
    }
    return results;
}

// Returns what a query on the sample host returns after two seconds, in either form. `query`: words, of which
// "TYPE:ID:INTERVAL", where the interval may be empty, starts a query of an entity, and
// "COUNTER/INSTANCE" names its metrics; queries with equal metrics share them.
std::string Query(const std::string& query) {
    static const auto inventory = ReadHost(VessadTest::sampleHost, "test");
    Ordane::DataArray<PerformanceManager::QuerySpec> specs;
    Tessim::Ref<PerformanceManager::QuerySpec> spec;
    std::vector<std::string> metrics;  // of each
    std::istringstream stream(query);
    for (std::string word; stream >> word;) {
        static const std::regex entity("(.*):(.*):(.*)");
        if (std::smatch parts; std::regex_match(word, parts, entity)) {
            spec = Tessim::MakeRef<PerformanceManager::QuerySpec>();
            spec->SetEntity(Tessim::MakeRef<Ordane::MoRef>(parts[1], parts[2]));
            spec->SetIntervalId(parts[3].length() == 0 ? std::nullopt
                                                       : std::optional(std::stoi(parts[3].str())));
            specs.Append(spec);
            metrics.emplace_back();
        } else {
            metrics.back() += word + ' ';
            auto metric = Tessim::MakeRef<PerformanceManager::MetricId>();
            metric->SetCounterId(std::stoi(word));
            metric->SetInstance(word.substr(word.find('/') + 1));
            spec->GetMetricId()->Append(metric);
        }
    }
    std::map<std::string, Ordane::DataArray<PerformanceManager::MetricId>*> shared;
    for (int index = 0; index < specs.GetLength(); ++index) {
        specs[index]->SetMetricId(
            shared.try_emplace(metrics[static_cast<std::size_t>(index)], specs[index]->GetMetricId())
                .first->second);
    }
    std::string results = Render(*QueryPerformance(*inventory, specs, seconds(2)));
    ChangeTracker changes;
    const auto manager = FindHostObject(inventory, changes, {"PerformanceManager", "ha-perfmgr"}, seconds(2));
    Tessim::Ref<Results> compact;
    Hask::ObjectCache(nullptr).QueryPerf(*Tessim::NarrowToType<PerformanceManager>(manager), &specs, compact);
    EXPECT_EQ(Render(*compact), results) << query;
    return results;
}

TEST(Performance, ReturnsTheStatisticsThatTheMetricIdsNameInTheirOrder) {
    for (const auto& [query, results] : TestSupport::ReadCases(VESSAD_TEST_CASES "/queries.txt")) {
        EXPECT_EQ(Query(query), results) << query;
    }
}

TEST(Performance, RejectsOtherIntervalsAndMoreStatisticsThanAResponseCanCarry) {
    std::string excess = "VirtualMachine:16:0";
    for (int count = 0; count < 200'000; ++count) {
        excess += " 9/*";
    }
    for (const std::string& query :
         {std::string("VirtualMachine:16:20"), std::string("VirtualMachine:gone:-1"), excess}) {
        EXPECT_THROW(Query(query), Ordane::Fault::InvalidArgument::Exception) << query.substr(0, 30);
    }
}

// The response to a QueryLatest of the VMs for `metrics` metrics of that instance; it must be one that a
// client can read.
void QueryLatest(const std::vector<std::vector<Series>>& vms, int metrics, const std::string& instance) {
    Inventory inventory;
    Ordane::DataArray<Ordane::MoRef> entities;
    for (const std::vector<Series>& series : vms) {
        auto vm = std::make_shared<Vm>();
        vm->id = std::to_string(inventory.vms.size());
        vm->series = series;
        inventory.Add(vm);
        entities.Append(Tessim::MakeRef<Ordane::MoRef>("VirtualMachine", vm->id));
    }
    auto metric = Tessim::MakeRef<PerformanceManager::MetricId>();
    metric->SetCounterId(1);
    metric->SetInstance(instance);
    Ordane::DataArray<PerformanceManager::MetricId> metricIds;
    for (int count = 0; count < metrics; ++count) {
        metricIds.Append(metric);
    }
    const auto latest = QueryLatestSamples(inventory, entities, metricIds, seconds(0));
    const Ordane::MethodInfo& method = *PerformanceManager::staticType.FindMethod("QueryLatest");
    const auto response = method.response->create();
    method.response->ownMembers[0].append(*response, Ordane::Value(static_cast<Ordane::Any*>(latest.Get())));
    const std::string text = Ordane::Soap::EncodeResponse(method, *response);
    EXPECT_NO_THROW(Ordane::Soap::Message(text, {}));
}

TEST(Performance, RejectsMoreCompactStatisticsThanAClientReads) {
    using Excess = Ordane::Fault::InvalidArgument::Exception;
    const auto series = [](int count, const std::string& instance) {
        std::vector<Series> made;
        made.reserve(static_cast<std::size_t>(count));
        for (int number = 0; number < count; ++number) {
            made.push_back({1, instance + std::to_string(number), 0, 0});
        }
        return made;
    };
    constexpr std::int64_t low = std::numeric_limits<std::int64_t>::min();
    // Samples of one series.
    EXPECT_NO_THROW(QueryLatest({{{1, "", low, 0}}, {{1, "", 0, 0}}}, 500'000, "*"));
    EXPECT_THROW(QueryLatest({{{1, "", 0, 0}}, {{1, "", 0, 0}}}, 500'001, "*"), Excess);
    // Series of their own, of three elements each.
    EXPECT_NO_THROW(QueryLatest({series(160'000, "a"), series(160'000, "b")}, 1, "*"));
    EXPECT_THROW(QueryLatest({series(167'000, "a"), series(167'000, "b")}, 1, "*"), Excess);
    // Long and special instances.
    EXPECT_NO_THROW(QueryLatest({series(2'500, std::string(10'000, 'x'))}, 1, "*"));
    EXPECT_THROW(QueryLatest({series(3'500, std::string(10'000, 'x'))}, 1, "*"), Excess);
    EXPECT_THROW(QueryLatest({series(700, std::string(10'000, '&'))}, 1, "*"), Excess);
    EXPECT_THROW(QueryLatest({series(100, std::string(10'000, '='))}, 1, "*"), Excess);
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
