#include "apps/vessad/backends/libvirt/SampleWorkers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad_libvirt/fake_api.h"
#include "tests/unit/vessad_libvirt/wait_for.h"

namespace Vessad::Libvirt {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class SampleWorkersTest : public testing::Test {
  protected:
    ~SampleWorkersTest() override {
        api->host->HoldOpening(false);
        for (const auto& domain : domains) {
            api->host->Thaw(domain.uuid);
        }
    }

    void MakeDomains(int count) {
        for (int index = 0; index < count; ++index) {
            const std::string number = std::to_string(index);
            domains.push_back({"uuid-" + number, "vm-" + number});
            api->host->SetStatistics("uuid-" + number, CpuTime(static_cast<std::uint64_t>(index)));
        }
    }

    std::shared_ptr<FakeApi> api = std::make_shared<FakeApi>();
    std::vector<SampleWorkers::Domain> domains;
    VessadTest::LogLines log;
    SampleWorkers workers{api, "fake", {.call = milliseconds(100)}};
};

TEST_F(SampleWorkersTest, BringTheFiguresOfEveryDomain) {
    MakeDomains(100);
    const auto figures = workers.Sample(domains);
    ASSERT_THAT(figures, SizeIs(100));
    EXPECT_EQ(figures.at("uuid-42"), CpuTime(42));
    EXPECT_THAT(workers.Sample({}), IsEmpty());
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(SampleWorkersTest, GoOnWithoutADomainThatDoesNotAnswer) {
    MakeDomains(20);
    api->host->Freeze("uuid-3");
    for (int round = 0; round < 3; ++round) {
        const auto figures = workers.Sample(domains);
        EXPECT_THAT(figures, SizeIs(19));
        EXPECT_FALSE(figures.contains("uuid-3"));
    }
    EXPECT_EQ(api->host->CountWaiting(), 1) << "a silent machine is asked once";
    EXPECT_THAT(log.GetText(), HasSubstr("warning VM vm-3 (uuid-3) has not responded since 20"));
    EXPECT_EQ(log.GetText().find("has not responded"), log.GetText().rfind("has not responded"))
        << "told once";
}

TEST_F(SampleWorkersTest, BringTheFiguresOfADomainThatAnswersAgain) {
    MakeDomains(5);
    api->host->Freeze("uuid-3");
    workers.Sample(domains);
    EXPECT_THAT(log.GetText(), Not(HasSubstr("responds again")));
    api->host->Thaw("uuid-3");
    ASSERT_TRUE(WaitFor([&] { return workers.Sample(domains).contains("uuid-3"); }));
    EXPECT_THAT(log.GetText(), HasSubstr("info VM vm-3 (uuid-3) responds again, it had not since 20"));
}

TEST_F(SampleWorkersTest, TellWhenASilentDomainIsNoMore) {
    MakeDomains(2);
    api->host->Freeze("uuid-0");
    workers.Sample(domains);
    api->host->Refuse("uuid-0");
    api->host->Thaw("uuid-0");
    ASSERT_TRUE(WaitFor([&] { return api->host->CountWaiting() == 0; }));
    ASSERT_TRUE(WaitFor([&] {
        workers.Sample({domains[1]});
        return log.GetText().find("no longer runs") != std::string::npos;
    }));
    EXPECT_THAT(log.GetText(), HasSubstr("info VM vm-0 (uuid-0), which had not responded since 20"));
    EXPECT_THAT(log.GetText(), Not(HasSubstr("responds again")));
}

// libvirt gives up a call after a while when another program's call holds the domain.
TEST_F(SampleWorkersTest, DoNotTakeAnErrorForAnAnswer) {
    MakeDomains(2);
    api->host->Freeze("uuid-0");
    workers.Sample(domains);
    api->host->Refuse("uuid-0");
    api->host->Thaw("uuid-0");
    ASSERT_TRUE(WaitFor([&] { return api->host->CountWaiting() == 0; }));
    workers.Sample(domains);
    EXPECT_THAT(log.GetText(), Not(HasSubstr("responds again")));
    EXPECT_EQ(log.GetText().find("has not responded"), log.GetText().rfind("has not responded"));
}

TEST_F(SampleWorkersTest, LeaveOutADomainThatRefuses) {
    MakeDomains(3);
    api->host->Refuse("uuid-1");
    EXPECT_THAT(workers.Sample(domains), SizeIs(2));
    EXPECT_THAT(log.GetText(), Not(HasSubstr("warning")));
}

TEST_F(SampleWorkersTest, BringFiguresWhileSeveralDomainsAreSilent) {
    MakeDomains(40);
    for (int index = 0; index < 6; ++index) {
        api->host->Freeze("uuid-" + std::to_string(index));
    }
    EXPECT_THAT(workers.Sample(domains), SizeIs(34));
    EXPECT_THAT(workers.Sample(domains), SizeIs(34));
    EXPECT_EQ(api->host->CountWaiting(), 6);
}

TEST_F(SampleWorkersTest, HoldOnlySoManyOfTheHostsThreads) {
    MakeDomains(40);
    for (int index = 0; index < 20; ++index) {
        api->host->Freeze("uuid-" + std::to_string(index));
    }
    workers.Sample(domains);
    workers.Sample(domains);
    EXPECT_EQ(api->host->CountWaiting(), 12);
    EXPECT_THAT(log.GetText(), HasSubstr("error 12 VMs do not respond, no other VM has statistics"));

    for (int index = 0; index < 20; ++index) {
        api->host->Thaw("uuid-" + std::to_string(index));
    }
    EXPECT_TRUE(WaitFor([&] { return workers.Sample(domains).size() == 40; }));
}

TEST_F(SampleWorkersTest, BringNothingFromAHostThatIsDownAndEverythingOnceItIsBack) {
    MakeDomains(10);
    EXPECT_THAT(workers.Sample(domains), SizeIs(10));
    api->host->SetDown(true);
    EXPECT_THAT(workers.Sample(domains), IsEmpty());
    EXPECT_THAT(log.GetText(), Not(HasSubstr("has not responded")));
    api->host->SetDown(false);
    EXPECT_TRUE(WaitFor([&] { return workers.Sample(domains).size() == 10; }));
}

TEST_F(SampleWorkersTest, WaitForAHostThatIsSlowToAcceptConnectionsLongerThanForADomain) {
    MakeDomains(10);
    SampleWorkers own(api, "fake", {.call = milliseconds(20), .open = hours(1)});
    api->host->HoldOpening(true);
    auto figures = std::async(std::launch::async, [&] { return own.Sample(domains); });
    EXPECT_EQ(figures.wait_for(milliseconds(200)), std::future_status::timeout);
    api->host->HoldOpening(false);
    EXPECT_THAT(figures.get(), SizeIs(10));
    EXPECT_THAT(log.GetText(), IsEmpty());
}

// Those that take the places of threads that silent domains hold up need connections of their own.
TEST_F(SampleWorkersTest, AskTheOthersEvenIfTheHostIsSlowToAcceptTheirReplacements) {
    MakeDomains(40);
    SampleWorkers own(api, "fake", {.call = milliseconds(100), .open = hours(1)});
    EXPECT_THAT(own.Sample(domains), SizeIs(40));
    for (int index = 0; index < 4; ++index) {
        api->host->Freeze("uuid-" + std::to_string(index));
    }
    api->host->HoldOpening(true);
    auto figures = std::async(std::launch::async, [&] { return own.Sample(domains); });
    EXPECT_EQ(figures.wait_for(milliseconds(500)), std::future_status::timeout);
    api->host->HoldOpening(false);
    EXPECT_THAT(figures.get(), SizeIs(36));
    EXPECT_THAT(log.GetText(), Not(HasSubstr("no other VM has statistics")));
}

TEST_F(SampleWorkersTest, BlameNoDomainForAHostThatAcceptsNoConnection) {
    MakeDomains(10);
    SampleWorkers own(api, "fake", {.call = hours(1), .open = milliseconds(50)});
    api->host->HoldOpening(true);
    EXPECT_THAT(own.Sample(domains), IsEmpty());
    EXPECT_THAT(log.GetText(), IsEmpty());
    api->host->HoldOpening(false);
    EXPECT_TRUE(WaitFor([&] { return own.Sample(domains).size() == 10; }));
}

TEST_F(SampleWorkersTest, EndTheirQuestionWhenTheyAreStopped) {
    MakeDomains(3);
    SampleWorkers own(api, "fake", {.call = hours(1)});
    api->host->Freeze("uuid-0");
    auto figures = std::async(std::launch::async, [&] { return own.Sample(domains); });
    ASSERT_TRUE(WaitFor([&] { return api->host->CountWaiting() == 1; }));
    own.Stop();
    EXPECT_EQ(figures.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_THAT(own.Sample(domains), IsEmpty());
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(SampleWorkersTest, AreLeftBehindWhenTheyWaitForADomain) {
    MakeDomains(2);
    {
        SampleWorkers own(api, "fake", {.call = milliseconds(20)});
        api->host->Freeze("uuid-0");
        own.Sample(domains);
    }
    EXPECT_EQ(api->host->CountWaiting(), 1);
    api->host->Thaw("uuid-0");
    EXPECT_TRUE(WaitFor([&] { return api->host->CountWaiting() == 0; }));
}

}  // namespace
}  // namespace Vessad::Libvirt
