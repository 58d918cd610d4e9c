// What is served after the host hung for a while.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "apps/vessad/backends/libvirt/Collector.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"
#include "tests/unit/vessad_libvirt/fake_api.h"

namespace Vessad::Libvirt {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

Domain OneCpu(const std::string& uuid, DomainState state) {
    return {uuid, "vm",  state != DomainState::ShutOff,
            true, state, "<domain><name>vm</name><memory>65536</memory><vcpu>1</vcpu></domain>"};
}

class RecoveryTest : public testing::TestWithParam<seconds> {
  protected:
    ~RecoveryTest() override { api->Release(); }
    void Pass(seconds time) { passed = passed.load() + time; }
    void SetDomains(std::vector<Domain> domains) {
        api->With([&](FakeState& state) { state.domains = std::move(domains); });
    }
    void WaitForVms(const std::vector<std::string>& lines) const {
        VessadTest::Await([&] { return VmLines(*collector->Get()) == lines; });
        EXPECT_EQ(VmLines(*collector->Get()), lines);
    }

    VessadTest::TemporaryDirectory directory;
    VessadTest::LogLines log;
    std::shared_ptr<FakeApi> api = std::make_shared<FakeApi>();
    std::atomic<seconds> passed{seconds(0)};
    std::unique_ptr<Collector> collector;
};

// As when libvirtd was stopped and continues, having closed the connections that it left without a reply.
TEST_P(RecoveryTest, TheHostIsServedAnewByTheNextCollection) {
    SetDomains({OneCpu(uuidA, DomainState::Running), OneCpu(uuidB, DomainState::Running)});
    api->SetCpuTime(uuidA, 1);
    api->SetCpuTime(uuidB, 2);
    CollectorOptions options;
    options.interval = milliseconds(10);
    options.readingTimeout = milliseconds(50);
    options.now = [this] { return std::chrono::steady_clock::now() + passed.load(); };
    collector = std::make_unique<Collector>(api, "fake", VmIds(directory.GetPath()), options);
    const std::vector<std::string> before{"1000 vm poweredOn running cpu.used 0=1",
                                          "2000 vm poweredOn running cpu.used 0=2"};
    WaitForVms(before);

    api->Hold(&FakeState::holdsDomains);
    ASSERT_TRUE(log.AwaitLine("cannot be reached"));
    Pass(GetParam());
    EXPECT_EQ(VmLines(*collector->Get()), GetParam() < options.keep ? before : std::vector<std::string>());
    SetDomains({OneCpu(uuidA, DomainState::ShutOff), OneCpu(uuidB, DomainState::Running)});
    api->SetCpuTime(uuidB, 3);
    api->Hold(&FakeState::holdsDomains, false);
    WaitForVms({"1000 vm poweredOff notRunning", "2000 vm poweredOn running cpu.used 0=3"});
    SetDomains({});
    WaitForVms({});
}

INSTANTIATE_TEST_SUITE_P(Hangs, RecoveryTest, testing::Values(seconds(30), seconds(180), seconds(3600)));

}  // namespace
}  // namespace Vessad::Libvirt
