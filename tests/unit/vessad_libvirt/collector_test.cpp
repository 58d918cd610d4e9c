#include "apps/vessad/backends/libvirt/Collector.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <mutex>

#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"
#include "tests/unit/vessad_libvirt/fake_api.h"

namespace Vessad::Libvirt {
namespace {

using std::chrono::milliseconds;

// A domain with one CPU, 64 MB and nothing else.
Domain SmallDomain(const std::string& uuid, const std::string& name,
                   DomainState state = DomainState::Running) {
    return {uuid, name,  state != DomainState::ShutOff,
            true, state, "<domain><name>" + name + "</name><memory>65536</memory><vcpu>1</vcpu></domain>"};
}

// Keeps the status that the collector has while it logs a warning.
class StatusSink final : public spdlog::sinks::base_sink<std::mutex> {
  public:
    explicit StatusSink(const std::unique_ptr<Collector>& collector) : collector(collector) {}

    // Empty before the first warning.
    std::optional<SourceStatus> Get() {
        const std::lock_guard lock(mutex_);
        return status;
    }

  private:
    void sink_it_(const spdlog::details::log_msg& message) override {
        if (message.level == spdlog::level::warn) {
            status = collector->GetStatus();
        }
    }
    void flush_() override {}

    const std::unique_ptr<Collector>& collector;
    std::optional<SourceStatus> status;
};

const std::string vmA = "1000 vm-a poweredOn running cpu.used 0=1";
const std::string vmB = "2000 vm-b poweredOn running cpu.used 0=2";

// On a host with these VMs.
class CollectorTest : public testing::Test {
  protected:
    CollectorTest() {
        options.interval = milliseconds(10);
        options.sampling.call = options.sampling.log = milliseconds(50);
        options.poolTimeout = milliseconds(200);
        options.osinfoDirectories.clear();
        SetDomains({SmallDomain(uuidA, "vm-a"), SmallDomain(uuidB, "vm-b")});
        api->SetCpuTime(uuidA, 1);
        api->SetCpuTime(uuidB, 2);
    }
    ~CollectorTest() override { api->Release(); }

    void SetDomains(std::vector<Domain> domains) {
        api->With([&](FakeState& state) { state.domains = std::move(domains); });
    }

    // Returns why the first collection failed, if it did.
    std::optional<ApiError> Start() {
        collector = std::make_unique<Collector>(api, "fake", VmIds(directory.GetPath()), options);
        return collector->WaitForFirst(std::chrono::seconds(30));
    }

    std::vector<std::string> Vms() const { return VmLines(*collector->Get()); }
    // Sets one VM, with a system that no osinfo database has.
    void SetDomainOfUnknownSystem() {
        options.osinfoDirectories = {directory.GetPath()};
        Domain domain = SmallDomain(uuidA, "vm-a");
        domain.xml = DomainXmlWith(
            "",
            "<metadata><osinfo:libosinfo xmlns:osinfo='http://libosinfo.org/xmlns/libvirt/domain/1.0'>"
            "<osinfo:os id='http://debian.org/debian/12'/></osinfo:libosinfo></metadata>");
        SetDomains({domain});
    }
    // Installs a database that has it, as "Debian 12".
    void InstallOsinfo() const {
        std::filesystem::create_directories(directory.GetPath() / "os/debian.org");
        VessadTest::WriteAll(
            directory.GetPath() / "os/debian.org/debian-12.xml",
            "<libosinfo><os id='http://debian.org/debian/12'><name>Debian 12</name></os></libosinfo>");
    }
    std::string GuestName() const { return collector->Get()->vms.at(0)->config->GetGuestFullName(); }

    void AwaitVms(const std::vector<std::string>& lines) const {
        VessadTest::Await([&] { return Vms() == lines; });
        EXPECT_EQ(Vms(), lines);
    }

    VessadTest::TemporaryDirectory directory;
    VessadTest::LogLines log;
    std::shared_ptr<FakeApi> api = std::make_shared<FakeApi>();
    CollectorOptions options;
    // For the clocks of tests, which the collector's thread reads.
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::atomic<milliseconds> passed{milliseconds(0)};
    std::unique_ptr<Collector> collector;
};

TEST_F(CollectorTest, FollowsTheHostAndDescribesAVmAgainOnlyWhenItChanged) {
    ASSERT_EQ(Start(), std::nullopt);
    EXPECT_EQ(Vms(), (std::vector{vmA, vmB}));
    EXPECT_EQ(collector->Get()->about->GetName(), "QEMU");
    const auto descriptions = [&] {
        return api->With([](FakeState& state) { return state.schedulerCalls; });
    };
    EXPECT_EQ(descriptions(), 2);
    api->SetCpuTime(uuidA, 77);
    AwaitVms({"1000 vm-a poweredOn running cpu.used 0=77", vmB});
    EXPECT_EQ(descriptions(), 2);
    SetDomains({SmallDomain(uuidA, "vm-a"), SmallDomain(uuidB, "renamed")});
    const std::string renamed = "2000 renamed poweredOn running cpu.used 0=2";
    AwaitVms({"1000 vm-a poweredOn running cpu.used 0=77", renamed});
    EXPECT_EQ(descriptions(), 3);
    SetDomains({SmallDomain(uuidB, "renamed")});
    AwaitVms({renamed});
}

TEST_F(CollectorTest, KeepsTheDescriptionOfAVmThatTheHostDoesNotDescribe) {
    Start();
    Domain undescribed = SmallDomain(uuidA, "vm-a", DomainState::None);
    undescribed.xml.clear();
    SetDomains({undescribed, SmallDomain(uuidB, "vm-b")});
    AwaitVms({"1000 vm-a poweredOn unknown cpu.used 0=1", vmB});
    EXPECT_EQ(log.Count("cannot be read"), 0);
    undescribed.xml = "<domain>";
    SetDomains({undescribed, SmallDomain(uuidB, "vm-b")});
    AwaitVms({"1000 unconfigured poweredOn unknown", vmB});
    EXPECT_EQ(log.Count("error The XML of VM " + uuidA + " cannot be read, it has no configuration: "), 1);
}

// libvirt can be configured to keep the process of a crashed domain.
TEST_F(CollectorTest, DropsTheStatisticsOfAVmThatIsShutOffOrCrashed) {
    Start();
    for (const DomainState state : {DomainState::ShutOff, DomainState::Crashed}) {
        SetDomains({SmallDomain(uuidA, "vm-a"), SmallDomain(uuidB, "vm-b")});
        AwaitVms({vmA, vmB});
        SetDomains({SmallDomain(uuidA, "vm-a", state), SmallDomain(uuidB, "vm-b")});
        AwaitVms({"1000 vm-a poweredOff notRunning", vmB});
    }
}

TEST_F(CollectorTest, KeepsTheRowAndDropsTheStatisticsOfAVmThatDoesNotRespond) {
    Start();
    api->Freeze(uuidA);
    AwaitVms({"1000 vm-a poweredOn running", vmB});
    api->SetCpuTime(uuidB, 99);
    AwaitVms({"1000 vm-a poweredOn running", "2000 vm-b poweredOn running cpu.used 0=99"});
    EXPECT_TRUE(log.AwaitLine("VM vm-a (" + uuidA + ") has not responded since"));
    api->Release();
    AwaitVms({vmA, "2000 vm-b poweredOn running cpu.used 0=99"});
}

TEST_F(CollectorTest, KeepsTheLastInventoryOfAHostThatIsDownForAWhileAndThenDropsItsVms) {
    options.keep = milliseconds(500);
    Start();
    api->SetDown(true);
    EXPECT_TRUE(log.AwaitLine("warning The host's libvirt cannot be reached: the host is down; the last"));
    EXPECT_EQ(Vms(), (std::vector{vmA, vmB}));
    AwaitVms({});
    EXPECT_EQ(collector->Get()->about->GetName(), "QEMU");
    EXPECT_EQ(log.Count("cannot be reached"), 1);
    api->SetDown(false);
    AwaitVms({vmA, vmB});
    EXPECT_TRUE(log.AwaitLine("info The host's libvirt can be reached again: 2 VMs"));
}

TEST_F(CollectorTest, DropsTheVmsAlsoWhileACallHangs) {
    options.readingTimeout = milliseconds(100);
    options.keep = milliseconds(300);
    Start();
    api->Hold(&FakeState::holdsDomains);
    EXPECT_TRUE(log.AwaitLine("warning The host's libvirt cannot be reached: no reply in time; the last"));
    EXPECT_EQ(Vms(), (std::vector{vmA, vmB}));
    AwaitVms({});
    api->Hold(&FakeState::holdsDomains, false);
    AwaitVms({vmA, vmB});
}

// As when libvirtd was stopped and continues, having closed the connections that it left without a reply.
TEST_F(CollectorTest, ServesTheHostAnewByTheNextCollectionHoweverLongACallHung) {
    options.readingTimeout = milliseconds(50);
    options.now = [this] { return std::chrono::steady_clock::now() + passed.load(); };
    int hangs = 0;
    for (const auto hang :
         {std::chrono::seconds(30), std::chrono::seconds(180), std::chrono::seconds(3600)}) {
        SetDomains({SmallDomain(uuidA, "vm-a"), SmallDomain(uuidB, "vm-b")});
        api->SetCpuTime(uuidB, 2);
        Start();
        AwaitVms({vmA, vmB});
        api->Hold(&FakeState::holdsDomains);
        ++hangs;
        ASSERT_TRUE(VessadTest::Await([&] { return log.Count("cannot be reached") == hangs; }));
        passed = passed.load() + hang;
        EXPECT_EQ(Vms(), hang < options.keep ? std::vector({vmA, vmB}) : std::vector<std::string>());
        SetDomains({SmallDomain(uuidA, "vm-a", DomainState::ShutOff), SmallDomain(uuidB, "vm-b")});
        api->SetCpuTime(uuidB, 3);
        api->Hold(&FakeState::holdsDomains, false);
        AwaitVms({"1000 vm-a poweredOff notRunning", "2000 vm-b poweredOn running cpu.used 0=3"});
        SetDomains({});
        AwaitVms({});
        collector.reset();
    }
}

TEST_F(CollectorTest, SaysWhetherTheHostWasReachedWhyNotAndHowOldTheInventoryIs) {
    options.now = [this] { return start + passed.load(); };
    options.interval = std::chrono::hours(1);
    const auto expectStatus = [&](bool connected, const std::optional<std::string>& lastError,
                                  const std::optional<std::chrono::seconds>& age) {
        const SourceStatus status = collector->GetStatus();
        EXPECT_EQ(status.connected, connected);
        EXPECT_EQ(status.lastError, lastError);
        EXPECT_EQ(status.age, age);
    };
    api->SetDown(true);
    Start();
    expectStatus(false, "the host is down", std::nullopt);
    api->SetDown(false);
    collector->CollectNow();
    AwaitVms({vmA, vmB});
    expectStatus(true, std::nullopt, std::chrono::seconds(0));
    passed = std::chrono::seconds(4);
    expectStatus(true, std::nullopt, std::chrono::seconds(4));
    api->SetDown(true);
    collector->CollectNow();
    EXPECT_TRUE(log.AwaitLine("the last inventory serves"));
    expectStatus(false, "the host is down", std::chrono::seconds(4));
}

TEST_F(CollectorTest, SaysWhyTheHostWasNotReachedFromTheBeginningOfTheOutage) {
    const auto sink = std::make_shared<StatusSink>(collector);
    spdlog::default_logger()->sinks().push_back(sink);
    options.interval = std::chrono::hours(1);
    Start();
    api->SetDown(true);
    collector->CollectNow();
    ASSERT_TRUE(VessadTest::Await([&] {
        const auto status = sink->Get();
        return status && !status->connected;
    }));
    EXPECT_EQ(sink->Get()->lastError, "the host is down");
}

TEST_F(CollectorTest, SaysWhyTheHostWasNotReachedUntilTheNextInventoryIsComplete) {
    options.interval = std::chrono::hours(1);
    options.sampling.call = std::chrono::minutes(1);
    api->SetDown(true);
    Start();
    api->SetDown(false);
    api->Freeze(uuidA);
    collector->CollectNow();
    ASSERT_TRUE(VessadTest::Await([&] { return api->CountWaiting() == 1; }));
    EXPECT_FALSE(collector->GetStatus().connected);
    EXPECT_EQ(collector->GetStatus().lastError, "the host is down");
    api->Release();
    AwaitVms({vmA, vmB});
    EXPECT_TRUE(collector->GetStatus().connected);
    EXPECT_EQ(collector->GetStatus().lastError, std::nullopt);
}

// The time starts when the host is found unreachable, not with the last collection.
TEST_F(CollectorTest, KeepsTheInventoryUntilTheNextCollectionHoweverLateItIs) {
    options.interval = std::chrono::hours(1);
    options.keep = milliseconds(50);
    Start();
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(Vms(), (std::vector{vmA, vmB}));
    SetDomains({});
    collector->CollectNow();
    AwaitVms({});
}

TEST_F(CollectorTest, FindsTheGuestNamesOfADatabaseThatWasInstalledWhenItIsToldToCollect) {
    SetDomainOfUnknownSystem();
    Start();
    EXPECT_EQ(GuestName(), "hvm (x86_64)");
    InstallOsinfo();
    collector->CollectNow();
    EXPECT_TRUE(VessadTest::Await([&] { return GuestName() == "Debian 12"; })) << GuestName();
}

TEST_F(CollectorTest, DescribesVmsAnewOnceTheHostIsBackThatWasDownWhenItWasToldToCollect) {
    options.progress = milliseconds(60);  // to see the clock every 10 ms
    options.now = [this] { return start + passed.load(); };
    SetDomainOfUnknownSystem();
    Start();
    InstallOsinfo();
    api->SetDown(true);
    collector->CollectNow();
    EXPECT_TRUE(log.AwaitLine("cannot be reached"));
    api->SetDown(false);
    EXPECT_TRUE(VessadTest::Await([&] {
        passed = passed.load() + options.interval;
        return GuestName() == "Debian 12";
    })) << GuestName();
}

TEST_F(CollectorTest, ServesAReadingThatIsLate) {
    options.interval = std::chrono::hours(1);
    options.readingTimeout = milliseconds(20);
    api->Hold(&FakeState::holdsDomains);
    const auto failure = Start();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->GetKind(), ApiError::Kind::Temporary);
    api->Hold(&FakeState::holdsDomains, false);
    AwaitVms({vmA, vmB});
    EXPECT_TRUE(log.AwaitLine("libvirt can be reached again: 2 VMs"));
    EXPECT_EQ(collector->WaitForFirst(milliseconds(0)), std::nullopt);
}

TEST_F(CollectorTest, DoesNotWaitForTheStoragePools) {
    options.firstPoolTimeout = milliseconds(20);
    api->Hold(&FakeState::holdsPools);
    Start();
    EXPECT_EQ(Vms(), (std::vector{vmA, vmB}));
    const std::string late =
        "warning The list of storage pools is late, the last one serves until it arrives\n";
    EXPECT_EQ(log.GetText(), late);
    api->Hold(&FakeState::holdsPools, false);
    for (const char* const time : {"3", "4"}) {
        api->SetCpuTime(uuidA, std::stoul(time));
        AwaitVms({std::string("1000 vm-a poweredOn running cpu.used 0=") + time, vmB});
    }
    EXPECT_EQ(log.GetText(), late);
    api->Hold(&FakeState::holdsPools);
    EXPECT_TRUE(VessadTest::Await([&] { return log.GetText() == late + late; }));
}

TEST_F(CollectorTest, HasThePoolsInTheFirstInventoryOfAHostThatHungAtFirst) {
    options.interval = std::chrono::hours(1);
    options.firstPoolTimeout = options.readingTimeout = milliseconds(20);
    options.poolTimeout = std::chrono::seconds(30);
    Domain domain = SmallDomain(uuidA, "vm-a");
    domain.xml = DomainXmlWith(
        "<disk type='file' device='disk'><source file='/pool/a.img'/><target dev='vda' "
        "bus='virtio'/></disk>");
    SetDomains({domain});
    api->Hold(&FakeState::holdsPools);
    api->Hold(&FakeState::holdsDomains);
    ASSERT_TRUE(Start());
    api->Hold(&FakeState::holdsDomains, false);
    ASSERT_TRUE(VessadTest::Await(
        [&] { return api->With([](const FakeState& state) { return state.schedulerCalls; }) == 1; }));
    api->Hold(&FakeState::holdsPools, false);
    ASSERT_TRUE(VessadTest::Await([&] { return !Vms().empty(); }));
    EXPECT_EQ(DeviceLines(*collector->Get()->vms.at(0)->config),
              (std::vector<std::string>{"Disk 2200 | Hard disk 1 (vda) | /pool/a.img | none:0 | "
                                        "pool:default [default] a.img | 100 shares"}));
}

TEST_F(CollectorTest, StartsWithoutVmsOnAHostThatIsDownAndReturnsWhetherThatIsPermanent) {
    for (const bool permanent : {false, true}) {
        api->SetDown(true, permanent);
        const auto failure = Start();
        ASSERT_TRUE(failure);
        EXPECT_EQ(failure->GetKind() == ApiError::Kind::Permanent, permanent);
        EXPECT_TRUE(Vms().empty());
        EXPECT_EQ(collector->Get()->counters.size(), 10U);
        api->SetDown(false);
        AwaitVms({vmA, vmB});
        collector.reset();
    }
}

TEST_F(CollectorTest, EndsWhileTheHostHangs) {
    Start();
    api->Hold(&FakeState::holdsDomains);
    api->Hold(&FakeState::holdsPools);
    api->Freeze(uuidA);
    collector.reset();
    EXPECT_EQ(log.Count("error"), 0);
}

}  // namespace
}  // namespace Vessad::Libvirt
