#include "apps/vessad/backends/libvirt/SampleWorkers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad_libvirt/fake_api.h"

namespace Vessad::Libvirt {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::IsEmpty;
using testing::SizeIs;
using VessadTest::Await;

class SampleWorkersTest : public testing::Test {
  protected:
    ~SampleWorkersTest() override { api->Release(); }

    // The domains "0", "1" and so on, whose number is their CPU time.
    void MakeDomains(int count) {
        for (int index = 0; index < count; ++index) {
            const std::string number = std::to_string(index);
            domains.push_back({number, "vm-" + number});
            api->SetCpuTime(number, static_cast<std::uint64_t>(index));
        }
    }
    bool AwaitSamples(std::size_t count) {
        return Await([&] { return workers->Sample(domains).size() == count; });
    }
    void StartWith(SampleWorkers::Timeouts timeouts) {
        workers = std::make_unique<SampleWorkers>(api, "fake", timeouts);
    }
    auto SampleInBackground() {
        return std::async(std::launch::async, [&] { return workers->Sample(domains); });
    }

    std::shared_ptr<FakeApi> api = std::make_shared<FakeApi>();
    std::vector<SampleWorkers::Domain> domains;
    VessadTest::LogLines log;
    std::unique_ptr<SampleWorkers> workers =
        std::make_unique<SampleWorkers>(api, "fake", SampleWorkers::Timeouts{.call = milliseconds(100)});
};

TEST_F(SampleWorkersTest, SampleEveryDomainOfAHostThatIsUp) {
    MakeDomains(100);
    const auto samples = workers->Sample(domains);
    ASSERT_THAT(samples, SizeIs(100));
    EXPECT_EQ(samples.at("42"), (Statistics{{"vcpu.0.time", std::uint64_t{42000000}}}));
    EXPECT_THAT(workers->Sample({}), IsEmpty());
    EXPECT_THAT(log.GetText(), IsEmpty());
    api->SetDown(true);
    EXPECT_THAT(workers->Sample(domains), IsEmpty());
    EXPECT_EQ(log.Count("has not responded"), 0);
    api->SetDown(false);
    EXPECT_THAT(workers->Sample(domains), SizeIs(100));
    api->SetDown(false);  // which breaks the connections
    EXPECT_THAT(workers->Sample(domains), SizeIs(100));
}

TEST_F(SampleWorkersTest, SampleTheOthersWhenAConnectionBreaksInACall) {
    MakeDomains(3);
    StartWith({.call = hours(1)});
    api->Freeze("0");
    auto samples = SampleInBackground();
    ASSERT_TRUE(Await([&] {
        return api->With([](const FakeState& state) { return state.waiting == 1 && state.sampled == 2; });
    }));
    api->SetDown(false);  // which breaks the connections
    api->Release();
    EXPECT_THAT(samples.get(), SizeIs(2));
    EXPECT_THAT(workers->Sample(domains), SizeIs(3));
}

TEST_F(SampleWorkersTest, SampleTheOthersWhileADomainDoesNotRespondOrFails) {
    MakeDomains(20);
    api->Freeze("3");
    api->With([](FakeState& state) { state.refused.insert("4"); });
    for (int round = 0; round < 3; ++round) {
        const auto samples = workers->Sample(domains);
        EXPECT_THAT(samples, SizeIs(18));
        EXPECT_FALSE(samples.contains("3") || samples.contains("4"));
    }
    EXPECT_EQ(api->CountWaiting(), 1) << "an unresponsive VM is sampled once";
    EXPECT_EQ(log.Count("warning VM vm-4"), 0);
    api->Release();
    EXPECT_TRUE(AwaitSamples(19));
}

TEST_F(SampleWorkersTest, WaitForConnectionsLongerThanForADomain) {
    MakeDomains(40);
    StartWith({.call = milliseconds(100), .open = hours(1)});
    const auto expectSamplesOnceOpened = [&](std::size_t count) {
        api->Hold(&FakeState::holdsOpening);
        auto samples = SampleInBackground();
        EXPECT_EQ(samples.wait_for(milliseconds(500)), std::future_status::timeout);
        api->Hold(&FakeState::holdsOpening, false);
        EXPECT_THAT(samples.get(), SizeIs(count));
    };
    expectSamplesOnceOpened(40);
    EXPECT_THAT(log.GetText(), IsEmpty());
    for (const char* const domain : {"0", "1", "2", "3"}) {
        api->Freeze(domain);
    }
    expectSamplesOnceOpened(36);
    EXPECT_EQ(log.Count("no other VM has statistics"), 0);
}

TEST_F(SampleWorkersTest, ReturnAtOnceWhenTheyAreStopped) {
    MakeDomains(3);
    StartWith({.call = hours(1)});
    api->Freeze("0");
    auto samples = SampleInBackground();
    ASSERT_TRUE(Await([&] { return api->CountWaiting() == 1; }));
    workers->Stop();
    EXPECT_EQ(samples.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_THAT(workers->Sample(domains), IsEmpty());
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(SampleWorkersTest, AbandonAThreadThatWaitsForADomain) {
    MakeDomains(2);
    api->Freeze("0");
    workers->Sample(domains);
    workers.reset();
    EXPECT_EQ(api->CountWaiting(), 1);
    api->Release();
    EXPECT_TRUE(Await([&] { return api->CountWaiting() == 0; }));
}

}  // namespace
}  // namespace Vessad::Libvirt
