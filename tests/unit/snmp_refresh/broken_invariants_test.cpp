// What the refresh and the statistics say when their own invariants do not hold. No data brings that about,
// so the functions that keep the invariants are made to break them at link time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "apps/snmp/ExaminedVMs.h"
#include "apps/snmp/OrdaneClient.h"
#include "apps/snmp/SNMPRaskHelper.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/exception.h"
#include "tests/support/api_objects.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp_refresh/log_lines.h"
#include "tests/unit/snmp_refresh/rows.h"

namespace {

using SNMP::CounterList;
using SNMP::ExaminedVMs;
using SNMP::OrdaneClient;
using SNMP::StatsIndex;
using Tessim::MakeRef;
using Tessim::Ref;
using VmArray = Ordane::DataArray<Hask::VirtualMachine>;
using EntityMetric = Hask::PerformanceManager::EntityMetric;
using MetricIds = Ordane::DataArray<Hask::PerformanceManager::MetricId>;

bool packNothing = false;
bool loseAConfiguration = false;
bool makeNoMetricIds = false;
// What the second result of a query meets; null: nothing.
void (*atSecondResult)() = nullptr;
int results = 0;

#define STRING "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
#define PACK_STATS_NAME "_ZN4SNMP13PackStatsNameERSt6vectorISt4pairI" STRING "iESaIS8_EERKS7_SD_i"
#define EXAMINE "_ZN4SNMP7ExamineERKN6Ordane9DataArrayIN4Hask14VirtualMachineEEE"
#define GET_QUERY_METRIC_IDS                                                                         \
    "_ZN4SNMP12OrdaneClient17GetQueryMetricIdsERN6Tessim3RefIN6Ordane9DataArrayIN4Hask18Performance" \
    "Manager8MetricIdEEEEE"
#define STATS_INDEX_ADD "_ZN4SNMP10StatsIndex3AddERKN4Hask18PerformanceManager12EntityMetricE"

}  // namespace

// The linker turns calls of f into calls of __wrap_f, and __real_f into f; f is the name in the object file.
void RealPackStatsName(CounterList& list, const std::string& group, const std::string& counter,
                       std::int32_t id) asm("__real_" PACK_STATS_NAME);
void WrapPackStatsName(CounterList& list, const std::string& group, const std::string& counter,
                       std::int32_t id) asm("__wrap_" PACK_STATS_NAME);
ExaminedVMs RealExamine(const VmArray& allVms) asm("__real_" EXAMINE);
ExaminedVMs WrapExamine(const VmArray& allVms) asm("__wrap_" EXAMINE);
void RealGetQueryMetricIds(OrdaneClient* client, Ref<MetricIds>& out) asm("__real_" GET_QUERY_METRIC_IDS);
void WrapGetQueryMetricIds(OrdaneClient* client, Ref<MetricIds>& out) asm("__wrap_" GET_QUERY_METRIC_IDS);
void RealAdd(StatsIndex* index, const EntityMetric& metric) asm("__real_" STATS_INDEX_ADD);
void WrapAdd(StatsIndex* index, const EntityMetric& metric) asm("__wrap_" STATS_INDEX_ADD);

void WrapPackStatsName(CounterList& list, const std::string& group, const std::string& counter,
                       std::int32_t id) {
    if (!packNothing) {
        RealPackStatsName(list, group, counter, id);
    }
}

ExaminedVMs WrapExamine(const VmArray& allVms) {
    ExaminedVMs examined = RealExamine(allVms);
    if (loseAConfiguration) {
        examined.configs->Clear();
    }
    return examined;
}

void WrapGetQueryMetricIds(OrdaneClient* client, Ref<MetricIds>& out) {
    if (makeNoMetricIds) {
        out.Reset();
    } else {
        RealGetQueryMetricIds(client, out);
    }
}

void WrapAdd(StatsIndex* index, const EntityMetric& metric) {
    if (atSecondResult != nullptr && ++results == 2) {
        atSecondResult();
    }
    RealAdd(index, metric);
}

namespace {

using testing::ElementsAre;
using TestSupport::LogCapture;
using TestSupport::LogLine;

class BrokenInvariantTest : public testing::Test {
  protected:
    BrokenInvariantTest() {
        daemon.host.counters = ApiObjects::AllCounters();
        daemon.host.vms = {ApiObjects::Vm("16", ApiObjects::Config("web-1"))};
    }
    ~BrokenInvariantTest() override {
        packNothing = loseAConfiguration = makeNoMetricIds = false;
        atSecondResult = nullptr;
        SNMPRaskTable_Destroy();
    }

    TestSupport::FakeDaemon daemon;
    LogCapture log;
};

TEST_F(BrokenInvariantTest, EndsTheRebuildWhenAConfigurationIsMissing) {
    loseAConfiguration = true;
    SNMPRaskTable_Init();
    const std::vector<std::string> errors = TextsOf(log.Take(), 3);
    EXPECT_THAT(errors, ElementsAre("SNMPRaskRefreshCache, BUG - vm & config count.\n"));
    EXPECT_EQ(TestRows::Counts(), std::vector<std::size_t>(10, 0));

    // At once, not after 20 seconds.
    loseAConfiguration = false;
    SNMPRaskTable_Init();
    EXPECT_EQ(TestRows::Vms().size(), 1U);
}

TEST_F(BrokenInvariantTest, ThrowsTheSameTextAsASystemError) {
    loseAConfiguration = true;
    try {
        SNMPRaskRefreshCache();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Ordane::Fault::SystemError::Exception& failure) {
        EXPECT_STREQ(failure.what(), "SNMPRaskRefreshCache, BUG - vm & config count.\n");
    }
}

TEST_F(BrokenInvariantTest, ReportsTheErrorOfTheRebuildAfterItsOwnLine) {
    loseAConfiguration = true;
    SNMPRaskTable_Init();
    const std::vector<LogLine> lines = log.Take();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[0], (LogLine{6, "SNMPRask: start refreshing cache...\n"}));
    EXPECT_EQ(lines[1], (LogLine{3, "SNMPRaskRefreshCache, BUG - vm & config count.\n"}));
    EXPECT_EQ(lines[2], (LogLine{4,
                                 "SNMPRaskRefreshCache exception:SNMPRaskRefreshCache, BUG - vm & config "
                                 "count.\n\n"}));
    EXPECT_EQ(lines[3].priority, 4);
}

TEST_F(BrokenInvariantTest, RefusesAWrongNumberOfCounters) {
    packNothing = true;
    const auto client = MakeRef<OrdaneClient>();
    const char* const text = "OrdaneClient::GetAvailableCounterIds, BUG - bad count.\n";
    try {
        client->GetAvailableCounterIds();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Ordane::Fault::SystemError::Exception& failure) {
        EXPECT_STREQ(failure.what(), text);
    }
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{3, text}));
    EXPECT_EQ(daemon.CountCalls("GetPerfCounter"), 0);

    packNothing = false;
    EXPECT_EQ(client->GetCounterIdFromName("cpu", "used"), 10);
}

TEST_F(BrokenInvariantTest, LetsAWrongNumberOfCountersEndTheRebuild) {
    packNothing = true;
    SNMPRaskTable_Init();
    EXPECT_EQ(TestRows::Counts(), std::vector<std::size_t>(10, 0));
    packNothing = false;
    SNMPRaskTable_Init();
    EXPECT_EQ(TestRows::Vms().size(), 1U);
}

TEST_F(BrokenInvariantTest, CollectsNothingWithoutMetricIds) {
    const auto client = MakeRef<OrdaneClient>();
    client->CollectVMStats(MakeRef<VmArray>().Get());
    log.Take();
    makeNoMetricIds = true;
    client->CollectVMStats(MakeRef<VmArray>().Get());
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "OrdaneClient::CollectVMStats no-op, no metrid Id to query.\n"}));
    EXPECT_EQ(daemon.host.queries.size(), 1U);
    // What the collection before had is gone.
    EXPECT_EQ(client->RetrieveHCStats(ApiObjects::Reference("VirtualMachine", "16").Get(), "cpu", "used", 0),
              -1);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: no stats available."}));
}

// An error between two results of a query.
class HalfACollectionTest : public BrokenInvariantTest {
  protected:
    HalfACollectionTest() {
        results = 0;
        daemon.host.vms.push_back(ApiObjects::Vm("32", ApiObjects::Config("web-2")));
        for (const char* id : {"16", "32"}) {
            daemon.host.metrics->Append(ApiObjects::Metric(id, {ApiObjects::Series(10, "0", {7000})}));
        }
    }

    // Collects the figures of both machines.
    void Collect() {
        Ref<VmArray> vms;
        client->GetAllVM(vms);
        client->CollectVMStats(vms.Get());
    }
    std::int64_t UsedOf(const char* id) {
        return client->RetrieveHCStats(ApiObjects::Reference("VirtualMachine", id).Get(), "cpu", "used", 0);
    }

    Ref<OrdaneClient> client = MakeRef<OrdaneClient>();
};

TEST_F(HalfACollectionTest, KeepsWhatCameBeforeTheError) {
    client->Init(nullptr);
    atSecondResult = [] { throw Tessim::InvalidArgumentException("a bad result"); };
    log.Take();
    EXPECT_NO_THROW(Collect());
    const std::vector<LogLine> lines = log.Take();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], (LogLine{4, "OrdaneClient::CollectVMStats: :a bad result\n"}));
    EXPECT_TRUE(std::all_of(lines.begin(), lines.end(), [](const LogLine& line) {
        return line.priority == 4 && line.text.back() == '\n';
    }));
    EXPECT_EQ(UsedOf("16"), 7000);
    EXPECT_THAT(log.Take(), testing::IsEmpty());
    EXPECT_EQ(UsedOf("32"), -1);
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: couldn't find stats for cpu.used.0\n"}));
    EXPECT_TRUE(client->IsInitialized());
}

TEST_F(HalfACollectionTest, DropsTheConnectionThatBrokeAndKeepsWhatCameBefore) {
    client->Init(nullptr);
    atSecondResult = [] { throw Ordane::Fault::HostCommunication::Exception("reset"); };
    log.Take();
    EXPECT_NO_THROW(Collect());
    EXPECT_EQ(log.Take().at(0), (LogLine{4, "OrdaneClient::CollectVMStats: :reset\n"}));
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_EQ(UsedOf("16"), 7000);
    EXPECT_EQ(UsedOf("32"), -1);
    EXPECT_EQ(daemon.openings.size(), 1U);
    // The next collection connects again and has all.
    atSecondResult = nullptr;
    Collect();
    EXPECT_TRUE(client->IsInitialized());
    EXPECT_EQ(daemon.openings.size(), 2U);
    EXPECT_EQ(UsedOf("32"), 7000);
}

}  // namespace
