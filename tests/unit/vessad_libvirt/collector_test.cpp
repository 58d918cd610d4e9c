#include "apps/vessad/backends/libvirt/Collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"
#include "tests/unit/vessad_libvirt/fake_api.h"

namespace Vessad::Libvirt {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::Not;

// A domain with one CPU, 64 MB and nothing else.
Domain SmallDomain(const std::string& uuid, const std::string& name,
                   DomainState state = DomainState::Running) {
    return {uuid, name,  state != DomainState::ShutOff,
            true, state, "<domain><name>" + name + "</name><memory>65536</memory><vcpu>1</vcpu></domain>"};
}

// On a host with the VMs vm-a (1000), whose CPU time is 1 ms, and vm-b (2000), whose is 2 ms.
class CollectorTest : public testing::Test {
  protected:
    CollectorTest() {
        options.interval = milliseconds(10);
        options.sampling.call = milliseconds(50);
        options.poolTimeout = milliseconds(200);
        options.osinfoDirectories.clear();
        SetDomains({SmallDomain(uuidA, "vm-a"), SmallDomain(uuidB, "vm-b")});
        SetCpuTime(uuidA, 1);
        SetCpuTime(uuidB, 2);
    }
    ~CollectorTest() override { api->Release(); }

    void SetDomains(std::vector<Domain> domains) {
        api->With([&](FakeState& state) { state.domains = std::move(domains); });
    }
    void SetCpuTime(const std::string& uuid, std::uint64_t milliseconds) {
        api->With([&](FakeState& state) { state.statistics[uuid] = CpuTime(milliseconds); });
    }
    void Hold(bool FakeState::*held, bool value = true) {
        api->With([&](FakeState& state) { state.*held = value; });
    }

    // Returns why the first collection failed, if it did.
    std::optional<ApiError> Start() {
        collector = std::make_unique<Collector>(api, "fake", VmIds(directory.GetPath()), options);
        return collector->WaitForFirst(std::chrono::seconds(30));
    }

    std::size_t CountVms() const { return collector->Get()->vms.size(); }
    bool WaitForVms(std::size_t count) const {
        return WaitFor([&] { return CountVms() == count; });
    }
    // The CPU time of the VM in milliseconds, or -1.
    std::int64_t CpuOf(const std::string& id) const {
        const auto inventory = collector->Get();
        const auto found = inventory->vmsById.find(id);
        return found == inventory->vmsById.end() || found->second->series.empty()
                   ? -1
                   : found->second->series[0].start;
    }
    bool WaitForCpu(const std::string& id, std::int64_t milliseconds) const {
        return WaitFor([&] { return CpuOf(id) == milliseconds; });
    }
    bool WaitForName(std::size_t position, const std::string& name) const {
        return WaitFor([&] { return collector->Get()->vms.at(position)->config->GetName() == name; });
    }
    bool WaitForLog(const std::string& text) const {
        return WaitFor([&] { return log.GetText().find(text) != std::string::npos; });
    }

    VessadTest::TemporaryDirectory directory;
    VessadTest::LogLines log;
    std::shared_ptr<FakeApi> api = std::make_shared<FakeApi>();
    CollectorOptions options;
    std::unique_ptr<Collector> collector;
};

TEST_F(CollectorTest, FollowsTheHost) {
    ASSERT_EQ(Start(), std::nullopt);
    const auto inventory = collector->Get();
    ASSERT_EQ(inventory->vms.size(), 2U);
    EXPECT_EQ(inventory->vms[0]->id, "1000");
    EXPECT_EQ(inventory->vms[0]->config->GetName(), "vm-a");
    EXPECT_EQ(inventory->about->GetName(), "QEMU");
    EXPECT_EQ(CpuOf("1000"), 1);
    EXPECT_EQ(CpuOf("2000"), 2);
    SetCpuTime(uuidA, 77);
    EXPECT_TRUE(WaitForCpu("1000", 77));
    SetDomains({SmallDomain(uuidB, "renamed")});
    ASSERT_TRUE(WaitForVms(1));
    EXPECT_EQ(collector->Get()->vms[0]->id, "2000");
    EXPECT_TRUE(WaitForName(0, "renamed"));
}

TEST_F(CollectorTest, DescribesAVmAgainOnlyWhenItChanged) {
    Start();
    const auto descriptions = [&] {
        return api->With([](FakeState& state) { return state.schedulerCalls; });
    };
    const int before = descriptions();
    SetCpuTime(uuidA, 5);
    ASSERT_TRUE(WaitForCpu("1000", 5));
    EXPECT_EQ(descriptions(), before);
    const auto config = collector->Get()->vms[0]->config;
    SetDomains({SmallDomain(uuidA, "vm-a"), SmallDomain(uuidB, "new name")});
    ASSERT_TRUE(WaitForName(1, "new name"));
    EXPECT_EQ(descriptions(), before + 1);
    EXPECT_EQ(collector->Get()->vms[0]->config, config);
}

TEST_F(CollectorTest, KeepsTheDescriptionOfAVmThatTheHostDoesNotDescribe) {
    Start();
    const auto config = collector->Get()->vms[0]->config;
    Domain undescribed = SmallDomain(uuidA, "vm-a", DomainState::None);
    undescribed.xml.clear();
    SetDomains({undescribed, SmallDomain(uuidB, "renamed")});
    ASSERT_TRUE(WaitForName(1, "renamed"));
    EXPECT_EQ(collector->Get()->vms[0]->config, config);
    EXPECT_EQ(CpuOf("1000"), 1);
    EXPECT_THAT(log.GetText(), Not(HasSubstr("cannot be read")));
}

// libvirt can be configured to keep the process of a crashed domain.
TEST_F(CollectorTest, DropsTheStatisticsOfAVmThatIsShutOffOrCrashed) {
    Start();
    for (const DomainState state : {DomainState::ShutOff, DomainState::Crashed}) {
        SetDomains({SmallDomain(uuidA, "vm-a"), SmallDomain(uuidB, "vm-b")});
        ASSERT_TRUE(WaitForCpu("1000", 1));
        SetDomains({SmallDomain(uuidA, "vm-a", state), SmallDomain(uuidB, "vm-b")});
        EXPECT_TRUE(WaitForCpu("1000", -1));
        EXPECT_EQ(CountVms(), 2U);
        EXPECT_EQ(CpuOf("2000"), 2);
    }
}

TEST_F(CollectorTest, KeepsTheRowAndDropsTheStatisticsOfAVmThatDoesNotRespond) {
    Start();
    api->Freeze(uuidA);
    EXPECT_TRUE(WaitForCpu("1000", -1));
    EXPECT_EQ(CountVms(), 2U);
    SetCpuTime(uuidB, 99);
    EXPECT_TRUE(WaitForCpu("2000", 99));
    EXPECT_EQ(CpuOf("1000"), -1);
    EXPECT_THAT(log.GetText(), HasSubstr("VM vm-a (" + uuidA + ") has not responded since"));
    api->Release();
    EXPECT_TRUE(WaitForCpu("1000", 1));
    EXPECT_THAT(log.GetText(), HasSubstr("VM vm-a (" + uuidA + ") responds again"));
}

TEST_F(CollectorTest, KeepsTheLastInventoryOfAHostThatIsDownForAWhileAndThenDropsItsVms) {
    options.keep = milliseconds(500);
    Start();
    api->SetDown(true);
    ASSERT_TRUE(WaitForLog("warning The host's libvirt cannot be reached: the host is down; the last"));
    EXPECT_EQ(CountVms(), 2U);
    EXPECT_TRUE(WaitForVms(0));
    EXPECT_EQ(collector->Get()->about->GetName(), "QEMU");
    const std::string text = log.GetText();
    EXPECT_EQ(text.find("cannot be reached"), text.rfind("cannot be reached")) << "logged once";
    api->SetDown(false);
    EXPECT_TRUE(WaitForVms(2));
    EXPECT_EQ(collector->Get()->vms[0]->id, "1000");
    EXPECT_TRUE(WaitForLog("info The host's libvirt can be reached again: 2 VMs"));
}

TEST_F(CollectorTest, DropsTheVmsAlsoWhileACallHangs) {
    options.readingTimeout = milliseconds(100);
    options.keep = milliseconds(300);
    Start();
    Hold(&FakeState::holdsDomains);
    ASSERT_TRUE(WaitForLog("warning The host's libvirt cannot be reached: no reply in time; the last"));
    EXPECT_EQ(CountVms(), 2U);
    EXPECT_TRUE(WaitForVms(0));
    Hold(&FakeState::holdsDomains, false);
    EXPECT_TRUE(WaitForVms(2));
}

// The time starts when the host is found unreachable, not with the last collection.
TEST_F(CollectorTest, KeepsTheInventoryUntilTheNextCollectionHoweverLateItIs) {
    options.interval = std::chrono::hours(1);
    options.keep = milliseconds(50);
    Start();
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(CountVms(), 2U);
}

TEST_F(CollectorTest, ServesAReadingThatIsLate) {
    options.interval = std::chrono::hours(1);
    options.readingTimeout = milliseconds(20);
    Hold(&FakeState::holdsDomains);
    const auto failure = Start();
    ASSERT_TRUE(failure);
    EXPECT_FALSE(failure->IsPermanent());
    Hold(&FakeState::holdsDomains, false);
    EXPECT_TRUE(WaitForVms(2));
    EXPECT_TRUE(WaitForLog("libvirt can be reached again: 2 VMs"));
    EXPECT_EQ(collector->WaitForFirst(milliseconds(0)), std::nullopt);
}

TEST_F(CollectorTest, DoesNotWaitForTheStoragePools) {
    options.firstPoolTimeout = milliseconds(20);
    Hold(&FakeState::holdsPools);
    Start();
    EXPECT_EQ(CountVms(), 2U);
    EXPECT_THAT(log.GetText(), HasSubstr("warning The list of storage pools is late"));
}

TEST_F(CollectorTest, StartsWithoutVmsOnAHostThatIsDown) {
    api->SetDown(true);
    const auto failure = Start();
    ASSERT_TRUE(failure);
    EXPECT_FALSE(failure->IsPermanent());
    EXPECT_EQ(CountVms(), 0U);
    EXPECT_EQ(collector->Get()->counters.size(), 10U);
    api->SetDown(false);
    EXPECT_TRUE(WaitForVms(2));
}

TEST_F(CollectorTest, ReturnsAPermanentFailure) {
    api->SetDown(true, true);
    const auto failure = Start();
    ASSERT_TRUE(failure);
    EXPECT_TRUE(failure->IsPermanent());
}

TEST_F(CollectorTest, CollectsOnRequest) {
    options.interval = std::chrono::hours(1);
    Start();
    SetDomains({});
    collector->CollectNow();
    EXPECT_TRUE(WaitForVms(0));
}

TEST_F(CollectorTest, EndsWhileTheHostHangs) {
    Start();
    Hold(&FakeState::holdsDomains);
    Hold(&FakeState::holdsPools);
    api->Freeze(uuidA);
    collector.reset();
    EXPECT_THAT(log.GetText(), Not(HasSubstr("error")));
}

}  // namespace
}  // namespace Vessad::Libvirt
