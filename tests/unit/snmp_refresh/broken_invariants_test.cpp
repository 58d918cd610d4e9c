// What the refresh and the statistics do when their own invariants do not hold. No data of a daemon breaks
// them, so the functions that check them are called directly.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "apps/snmp/client/OrdaneClient.h"
#include "apps/snmp/refresh/CacheFiller.h"
#include "apps/snmp/refresh/SNMPRaskHelper.h"
#include "runtime/hask/performance_counters.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/exception.h"
#include "tests/support/api_objects.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp_refresh/log_lines.h"
#include "tests/unit/snmp_refresh/rows.h"

namespace {

using SNMP::OrdaneClient;
using Tessim::MakeRef;
using Tessim::Ref;
using VmArray = Ordane::DataArray<Hask::VirtualMachine>;
using EntityMetric = Hask::PerformanceManager::EntityMetric;
using MetricIds = Ordane::DataArray<Hask::PerformanceManager::MetricId>;

using testing::ElementsAre;
using TestSupport::LogCapture;
using TestSupport::LogLine;

class BrokenInvariantTest : public testing::Test {
  protected:
    BrokenInvariantTest() {
        daemon.host.counters = ApiObjects::AllCounters();
        daemon.host.vms = {ApiObjects::Vm("16", ApiObjects::Config("web-1"))};
    }
    ~BrokenInvariantTest() override { SNMPRaskTable_Destroy(); }

    TestSupport::FakeDaemon daemon;
    LogCapture log;
};

TEST_F(BrokenInvariantTest, FillTablesRejectsAMissingConfiguration) {
    const auto client = MakeRef<OrdaneClient>();
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    const char* const text = "SNMPRaskRefreshCache, BUG - vm & config count.\n";
    try {
        SNMP::FillTables(client.Get(), vms.Get(), MakeRef<Ordane::DataArray<Hask::Vm::ConfigInfo>>().Get());
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Ordane::Fault::SystemError::Exception& failure) {
        EXPECT_STREQ(failure.what(), text);
    }
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{3, text}));
}

TEST_F(BrokenInvariantTest, MakeCounterListRejectsAnyNumberButTen) {
    const std::span<const Hask::Counters::Counter> ten = Hask::Counters::standard;
    const char* const text = "OrdaneClient::GetAvailableCounterIds, BUG - bad count.\n";
    try {
        SNMP::MakeCounterList(ten.first(9));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Ordane::Fault::SystemError::Exception& failure) {
        EXPECT_STREQ(failure.what(), text);
    }
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{3, text}));
    EXPECT_EQ(SNMP::MakeCounterList(ten).size(), 10U);
}

// A client whose results fail at the second, or that has no metric ids.
class FailingClient final : public OrdaneClient {
  public:
    void (*atSecondResult)() = nullptr;
    bool withoutMetricIds = false;

  protected:
    void AddResult(EntityMetric* metric) override {
        if (atSecondResult != nullptr && ++results == 2) {
            atSecondResult();
        }
        OrdaneClient::AddResult(metric);
    }
    void GetQueryMetricIds(Ref<MetricIds>& out) override {
        out.Reset();
        if (!withoutMetricIds) {
            OrdaneClient::GetQueryMetricIds(out);
        }
    }

  private:
    int results = 0;
};

TEST_F(BrokenInvariantTest, CollectsNothingWithoutMetricIds) {
    const auto client = MakeRef<FailingClient>();
    client->CollectVMStats(MakeRef<VmArray>().Get());
    log.Take();
    client->withoutMetricIds = true;
    client->CollectVMStats(MakeRef<VmArray>().Get());
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "OrdaneClient::CollectVMStats no-op, no metrid Id to query.\n"}));
    EXPECT_EQ(daemon.host.queries.size(), 1U);
    // The statistics of the previous collection are dropped.
    EXPECT_EQ(client->RetrieveHCStats(ApiObjects::Reference("VirtualMachine", "16").Get(), "cpu", "used", 0),
              -1);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "OrdaneClient::RetrieveStats: no stats available."}));
}

// An error between two results of a query.
class HalfACollectionTest : public BrokenInvariantTest {
  protected:
    HalfACollectionTest() {
        daemon.host.vms.push_back(ApiObjects::Vm("32", ApiObjects::Config("web-2")));
        for (const char* id : {"16", "32"}) {
            daemon.host.metrics->Append(ApiObjects::Metric(id, {ApiObjects::Series(10, "0", {7000})}));
        }
    }

    // Collects the statistics of both VMs.
    void Collect() {
        Ref<VmArray> vms;
        client->GetAllVM(vms);
        client->CollectVMStats(vms.Get());
    }
    std::int64_t UsedOf(const char* id) {
        return client->RetrieveHCStats(ApiObjects::Reference("VirtualMachine", id).Get(), "cpu", "used", 0);
    }

    Ref<FailingClient> client = MakeRef<FailingClient>();
};

TEST_F(HalfACollectionTest, KeepsWhatCameBeforeTheError) {
    client->Init(nullptr);
    client->atSecondResult = [] { throw Tessim::InvalidArgumentException("a bad result"); };
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
    client->atSecondResult = [] { throw Ordane::Fault::HostCommunication::Exception("reset"); };
    log.Take();
    EXPECT_NO_THROW(Collect());
    EXPECT_EQ(log.Take().at(0), (LogLine{4, "OrdaneClient::CollectVMStats: :reset\n"}));
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_EQ(UsedOf("16"), 7000);
    EXPECT_EQ(UsedOf("32"), -1);
    EXPECT_EQ(daemon.openings.size(), 1U);
    // The next collection connects again and has all.
    client->atSecondResult = nullptr;
    Collect();
    EXPECT_TRUE(client->IsInitialized());
    EXPECT_EQ(daemon.openings.size(), 2U);
    EXPECT_EQ(UsedOf("32"), 7000);
}

}  // namespace
