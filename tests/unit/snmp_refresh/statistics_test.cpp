#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "apps/snmp/client/OrdaneClient.h"
#include "runtime/ordane/faults.h"
#include "tests/support/api_objects.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp_refresh/log_lines.h"

namespace SNMP {
namespace {

using ApiObjects::AllCounters;
using ApiObjects::Counter;
using ApiObjects::Metric;
using ApiObjects::Performance;
using ApiObjects::Reference;
using ApiObjects::Series;
using Tessim::MakeRef;
using Tessim::Ref;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Pair;
using TestSupport::FakeDaemon;
using TestSupport::FakeHost;
using TestSupport::LogCapture;
using TestSupport::LogLine;

using VmArray = Ordane::DataArray<Hask::VirtualMachine>;
using MetricIds = Ordane::DataArray<Performance::MetricId>;

constexpr std::int64_t beyond32Bits = (std::int64_t{1} << 32) + 5;

class StatisticsTest : public testing::Test {
  protected:
    StatisticsTest() {
        host.counters = AllCounters();
        host.vms = {{"16", nullptr, nullptr, nullptr}, {"32", nullptr, nullptr, nullptr}};
        client->Init(nullptr);
    }

    Ref<VmArray> AllVms() {
        Ref<VmArray> vms;
        client->GetAllVM(vms);
        return vms;
    }
    // Collects what `metrics` holds.
    void Collect(const std::vector<Ref<Performance::EntityMetric>>& metrics) {
        host.metrics = ApiObjects::Array<Performance::EntityMetricBase>();
        for (const auto& metric : metrics) {
            host.metrics->Append(metric);
        }
        client->CollectVMStats(AllVms().Get());
    }
    void BreakTheConnection() {
        daemon.WhenSent("GetChildEntity", [] { throw Tessim::StreamException("reset"); });
        AllVms();
        daemon.WhenSent("GetChildEntity", nullptr);
        ASSERT_FALSE(client->IsInitialized());
    }
    std::int64_t Retrieve(const std::string& id, const char* group, const char* counter,
                          const char* instance) {
        return client->RetrieveHCStats(Reference("VirtualMachine", id).Get(), group, counter, instance);
    }

    FakeDaemon daemon;
    FakeHost& host = daemon.host;
    LogCapture log;
    Ref<OrdaneClient> client = MakeRef<OrdaneClient>();
    const Tessim::Exception failure{"it failed"};
};

// Names and ids.

TEST(CounterNames, AreThoseOfTheDaemonsCatalogue) {
    EXPECT_EQ(OrdaneClient::sDISK_STATS_GRP, "disk");
    EXPECT_EQ(OrdaneClient::sNET_STATS_GRP, "net");
    EXPECT_EQ(OrdaneClient::sMEM_STATS_GRP, "mem");
    EXPECT_EQ(OrdaneClient::sCPU_STATS_GRP, "cpu");
    EXPECT_EQ(OrdaneClient::sDISK_COUNTER_NUMREAD, "numberRead");
    EXPECT_EQ(OrdaneClient::sDISK_COUNTER_NUMWRITE, "numberWrite");
    EXPECT_EQ(OrdaneClient::sDISK_COUNTER_READ, "read");
    EXPECT_EQ(OrdaneClient::sDISK_COUNTER_WRITE, "write");
    EXPECT_EQ(OrdaneClient::sNET_COUNTER_PKTRX, "packetsRx");
    EXPECT_EQ(OrdaneClient::sNET_COUNTER_PKTTX, "packetsTx");
    EXPECT_EQ(OrdaneClient::sNET_COUNTER_RX, "received");
    EXPECT_EQ(OrdaneClient::sNET_COUNTER_TX, "transmitted");
    EXPECT_EQ(OrdaneClient::sCPU_COUNTER_USED, "used");
    EXPECT_EQ(OrdaneClient::sMEM_COUNTER_ACTIVE, "active");
}

TEST(CounterNames, ArePackedAsGroupDotCounter) {
    CounterList list;
    PackStatsName(list, "net", "received", -1);
    PackStatsName(list, "", "", 7);
    EXPECT_THAT(list, ElementsAre(Pair("net.received", -1), Pair(".", 7)));
}

TEST_F(StatisticsTest, ResolvesTheTenCountersInTheirOrder) {
    EXPECT_THAT(client->GetAvailableCounterIds(),
                ElementsAre(Pair("disk.numberRead", 1), Pair("disk.numberWrite", 2), Pair("disk.read", 3),
                            Pair("disk.write", 4), Pair("net.received", 5), Pair("net.transmitted", 6),
                            Pair("net.packetsTx", 7), Pair("net.packetsRx", 8), Pair("mem.active", 9),
                            Pair("cpu.used", 10)));
    EXPECT_EQ(client->GetAvailableCounterIds().size(), 10U);
    EXPECT_EQ(daemon.CountCalls("GetPerfCounter"), 1);
}

TEST_F(StatisticsTest, LeavesCountersThatTheCatalogueLacksUnresolved) {
    host.counters = ApiObjects::Array<Performance::CounterInfo>(
        {Counter(70, "cpu", "usage"), Counter(71, "Cpu", "used"), Counter(72, "cpu", "Used"),
         Counter(73, "cpu.used", ""), Counter(74, "mem", "active")});
    for (const auto& [name, id] : client->GetAvailableCounterIds()) {
        EXPECT_EQ(id, name == "mem.active" ? 74 : -1) << name;
    }
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), -1);
    // Resolved all the same: the catalogue is not read again.
    host.counters = AllCounters();
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), -1);
    EXPECT_EQ(daemon.CountCalls("GetPerfCounter"), 1);
}

TEST_F(StatisticsTest, TakesTheFirstOfTwoCountersOfOneName) {
    host.counters = ApiObjects::Array<Performance::CounterInfo>(
        {Counter(5, "cpu", "usage"), Counter(90, "cpu", "used", Performance::RollupType::summation),
         Counter(3, "cpu", "used", Performance::RollupType::average), Counter(4, "mem", "active")});
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), 90);
}

TEST_F(StatisticsTest, FindsIdsByTheExactName) {
    EXPECT_EQ(client->GetCounterIdFromName("net", "packetsRx"), 8);
    EXPECT_EQ(client->GetCounterIdFromName("net", "packetsrx"), -1);
    EXPECT_EQ(client->GetCounterIdFromName("net", "packets"), -1);
    EXPECT_EQ(client->GetCounterIdFromName("", "net.packetsRx"), -1);
}

TEST_F(StatisticsTest, HasNoCountersWithoutAPerformanceManager) {
    host.content->SetPerfManager(nullptr);
    EXPECT_THAT(client->GetAvailableCounterIds(), IsEmpty());
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), -1);
    Ref<MetricIds> ids;
    client->GetQueryMetricIds(ids);
    ASSERT_TRUE(ids);
    EXPECT_EQ(ids->GetLength(), 0);
    EXPECT_EQ(daemon.CountCalls("GetPerfCounter"), 0);
}

TEST_F(StatisticsTest, LooksForThePerformanceManagerAgainWhenThereWasNone) {
    daemon.WhenCalled("RetrieveContent", [this] { throw failure; });
    EXPECT_THAT(client->GetAvailableCounterIds(), IsEmpty());
    daemon.WhenCalled("RetrieveContent", nullptr);
    EXPECT_EQ(client->GetAvailableCounterIds().size(), 10U);
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), 10);
}

TEST_F(StatisticsTest, TriesTheCountersAgainAfterAFailure) {
    daemon.WhenCalled("GetPerfCounter", [this] { throw failure; });
    EXPECT_THROW(client->GetAvailableCounterIds(), Tessim::Exception);
    daemon.WhenCalled("GetPerfCounter", nullptr);
    EXPECT_EQ(client->GetAvailableCounterIds().size(), 10U);
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), 10);
}

TEST_F(StatisticsTest, ResolvesTheCountersAnewForEachClient) {
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), 10);
    host.counters = ApiObjects::Array<Performance::CounterInfo>({Counter(33, "cpu", "used")});
    const auto other = MakeRef<OrdaneClient>();
    EXPECT_EQ(other->GetCounterIdFromName("cpu", "used"), 33);
    EXPECT_EQ(other->GetAvailableCounterIds().size(), 10U);
}

TEST_F(StatisticsTest, SharesOneListAmongAllClients) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    const auto other = MakeRef<OrdaneClient>();
    EXPECT_EQ(&other->GetAvailableCounterIds(), &client->GetAvailableCounterIds());
    // One that finds no performance manager empties it, and the others take it as it stands.
    host.content->SetPerfManager(nullptr);
    EXPECT_THAT(MakeRef<OrdaneClient>()->GetAvailableCounterIds(), IsEmpty());
    EXPECT_THAT(client->GetAvailableCounterIds(), IsEmpty());
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), -1);
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for cpu.used\n"}));
}

TEST_F(StatisticsTest, KeepsTheIdsOverAReconnect) {
    client->CollectVMStats(AllVms().Get());
    BreakTheConnection();
    host.counters = ApiObjects::Array<Performance::CounterInfo>({Counter(33, "cpu", "used")});
    client->CollectVMStats(AllVms().Get());
    EXPECT_EQ(daemon.openings.size(), 2U);
    EXPECT_EQ(daemon.CountCalls("QueryPerf"), 2);
    EXPECT_EQ(daemon.CountCalls("GetPerfCounter"), 1);
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), 10);
}

TEST_F(StatisticsTest, FindsThePerformanceManagerThatTheContentNames) {
    Ref<Performance> manager;
    client->GetPerfManager(manager);
    ASSERT_TRUE(manager);
    EXPECT_EQ(manager->GetMoRef()->GetId(), "ha-perfmgr");
    host.content->SetPerfManager(nullptr);
    MakeRef<OrdaneClient>()->GetPerfManager(manager);
    EXPECT_FALSE(manager);
}

TEST_F(StatisticsTest, FindsThePerformanceManagerAgainAfterABrokenConnection) {
    Ref<Performance> manager;
    client->GetPerfManager(manager);
    BreakTheConnection();
    client->GetPerfManager(manager);
    ASSERT_TRUE(manager);
    EXPECT_EQ(daemon.openings.size(), 2U);
}

TEST_F(StatisticsTest, AsksForEveryInstanceOfEachCounter) {
    host.counters = ApiObjects::Array<Performance::CounterInfo>({Counter(33, "cpu", "used")});
    Ref<MetricIds> ids;
    client->GetQueryMetricIds(ids);
    ASSERT_TRUE(ids);
    ASSERT_EQ(ids->GetLength(), 10);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ((*ids)[i]->GetCounterId(), i == 9 ? 33 : -1) << i;
        EXPECT_EQ((*ids)[i]->GetInstance(), "*") << i;
    }
    Ref<MetricIds> again = ids;
    client->GetQueryMetricIds(again);
    EXPECT_NE(again, ids);
}

// Collecting.

TEST_F(StatisticsTest, AsksForAllVmsInOneQuery) {
    client->CollectVMStats(AllVms().Get());
    ASSERT_EQ(host.queries.size(), 1U);
    const auto& specs = *host.queries[0];
    ASSERT_EQ(specs.GetLength(), 2);
    EXPECT_EQ(specs[0]->GetEntity()->GetId(), "16");
    EXPECT_EQ(specs[1]->GetEntity()->GetId(), "32");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(specs[i]->GetEntity()->GetType(), "VirtualMachine");
        EXPECT_EQ(specs[i]->GetIntervalId(), 0);
        ASSERT_EQ(specs[i]->GetMetricId()->GetLength(), 10);
        for (int k = 0; k < 10; ++k) {
            EXPECT_EQ((*specs[i]->GetMetricId())[k]->GetCounterId(), k + 1);
            EXPECT_EQ((*specs[i]->GetMetricId())[k]->GetInstance(), "*");
        }
    }
    EXPECT_EQ(daemon.CountCalls("QueryPerf"), 1);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(StatisticsTest, AsksForUnresolvedCountersToo) {
    host.counters = ApiObjects::Array<Performance::CounterInfo>();
    client->CollectVMStats(AllVms().Get());
    ASSERT_EQ(host.queries.size(), 1U);
    EXPECT_EQ((*(*host.queries[0])[0]->GetMetricId())[0]->GetCounterId(), -1);
}

TEST_F(StatisticsTest, SendsAQueryWithoutSpecsForNoVms) {
    client->CollectVMStats(MakeRef<VmArray>().Get());
    ASSERT_EQ(host.queries.size(), 1U);
    EXPECT_EQ(host.queries[0]->GetLength(), 0);
}

TEST_F(StatisticsTest, OnlyDropsTheResultsForANullArray) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), 1);
    daemon.calls.clear();
    client->CollectVMStats(nullptr);
    EXPECT_THAT(daemon.calls, IsEmpty());
    EXPECT_THAT(log.Take(), IsEmpty());
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), -1);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: no stats available."}));
}

TEST_F(StatisticsTest, CollectsNothingWithoutAPerformanceManager) {
    host.content->SetPerfManager(nullptr);
    client->CollectVMStats(AllVms().Get());
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "OrdaneClient::CollectVMStats failed, no perf manager.\n"}));
    EXPECT_THAT(host.queries, IsEmpty());
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), -1);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: no stats available."}));
}

TEST_F(StatisticsTest, DropsTheResultsAlsoWhenItEndsWithoutAPerformanceManager) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    const Ref<VmArray> vms = AllVms();
    BreakTheConnection();
    daemon.down = "connection refused";
    client->CollectVMStats(vms.Get());
    EXPECT_EQ(log.Take().back(), (LogLine{4, "OrdaneClient::CollectVMStats failed, no perf manager.\n"}));
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), -1);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: no stats available."}));
}

TEST_F(StatisticsTest, ReportsAFailedQueryAndGoesOnWithoutResults) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    daemon.WhenCalled("QueryPerf", [this] { throw failure; });
    EXPECT_NO_THROW(client->CollectVMStats(AllVms().Get()));
    EXPECT_THAT(log.Take(),
                ElementsAreArray(Report("OrdaneClient::CollectVMStats: :it failed\n", failure, 4)));
    EXPECT_TRUE(client->IsInitialized());
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), -1);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: no stats available."}));
}

TEST_F(StatisticsTest, ReportsABrokenConnectionOfTheQueryToo) {
    daemon.WhenSent("QueryPerf", [] { throw Tessim::StreamException("reset"); });
    EXPECT_NO_THROW(client->CollectVMStats(AllVms().Get()));
    const std::vector<LogLine> lines = log.Take();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], (LogLine{4, "OrdaneClient::CollectVMStats: :reset\n"}));
    EXPECT_EQ(lines[1].priority, 4);
    EXPECT_EQ(lines[1].text.back(), '\n');
    // The next query makes a new connection.
    EXPECT_FALSE(client->IsInitialized());
    daemon.WhenSent("QueryPerf", nullptr);
    client->CollectVMStats(AllVms().Get());
    EXPECT_EQ(daemon.openings.size(), 2U);
    EXPECT_EQ(host.queries.size(), 1U);
}

TEST_F(StatisticsTest, LetsAFailedCatalogueReachTheRefresh) {
    daemon.WhenCalled("GetPerfCounter", [this] { throw failure; });
    EXPECT_THROW(client->CollectVMStats(AllVms().Get()), Tessim::Exception);
    EXPECT_THAT(host.queries, IsEmpty());
}

TEST_F(StatisticsTest, LetsStrangeExceptionsOfTheQueryPass) {
    daemon.WhenCalled("QueryPerf", [] { throw std::runtime_error("not of the runtime"); });
    EXPECT_THROW(client->CollectVMStats(AllVms().Get()), std::runtime_error);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(StatisticsTest, KeepsOnlyEntityMetricsWithValues) {
    const auto withoutValues = MakeRef<Performance::EntityMetric>();
    withoutValues->SetEntity(Reference("VirtualMachine", "16"));
    const auto base = MakeRef<Performance::EntityMetricBase>();
    base->SetEntity(Reference("VirtualMachine", "16"));
    host.metrics = ApiObjects::Array<Performance::EntityMetricBase>(
        {base, withoutValues, Metric("16", {Series(10, "0", {7})})});
    client->CollectVMStats(AllVms().Get());
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), 7);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(StatisticsTest, ReplacesTheResultsOfTheLastCollection) {
    Collect({Metric("16", {Series(10, "0", {1}), Series(9, "", {2})})});
    Collect({Metric("16", {Series(10, "0", {3})})});
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), 3);
    EXPECT_EQ(Retrieve("16", "mem", "active", nullptr), -1);
}

// Retrieving.

TEST_F(StatisticsTest, HasNothingToRetrieveBeforeTheFirstCollection) {
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), -1);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: no stats available."}));
    EXPECT_EQ(client->RetrieveStats(Reference("VirtualMachine", "16").Get(), "no", "such", 0), -1);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: no stats available."}));
    EXPECT_EQ(daemon.CountCalls("GetPerfCounter"), 0);
}

TEST_F(StatisticsTest, RetrievesTheFirstSampleOfTheFirstMatch) {
    Collect({Metric("32", {Series(10, "0", {1})}), Metric("16", {Series(10, "1", {2, 20})}),
             Metric("16", {Series(9, "0", {3}), Series(10, "0", {4, 40}), Series(10, "0", {5})})});
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), 4);
    EXPECT_EQ(Retrieve("16", "cpu", "used", "1"), 2);
    EXPECT_EQ(Retrieve("32", "cpu", "used", "0"), 1);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(StatisticsTest, TakesAnIntegerInstanceAsItsText) {
    Collect({Metric("16", {Series(10, "", {1}), Series(10, "00", {2}), Series(10, "0", {3}),
                           Series(10, "-1", {4}), Series(10, "4000", {beyond32Bits})})});
    const auto vm = Reference("VirtualMachine", "16");
    EXPECT_EQ(client->RetrieveHCStats(vm.Get(), "cpu", "used", 0), 3);
    EXPECT_EQ(client->RetrieveStats(vm.Get(), "cpu", "used", 0), 3);
    EXPECT_EQ(client->RetrieveHCStats(vm.Get(), "cpu", "used", -1), 4);
    EXPECT_EQ(client->RetrieveHCStats(vm.Get(), "cpu", "used", 4000), beyond32Bits);
    EXPECT_EQ(client->RetrieveStats(vm.Get(), "cpu", "used", 4000), 5);
}

TEST_F(StatisticsTest, MatchesAnyInstanceWithoutOne) {
    Collect({Metric("16", {Series(9, "x", {1}), Series(10, "7", {2}), Series(10, "", {3})})});
    EXPECT_EQ(Retrieve("16", "cpu", "used", nullptr), 2);
    EXPECT_EQ(Retrieve("16", "cpu", "used", ""), 3);
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), -1);
}

TEST_F(StatisticsTest, CutsASampleToItsLow32Bits) {
    Collect({Metric("16", {Series(10, "0", {beyond32Bits}), Series(9, "", {0xffffffff})})});
    const auto vm = Reference("VirtualMachine", "16");
    EXPECT_EQ(client->RetrieveStats(vm.Get(), "cpu", "used", "0"), 5);
    EXPECT_EQ(client->RetrieveHCStats(vm.Get(), "cpu", "used", "0"), beyond32Bits);
    EXPECT_EQ(client->RetrieveStats(vm.Get(), "mem", "active", nullptr), -1);
    EXPECT_EQ(client->RetrieveHCStats(vm.Get(), "mem", "active", nullptr), 0xffffffff);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(StatisticsTest, KeepsEveryBitOfASampleOrItsLow32) {
    const struct {
        std::int64_t sample;
        std::int32_t low;
    } cases[] = {{0, 0},
                 {INT32_MAX, INT32_MAX},
                 {std::int64_t{1} << 31, INT32_MIN},
                 {(std::int64_t{1} << 32) - 1, -1},
                 {std::int64_t{1} << 32, 0},
                 {(std::int64_t{1} << 32) + 5, 5},
                 {std::int64_t{1} << 62, 0},
                 {INT64_MAX, -1},
                 {-1, -1},
                 {INT64_MIN, 0}};
    std::vector<Ref<Performance::MetricSeries>> series;
    for (const auto& each : cases) {
        series.push_back(Series(10, std::to_string(series.size()), {each.sample}));
    }
    Collect({Metric("16", series)});
    const auto vm = Reference("VirtualMachine", "16");
    int instance = 0;
    for (const auto& each : cases) {
        EXPECT_EQ(client->RetrieveHCStats(vm.Get(), "cpu", "used", instance), each.sample);
        EXPECT_EQ(client->RetrieveStats(vm.Get(), "cpu", "used", instance), each.low) << each.sample;
        ++instance;
    }
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(StatisticsTest, ComparesEntitiesByTheirIdAlone) {
    Collect({Metric("16", {Series(10, "0", {1})}), Metric(std::nullopt, {Series(10, "0", {2})})});
    EXPECT_EQ(client->RetrieveHCStats(Reference("Other", "16").Get(), "cpu", "used", "0"), 1);
    EXPECT_EQ(client->RetrieveHCStats(nullptr, "cpu", "used", "0"), 2);
    EXPECT_EQ(Retrieve("", "cpu", "used", "0"), -1);
}

TEST_F(StatisticsTest, NamesTheCounterThatIsNotResolved) {
    host.counters = ApiObjects::Array<Performance::CounterInfo>({Counter(10, "cpu", "used")});
    Collect({Metric("16", {Series(-1, "0", {1}), Series(10, "0", {2})})});
    EXPECT_EQ(Retrieve("16", "mem", "active", nullptr), -1);
    EXPECT_EQ(Retrieve("16", "no", "such", "0"), -1);
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for mem.active\n"},
                            LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for no.such\n"}));
}

TEST_F(StatisticsTest, TakesANegativeIdOfTheCatalogueForNone) {
    host.counters = ApiObjects::Array<Performance::CounterInfo>(
        {Counter(-5, "cpu", "used"), Counter(0, "mem", "active")});
    Collect({Metric("16", {Series(-5, "0", {1}), Series(0, "", {2})})});
    EXPECT_EQ(Retrieve("16", "mem", "active", nullptr), 2);
    EXPECT_THAT(log.Take(), IsEmpty());
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), -1);
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for cpu.used\n"}));
}

TEST_F(StatisticsTest, NamesTheFigureThatIsNotThere) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    const auto stranger = Reference("VirtualMachine", "64");
    EXPECT_EQ(client->RetrieveHCStats(stranger.Get(), "cpu", "used", "0"), -1);
    EXPECT_EQ(client->RetrieveStats(stranger.Get(), "cpu", "used", 3), -1);
    EXPECT_EQ(client->RetrieveStats(stranger.Get(), "mem", "active", nullptr), -1);
    EXPECT_EQ(client->RetrieveHCStats(nullptr, "disk", "read", "disk-0:0"), -1);
    EXPECT_THAT(
        log.Take(),
        ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for cpu.used.0\n"},
                    LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for cpu.used.3\n"},
                    LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for mem.active.any\n"},
                    LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for disk.read.disk-0:0\n"}));
}

TEST_F(StatisticsTest, KeepsAnInstanceOnOneLineOfTheLog) {
    Collect({Metric("16", {Series(3, "a\nb", {1})})});
    EXPECT_EQ(Retrieve("16", "disk", "read", "a\nb"), 1);
    EXPECT_EQ(Retrieve("16", "disk", "write", "a\nb"), -1);
    EXPECT_THAT(
        log.Take(),
        ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for disk.write.a\\x0ab\n"}));
}

TEST_F(StatisticsTest, GivesNoFigureOfAVmThatTheQueryDidNotAnswer) {
    Collect({});
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), -1);
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for cpu.used.0\n"}));
}

TEST_F(StatisticsTest, KeepsFiguresAcrossABrokenConnection) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    BreakTheConnection();
    EXPECT_EQ(Retrieve("16", "cpu", "used", "0"), 1);
}

}  // namespace
}  // namespace SNMP
