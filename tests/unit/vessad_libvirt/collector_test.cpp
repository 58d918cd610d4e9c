#include "apps/vessad/backends/libvirt/Collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/fake_api.h"
#include "tests/unit/vessad_libvirt/wait_for.h"

namespace Vessad::Libvirt {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::Not;

const std::string a = "00000000-0000-4000-8000-00000000000a";
const std::string b = "00000000-0000-4000-8000-00000000000b";

class CollectorTest : public testing::Test {
  protected:
    CollectorTest() {
        options.interval = milliseconds(10);
        options.sampling.call = milliseconds(50);
        options.poolTimeout = milliseconds(200);
        options.osinfoDirectories.clear();
        host->SetDomains({SmallDomain(a, "vm-a"), SmallDomain(b, "vm-b")});
        host->SetStatistics(a, CpuTime(1));
        host->SetStatistics(b, CpuTime(2));
    }
    ~CollectorTest() override {
        host->Thaw(a);
        host->HoldPools(false);
        host->HoldDomains(false);
    }

    void Start() {
        collector = std::make_unique<Collector>(api, "fake", VmIds(directory.GetPath()), options);
        EXPECT_EQ(collector->WaitForFirst(std::chrono::seconds(30)), std::nullopt);
    }

    std::size_t CountVms() const { return collector->Get()->vms.size(); }

    // The CPU time of the machine with the number, or -1.
    std::int64_t CpuOf(const std::string& id) const {
        const auto inventory = collector->Get();
        const auto found = inventory->vmsById.find(id);
        if (found == inventory->vmsById.end() || found->second->series.empty()) {
            return -1;
        }
        return found->second->series[0].start;
    }

    VessadTest::TemporaryDirectory directory;
    VessadTest::LogLines log;
    std::shared_ptr<FakeApi> api = std::make_shared<FakeApi>();
    std::shared_ptr<FakeHost> host = api->host;
    CollectorOptions options;
    std::unique_ptr<Collector> collector;
};

TEST_F(CollectorTest, HasTheHostAfterTheFirstCollection) {
    Start();
    const auto inventory = collector->Get();
    ASSERT_EQ(inventory->vms.size(), 2U);
    EXPECT_EQ(inventory->vms[0]->id, "1000");
    EXPECT_EQ(inventory->vms[0]->config->GetName(), "vm-a");
    EXPECT_EQ(CpuOf("1000"), 1);
    EXPECT_EQ(CpuOf("2000"), 2);
    EXPECT_EQ(inventory->about->GetName(), "QEMU");
}

TEST_F(CollectorTest, FollowsTheHost) {
    Start();
    host->SetStatistics(a, CpuTime(77));
    EXPECT_TRUE(WaitFor([&] { return CpuOf("1000") == 77; }));
    host->SetDomains({SmallDomain(b, "renamed")});
    EXPECT_TRUE(WaitFor([&] { return CountVms() == 1; }));
    EXPECT_EQ(collector->Get()->vms[0]->id, "2000");
    EXPECT_TRUE(WaitFor([&] { return collector->Get()->vms[0]->config->GetName() == "renamed"; }));
}

TEST_F(CollectorTest, DescribesAMachineAnewOnlyWhenItChanged) {
    Start();
    const int described = host->CountDescriptions();
    host->SetStatistics(a, CpuTime(5));
    ASSERT_TRUE(WaitFor([&] { return CpuOf("1000") == 5; }));
    EXPECT_EQ(host->CountDescriptions(), described);
    const auto before = collector->Get();
    host->SetDomains({SmallDomain(a, "vm-a"), SmallDomain(b, "new name")});
    ASSERT_TRUE(WaitFor([&] { return collector->Get()->vms[1]->config->GetName() == "new name"; }));
    EXPECT_EQ(host->CountDescriptions(), described + 1);
    EXPECT_EQ(collector->Get()->vms[0]->config, before->vms[0]->config);
}

TEST_F(CollectorTest, HasNoFiguresOfAMachineThatIsShutOff) {
    Start();
    ASSERT_EQ(CpuOf("1000"), 1);
    host->SetDomains({SmallDomain(a, "vm-a", DomainState::ShutOff), SmallDomain(b, "vm-b")});
    EXPECT_TRUE(WaitFor([&] { return CpuOf("1000") == -1; }));
    EXPECT_EQ(CountVms(), 2U);
    EXPECT_EQ(CpuOf("2000"), 2);
}

// libvirt keeps the process of one that crashed where it is told to.
TEST_F(CollectorTest, HasNoFiguresOfAMachineThatCrashedButHasAProcess) {
    Domain crashed = SmallDomain(a, "vm-a", DomainState::Crashed);
    ASSERT_TRUE(crashed.active);
    host->SetDomains({crashed, SmallDomain(b, "vm-b")});
    Start();
    EXPECT_EQ(CpuOf("1000"), -1);
    EXPECT_EQ(CpuOf("2000"), 2);
}

TEST_F(CollectorTest, KeepsTheDescriptionOfAMachineThatTheHostDoesNotDescribe) {
    Start();
    const auto before = collector->Get();
    Domain silent = SmallDomain(a, "vm-a", DomainState::None);
    silent.xml.clear();
    host->SetDomains({silent, SmallDomain(b, "renamed")});
    ASSERT_TRUE(WaitFor([&] { return collector->Get()->vms[1]->config->GetName() == "renamed"; }));
    EXPECT_EQ(collector->Get()->vms[0]->config, before->vms[0]->config);
    EXPECT_EQ(CpuOf("1000"), 1);
    EXPECT_THAT(log.GetText(), Not(HasSubstr("cannot be read")));
}

TEST_F(CollectorTest, KeepsTheRowAndDropsTheFiguresOfAMachineThatDoesNotAnswer) {
    Start();
    host->Freeze(a);
    EXPECT_TRUE(WaitFor([&] { return CpuOf("1000") == -1; }));
    EXPECT_EQ(CountVms(), 2U);
    host->SetStatistics(b, CpuTime(99));
    EXPECT_TRUE(WaitFor([&] { return CpuOf("2000") == 99; }));
    EXPECT_EQ(CpuOf("1000"), -1);
    EXPECT_THAT(log.GetText(), HasSubstr("VM vm-a (" + a + ") has not responded since"));
    host->Thaw(a);
    EXPECT_TRUE(WaitFor([&] { return CpuOf("1000") == 1; }));
    EXPECT_THAT(log.GetText(), HasSubstr("VM vm-a (" + a + ") responds again"));
}

TEST_F(CollectorTest, KeepsTheLastInventoryForAWhileAndThenEmptiesIt) {
    options.keep = milliseconds(500);
    Start();
    host->SetDown(true);
    ASSERT_TRUE(
        WaitFor([&] { return log.GetText().find("libvirt cannot be reached") != std::string::npos; }));
    EXPECT_EQ(CountVms(), 2U);
    EXPECT_TRUE(WaitFor([&] { return CountVms() == 0; }));
    EXPECT_EQ(collector->Get()->about->GetName(), "QEMU");
    EXPECT_THAT(log.GetText(),
                HasSubstr("warning The host's libvirt cannot be reached: the host is down; the last"));
    EXPECT_EQ(log.GetText().find("cannot be reached"), log.GetText().rfind("cannot be reached"))
        << "told once";

    host->SetDown(false);
    EXPECT_TRUE(WaitFor([&] { return CountVms() == 2; }));
    EXPECT_EQ(collector->Get()->vms[0]->id, "1000");
    EXPECT_TRUE(WaitFor(
        [&] { return log.GetText().find("libvirt can be reached again: 2 VMs") != std::string::npos; }));
}

TEST_F(CollectorTest, EmptiesTheInventoryAlsoWhileACallHangs) {
    options.readingTimeout = milliseconds(100);
    options.keep = milliseconds(300);
    Start();
    host->HoldDomains(true);
    ASSERT_TRUE(
        WaitFor([&] { return log.GetText().find("libvirt cannot be reached") != std::string::npos; }));
    EXPECT_EQ(CountVms(), 2U);
    EXPECT_TRUE(WaitFor([&] { return CountVms() == 0; }));
    EXPECT_THAT(log.GetText(),
                HasSubstr("warning The host's libvirt cannot be reached: no reply in time; the last"));
    host->HoldDomains(false);
    EXPECT_TRUE(WaitFor([&] { return CountVms() == 2; }));
}

// A host that takes long to collect is collected seldom.
TEST_F(CollectorTest, KeepsTheInventoryHoweverLongTheNextCollectionIsAway) {
    options.interval = std::chrono::hours(1);
    options.keep = milliseconds(50);
    Start();
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(CountVms(), 2U);
}

TEST_F(CollectorTest, TakesInAnAnswerThatComesLate) {
    options.interval = std::chrono::hours(1);
    options.readingTimeout = milliseconds(20);
    host->HoldDomains(true);
    collector = std::make_unique<Collector>(api, "fake", VmIds(directory.GetPath()), options);
    const auto failure = collector->WaitForFirst(std::chrono::seconds(30));
    ASSERT_TRUE(failure);
    EXPECT_FALSE(failure->IsPermanent());
    host->HoldDomains(false);
    EXPECT_TRUE(WaitFor([&] { return CountVms() == 2; }));
    EXPECT_TRUE(WaitFor(
        [&] { return log.GetText().find("libvirt can be reached again: 2 VMs") != std::string::npos; }));
    EXPECT_EQ(collector->WaitForFirst(milliseconds(0)), std::nullopt);
}

TEST_F(CollectorTest, DoesNotWaitForTheStoragePools) {
    options.firstPoolTimeout = milliseconds(20);
    host->HoldPools(true);
    Start();
    EXPECT_EQ(CountVms(), 2U);
    EXPECT_THAT(log.GetText(), HasSubstr("warning The list of storage pools is late"));
}

TEST_F(CollectorTest, StartsWithNothingOnAHostThatIsDown) {
    host->SetDown(true);
    collector = std::make_unique<Collector>(api, "fake", VmIds(directory.GetPath()), options);
    const auto failure = collector->WaitForFirst(std::chrono::seconds(30));
    ASSERT_TRUE(failure);
    EXPECT_FALSE(failure->IsPermanent());
    EXPECT_EQ(CountVms(), 0U);
    EXPECT_EQ(collector->Get()->counters.size(), 10U);
    host->SetDown(false);
    EXPECT_TRUE(WaitFor([&] { return CountVms() == 2; }));
}

TEST_F(CollectorTest, TellsAFailureThatWillNeverPass) {
    host->SetDown(true, true);
    collector = std::make_unique<Collector>(api, "fake", VmIds(directory.GetPath()), options);
    const auto failure = collector->WaitForFirst(std::chrono::seconds(30));
    ASSERT_TRUE(failure);
    EXPECT_TRUE(failure->IsPermanent());
}

TEST_F(CollectorTest, CollectsAtOnceWhenItIsWoken) {
    options.interval = std::chrono::hours(1);
    Start();
    host->SetDomains({});
    collector->CollectNow();
    EXPECT_TRUE(WaitFor([&] { return CountVms() == 0; }));
}

TEST_F(CollectorTest, EndsWhileTheHostHangs) {
    Start();
    host->HoldDomains(true);
    host->HoldPools(true);
    host->Freeze(a);
    collector.reset();
    host->HoldDomains(false);
    EXPECT_THAT(log.GetText(), Not(HasSubstr("error")));
}

}  // namespace
}  // namespace Vessad::Libvirt
