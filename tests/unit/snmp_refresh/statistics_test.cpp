#include <algorithm>
#include <stdexcept>

#include "runtime/hask/performance_counters.h"
#include "runtime/ordane/faults.h"
#include "tests/unit/snmp_refresh/fixture.h"

namespace RefreshTests {
namespace {

using testing::Pair;

using MetricIds = Ordane::DataArray<Performance::MetricId>;
using Metrics = std::vector<Ref<Performance::EntityMetric>>;

constexpr std::int64_t beyond32Bits = (std::int64_t{1} << 32) + 5;
const Lines noStatistics = {{4, "OrdaneClient::RetrieveStats: no stats available."}};

// A client whose results fail at the second, or that has no metric ids.
class FailingClient final : public OrdaneClient {
  public:
    void (*atSecondResult)() = nullptr;
    bool withoutMetricIds = false;

    void GetQueryMetricIds(Ref<MetricIds>& out) override {
        out.Reset();
        if (!withoutMetricIds) {
            OrdaneClient::GetQueryMetricIds(out);
        }
    }

  protected:
    void AddResult(Performance::EntityMetric* metric) override {
        if (atSecondResult != nullptr && ++results == 2) {
            atSecondResult();
        }
        OrdaneClient::AddResult(metric);
    }

  private:
    int results = 0;
};

class StatisticsTest : public DaemonTest {
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
    void Collect() { client->CollectVMStats(AllVms().Get()); }
    void Collect(const Metrics& metrics) {
        host.metrics = Array<Performance::EntityMetricBase>({metrics.begin(), metrics.end()});
        Collect();
    }
    void BreakTheConnection() {
        BreakAt("GetChildEntity");
        AllVms();
        ASSERT_FALSE(client->IsInitialized());
    }
    // The daemon's catalogue.
    void SetCounters(const std::vector<Ref<Performance::CounterInfo>>& counters) {
        host.counters = Array(counters);
    }
    std::int64_t Retrieve(const std::string& id, const char* group, const char* counter,
                          const char* instance) {
        return client->RetrieveHCStats(Reference("VirtualMachine", id).Get(), group, counter, instance);
    }
    // Of the VM 16.
    std::int64_t CpuUsed(const char* instance = "0") { return Retrieve("16", "cpu", "used", instance); }
    void ExpectNoStatistics() {
        EXPECT_EQ(CpuUsed(), -1);
        EXPECT_EQ(log.Take(), noStatistics);
    }

    Ref<FailingClient> client = MakeRef<FailingClient>();
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
    SNMP::CounterList list;
    SNMP::PackStatsName(list, "net", "received", -1);
    SNMP::PackStatsName(list, "", "", 7);
    EXPECT_THAT(list, ElementsAre(Pair("net.received", -1), Pair(".", 7)));
}

// No data of a daemon leads here.
TEST(CounterList, RejectsAnyNumberButTen) {
    LogCapture log;
    const std::span<const Hask::Counters::Counter> ten = Hask::Counters::standard;
    const char* const text = "OrdaneClient::GetAvailableCounterIds, BUG - bad count.\n";
    try {
        SNMP::MakeCounterList(ten.first(9));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Ordane::Fault::SystemError::Exception& failure) {
        EXPECT_STREQ(failure.what(), text);
    }
    EXPECT_EQ(log.Take(), (Lines{{3, text}}));
    EXPECT_EQ(SNMP::MakeCounterList(ten).size(), 10U);
}

TEST_F(StatisticsTest, ResolvesTheTenCountersInTheirOrderOnce) {
    EXPECT_THAT(client->GetAvailableCounterIds(),
                ElementsAre(Pair("disk.numberRead", 1), Pair("disk.numberWrite", 2), Pair("disk.read", 3),
                            Pair("disk.write", 4), Pair("net.received", 5), Pair("net.transmitted", 6),
                            Pair("net.packetsTx", 7), Pair("net.packetsRx", 8), Pair("mem.active", 9),
                            Pair("cpu.used", 10)));
    EXPECT_EQ(client->GetAvailableCounterIds().size(), 10U);
    EXPECT_EQ(daemon.CountCalls("GetPerfCounter"), 1);
}

TEST_F(StatisticsTest, LeavesCountersThatTheCatalogueLacksUnresolved) {
    SetCounters({Counter(70, "cpu", "usage"), Counter(71, "Cpu", "used"), Counter(72, "cpu", "Used"),
                 Counter(73, "cpu.used", ""), Counter(74, "mem", "active")});
    for (const auto& [name, id] : client->GetAvailableCounterIds()) {
        EXPECT_EQ(id, name == "mem.active" ? 74 : -1) << name;
    }
    // Resolved all the same: the catalogue is not read again.
    host.counters = AllCounters();
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), -1);
    EXPECT_EQ(daemon.CountCalls("GetPerfCounter"), 1);
}

TEST_F(StatisticsTest, ResolvesToTheFirstOfTwoCountersOfOneName) {
    SetCounters({Counter(5, "cpu", "usage"), Counter(90, "cpu", "used", Performance::RollupType::summation),
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

TEST_F(StatisticsTest, ResolvesTheCountersAfterAnEarlierFailure) {
    FailAt("RetrieveContent");
    EXPECT_THAT(client->GetAvailableCounterIds(), IsEmpty());
    Repair("RetrieveContent");
    FailAt("GetPerfCounter");
    EXPECT_THROW(client->GetAvailableCounterIds(), Tessim::Exception);
    Repair("GetPerfCounter");
    EXPECT_EQ(client->GetAvailableCounterIds().size(), 10U);
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), 10);
}

TEST_F(StatisticsTest, ResolvesTheCountersAnewForEachClient) {
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), 10);
    SetCounters({Counter(33, "cpu", "used")});
    const auto other = MakeRef<OrdaneClient>();
    EXPECT_EQ(other->GetCounterIdFromName("cpu", "used"), 33);
    EXPECT_EQ(other->GetAvailableCounterIds().size(), 10U);
}

TEST_F(StatisticsTest, SharesOneListAmongAllClients) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    const auto other = MakeRef<OrdaneClient>();
    EXPECT_EQ(&other->GetAvailableCounterIds(), &client->GetAvailableCounterIds());
    // A client without a performance manager empties it for the others too.
    host.content->SetPerfManager(nullptr);
    EXPECT_THAT(MakeRef<OrdaneClient>()->GetAvailableCounterIds(), IsEmpty());
    EXPECT_THAT(client->GetAvailableCounterIds(), IsEmpty());
    EXPECT_EQ(CpuUsed(), -1);
    EXPECT_EQ(log.Take(), MissingStatistics({"cpu.used"}));
}

TEST_F(StatisticsTest, KeepsIdsAndStatisticsAcrossAReconnect) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    BreakTheConnection();
    EXPECT_EQ(CpuUsed(), 1);
    SetCounters({Counter(33, "cpu", "used")});
    Collect();
    EXPECT_EQ(daemon.openings.size(), 2U);
    EXPECT_EQ(daemon.CountCalls("QueryPerf"), 2);
    EXPECT_EQ(daemon.CountCalls("GetPerfCounter"), 1);
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), 10);
}

TEST_F(StatisticsTest, ReturnsThePerformanceManagerThatTheContentNames) {
    Ref<Performance> manager;
    client->GetPerfManager(manager);
    ASSERT_TRUE(manager);
    EXPECT_EQ(manager->GetMoRef()->GetId(), "ha-perfmgr");
    BreakTheConnection();
    client->GetPerfManager(manager);
    EXPECT_TRUE(manager);
    EXPECT_EQ(daemon.openings.size(), 2U);
    host.content->SetPerfManager(nullptr);
    MakeRef<OrdaneClient>()->GetPerfManager(manager);
    EXPECT_FALSE(manager);
}

TEST_F(StatisticsTest, MakesAMetricOfEveryInstanceForEachCounter) {
    SetCounters({Counter(33, "cpu", "used")});
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

TEST_F(StatisticsTest, QueriesAllVmsAtOnce) {
    Collect();
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

TEST_F(StatisticsTest, QueriesUnresolvedCountersToo) {
    SetCounters({});
    Collect();
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
    EXPECT_EQ(CpuUsed(), 1);
    daemon.calls.clear();
    client->CollectVMStats(nullptr);
    EXPECT_THAT(daemon.calls, IsEmpty());
    EXPECT_THAT(log.Take(), IsEmpty());
    ExpectNoStatistics();
}

// No data of a daemon leads here.
TEST_F(StatisticsTest, DropsTheResultsWithoutMetricIds) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    client->withoutMetricIds = true;
    Collect();
    EXPECT_EQ(log.Take(), Warnings({"OrdaneClient::CollectVMStats no-op, no metrid Id to query.\n"}));
    EXPECT_EQ(host.queries.size(), 1U);
    ExpectNoStatistics();
}

TEST_F(StatisticsTest, CollectsNothingWithoutAPerformanceManager) {
    host.content->SetPerfManager(nullptr);
    Collect();
    EXPECT_EQ(log.Take(), Warnings({"OrdaneClient::CollectVMStats failed, no perf manager.\n"}));
    EXPECT_THAT(host.queries, IsEmpty());
    ExpectNoStatistics();
}

TEST_F(StatisticsTest, DropsTheResultsWhenThePerformanceManagerIsOutOfReach) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    const Ref<VmArray> vms = AllVms();
    BreakTheConnection();
    daemon.down = "connection refused";
    client->CollectVMStats(vms.Get());
    EXPECT_EQ(log.Take().back(), (LogLine{4, "OrdaneClient::CollectVMStats failed, no perf manager.\n"}));
    ExpectNoStatistics();
}

TEST_F(StatisticsTest, ReportsAFailedQueryAndHasNoResults) {
    Collect({Metric("16", {Series(10, "0", {1})})});
    FailAt("QueryPerf");
    EXPECT_NO_THROW(Collect());
    EXPECT_EQ(log.Take(), Report("OrdaneClient::CollectVMStats: :it failed\n", failure, 4));
    EXPECT_TRUE(client->IsInitialized());
    ExpectNoStatistics();
}

TEST_F(StatisticsTest, ReportsABrokenConnectionOfTheQueryAndReconnects) {
    BreakAt("QueryPerf");
    EXPECT_NO_THROW(Collect());
    const Lines lines = log.Take();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], (LogLine{4, "OrdaneClient::CollectVMStats: :connection reset\n"}));
    EXPECT_EQ(lines[1].priority, 4);
    EXPECT_EQ(lines[1].text.back(), '\n');
    EXPECT_FALSE(client->IsInitialized());
    Collect();
    EXPECT_EQ(daemon.openings.size(), 2U);
    EXPECT_EQ(host.queries.size(), 1U);
}

TEST_F(StatisticsTest, LetsAFailedCatalogueReachTheRefresh) {
    FailAt("GetPerfCounter");
    EXPECT_THROW(Collect(), Tessim::Exception);
    EXPECT_THAT(host.queries, IsEmpty());
}

TEST_F(StatisticsTest, LetsOtherExceptionsOfTheQueryPass) {
    daemon.WhenCalled("QueryPerf", [] { throw std::runtime_error("not of the runtime"); });
    EXPECT_THROW(Collect(), std::runtime_error);
    EXPECT_THAT(log.Take(), IsEmpty());
}

// An error between two results of a query.
class PartialCollectionTest : public StatisticsTest {
  protected:
    // Collects the statistics of both VMs, and fails at the second.
    void CollectUntil(void (*error)(), const std::string& line) {
        client->atSecondResult = error;
        EXPECT_NO_THROW(
            Collect({Metric("16", {Series(10, "0", {7000})}), Metric("32", {Series(10, "0", {7000})})}));
        const Lines lines = log.Take();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(lines[0], (LogLine{4, line}));
        EXPECT_TRUE(std::all_of(lines.begin(), lines.end(), [](const LogLine& each) {
            return each.priority == 4 && each.text.back() == '\n';
        }));
        EXPECT_EQ(CpuUsed(), 7000);
        EXPECT_THAT(log.Take(), IsEmpty());
        EXPECT_EQ(Retrieve("32", "cpu", "used", "0"), -1);
        EXPECT_EQ(log.Take(), MissingStatistics({"cpu.used.0"}));
    }
};

TEST_F(PartialCollectionTest, KeepsWhatCameBeforeTheError) {
    CollectUntil([] { throw Tessim::InvalidArgumentException("a bad result"); },
                 "OrdaneClient::CollectVMStats: :a bad result\n");
    EXPECT_TRUE(client->IsInitialized());
}

TEST_F(PartialCollectionTest, DropsTheConnectionThatBrokeAndKeepsWhatCameBefore) {
    CollectUntil([] { throw Ordane::Fault::HostCommunication::Exception("reset"); },
                 "OrdaneClient::CollectVMStats: :reset\n");
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_EQ(daemon.openings.size(), 1U);
    client->atSecondResult = nullptr;
    Collect();
    EXPECT_TRUE(client->IsInitialized());
    EXPECT_EQ(daemon.openings.size(), 2U);
    EXPECT_EQ(Retrieve("32", "cpu", "used", "0"), 7000);
}

TEST_F(StatisticsTest, IgnoresResultsWithoutValuesOrOfOtherKinds) {
    const auto withoutValues = MakeRef<Performance::EntityMetric>();
    withoutValues->SetEntity(Reference("VirtualMachine", "16"));
    const auto base = MakeRef<Performance::EntityMetricBase>();
    base->SetEntity(Reference("VirtualMachine", "16"));
    host.metrics =
        Array<Performance::EntityMetricBase>({base, withoutValues, Metric("16", {Series(10, "0", {7})})});
    Collect();
    EXPECT_EQ(CpuUsed(), 7);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(StatisticsTest, ReplacesTheResultsOfTheLastCollection) {
    Collect({Metric("16", {Series(10, "0", {1}), Series(9, "", {2})})});
    Collect({Metric("16", {Series(10, "0", {3})})});
    EXPECT_EQ(CpuUsed(), 3);
    EXPECT_EQ(Retrieve("16", "mem", "active", nullptr), -1);
}

// Retrieving.

TEST_F(StatisticsTest, HasNothingToRetrieveBeforeTheFirstCollection) {
    ExpectNoStatistics();
    EXPECT_EQ(client->RetrieveStats(Reference("VirtualMachine", "16").Get(), "no", "such", 0), -1);
    EXPECT_EQ(log.Take(), noStatistics);
    EXPECT_EQ(daemon.CountCalls("GetPerfCounter"), 0);
}

TEST_F(StatisticsTest, RetrievesTheFirstSampleOfTheFirstMatch) {
    Collect({Metric("32", {Series(10, "0", {1})}), Metric("16", {Series(10, "1", {2, 20})}),
             Metric("16", {Series(9, "0", {3}), Series(10, "0", {4, 40}), Series(10, "0", {5})})});
    EXPECT_EQ(CpuUsed("0"), 4);
    EXPECT_EQ(CpuUsed("1"), 2);
    EXPECT_EQ(Retrieve("32", "cpu", "used", "0"), 1);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(StatisticsTest, UsesAnIntegerInstanceAsItsText) {
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
    EXPECT_EQ(CpuUsed(nullptr), 2);
    EXPECT_EQ(CpuUsed(""), 3);
    EXPECT_EQ(CpuUsed("0"), -1);
}

TEST_F(StatisticsTest, ReturnsASampleOrItsLow32Bits) {
    const struct {
        std::int64_t sample;
        std::int32_t low;
    } cases[] = {{0, 0},
                 {INT32_MAX, INT32_MAX},
                 {std::int64_t{1} << 31, INT32_MIN},
                 {(std::int64_t{1} << 32) - 1, -1},
                 {std::int64_t{1} << 32, 0},
                 {beyond32Bits, 5},
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
        EXPECT_EQ(CpuUsed(std::to_string(instance).c_str()), each.sample);
        EXPECT_EQ(client->RetrieveStats(vm.Get(), "cpu", "used", std::to_string(instance).c_str()), each.low)
            << each.sample;
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

TEST_F(StatisticsTest, NamesTheCounterWithoutAnId) {
    SetCounters({Counter(-5, "cpu", "used"), Counter(0, "mem", "active")});
    Collect({Metric("16", {Series(-1, "0", {3}), Series(-5, "0", {1}), Series(0, "", {2})})});
    // 0 is an id, a negative number of the catalogue is none.
    EXPECT_EQ(Retrieve("16", "mem", "active", nullptr), 2);
    EXPECT_THAT(log.Take(), IsEmpty());
    EXPECT_EQ(CpuUsed(), -1);
    EXPECT_EQ(Retrieve("16", "disk", "read", "0"), -1);
    EXPECT_EQ(Retrieve("16", "no", "such", "0"), -1);
    EXPECT_EQ(log.Take(), MissingStatistics({"cpu.used", "disk.read", "no.such"}));
}

TEST_F(StatisticsTest, NamesTheMissingStatisticOnOneLineOfTheLog) {
    Collect({Metric("16", {Series(10, "0", {1}), Series(3, "a\nb", {1})})});
    const auto unknown = Reference("VirtualMachine", "64");
    EXPECT_EQ(client->RetrieveHCStats(unknown.Get(), "cpu", "used", "0"), -1);
    EXPECT_EQ(client->RetrieveStats(unknown.Get(), "cpu", "used", 3), -1);
    EXPECT_EQ(client->RetrieveStats(unknown.Get(), "mem", "active", nullptr), -1);
    EXPECT_EQ(client->RetrieveHCStats(nullptr, "disk", "read", "disk-0:0"), -1);
    EXPECT_EQ(Retrieve("16", "disk", "read", "a\nb"), 1);
    EXPECT_EQ(Retrieve("16", "disk", "write", "a\nb"), -1);
    EXPECT_EQ(log.Take(), MissingStatistics({"cpu.used.0", "cpu.used.3", "mem.active.any",
                                             "disk.read.disk-0:0", "disk.write.a\\x0ab"}));
}

TEST_F(StatisticsTest, HasNoStatisticOfAVmWithoutResults) {
    Collect(Metrics());
    EXPECT_EQ(CpuUsed(), -1);
    EXPECT_EQ(log.Take(), MissingStatistics({"cpu.used.0"}));
}

}  // namespace
}  // namespace RefreshTests
