// What the refresh and the statistics say when their own invariants do not hold. No data brings that about,
// so the functions that keep the invariants are made to break them at link time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/snmp/ExaminedVMs.h"
#include "apps/snmp/OrdaneClient.h"
#include "apps/snmp/SNMPRaskHelper.h"
#include "runtime/ordane/faults.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp_refresh/api_objects.h"
#include "tests/unit/snmp_refresh/log_lines.h"
#include "tests/unit/snmp_refresh/rows.h"

namespace {

using SNMP::CounterList;
using SNMP::ExaminedVMs;
using SNMP::OrdaneClient;
using Tessim::MakeRef;
using Tessim::Ref;
using VmArray = Ordane::DataArray<Hask::VirtualMachine>;
using MetricIds = Ordane::DataArray<Hask::PerformanceManager::MetricId>;

bool packNothing = false;
bool loseAConfiguration = false;
bool makeNoMetricIds = false;

#define STRING "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
#define PACK_STATS_NAME "_ZN4SNMP13PackStatsNameERSt6vectorISt4pairI" STRING "iESaIS8_EERKS7_SD_i"
#define EXAMINE "_ZN4SNMP7ExamineERKN6Ordane9DataArrayIN4Hask14VirtualMachineEEE"
#define GET_QUERY_METRIC_IDS                                                                         \
    "_ZN4SNMP12OrdaneClient17GetQueryMetricIdsERN6Tessim3RefIN6Ordane9DataArrayIN4Hask18Performance" \
    "Manager8MetricIdEEEEE"

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
    makeNoMetricIds = true;
    client->CollectVMStats(MakeRef<VmArray>().Get());
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "OrdaneClient::CollectVMStats no-op, no metrid Id to query.\n"}));
    EXPECT_THAT(daemon.host.queries, testing::IsEmpty());
}

}  // namespace
