#include "apps/vessad/backends/libvirt/FigureWorkers.h"

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

class FigureWorkersTest : public testing::Test {
  protected:
    ~FigureWorkersTest() override {
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
    std::vector<FigureWorkers::Domain> domains;
    VessadTest::LogLines log;
    FigureWorkers workers{api, "fake", {.patience = milliseconds(100)}};
};

TEST_F(FigureWorkersTest, BringTheFiguresOfEveryDomain) {
    MakeDomains(100);
    const auto figures = workers.Ask(domains);
    ASSERT_THAT(figures, SizeIs(100));
    EXPECT_EQ(figures.at("uuid-42"), CpuTime(42));
    EXPECT_THAT(workers.Ask({}), IsEmpty());
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(FigureWorkersTest, GoOnWithoutADomainThatDoesNotAnswer) {
    MakeDomains(20);
    api->host->Freeze("uuid-3");
    for (int round = 0; round < 3; ++round) {
        const auto figures = workers.Ask(domains);
        EXPECT_THAT(figures, SizeIs(19));
        EXPECT_FALSE(figures.contains("uuid-3"));
    }
    EXPECT_EQ(api->host->CountWaiting(), 1) << "a silent machine is asked once";
    EXPECT_THAT(log.GetText(), HasSubstr("warning machine vm-3 (uuid-3) does not answer since 20"));
    EXPECT_EQ(log.GetText().find("does not answer"), log.GetText().rfind("does not answer")) << "told once";
}

TEST_F(FigureWorkersTest, BringTheFiguresOfADomainThatAnswersAgain) {
    MakeDomains(5);
    api->host->Freeze("uuid-3");
    workers.Ask(domains);
    EXPECT_THAT(log.GetText(), Not(HasSubstr("answers again")));
    api->host->Thaw("uuid-3");
    ASSERT_TRUE(WaitFor([&] { return workers.Ask(domains).contains("uuid-3"); }));
    EXPECT_THAT(log.GetText(), HasSubstr("info machine vm-3 (uuid-3) answers again; it did not since 20"));
}

TEST_F(FigureWorkersTest, TellWhenASilentDomainIsNoMore) {
    MakeDomains(2);
    api->host->Freeze("uuid-0");
    workers.Ask(domains);
    api->host->Refuse("uuid-0");
    api->host->Thaw("uuid-0");
    ASSERT_TRUE(WaitFor([&] { return api->host->CountWaiting() == 0; }));
    ASSERT_TRUE(WaitFor([&] {
        workers.Ask({domains[1]});
        return log.GetText().find("does not run any more") != std::string::npos;
    }));
    EXPECT_THAT(log.GetText(), HasSubstr("info machine vm-0 (uuid-0), which did not answer since 20"));
    EXPECT_THAT(log.GetText(), Not(HasSubstr("answers again")));
}

// libvirt gives up a call after a while when another program's call holds the domain.
TEST_F(FigureWorkersTest, DoNotTakeAnErrorForAnAnswer) {
    MakeDomains(2);
    api->host->Freeze("uuid-0");
    workers.Ask(domains);
    api->host->Refuse("uuid-0");
    api->host->Thaw("uuid-0");
    ASSERT_TRUE(WaitFor([&] { return api->host->CountWaiting() == 0; }));
    workers.Ask(domains);
    EXPECT_THAT(log.GetText(), Not(HasSubstr("answers again")));
    EXPECT_EQ(log.GetText().find("does not answer"), log.GetText().rfind("does not answer"));
}

TEST_F(FigureWorkersTest, LeaveOutADomainThatRefuses) {
    MakeDomains(3);
    api->host->Refuse("uuid-1");
    EXPECT_THAT(workers.Ask(domains), SizeIs(2));
    EXPECT_THAT(log.GetText(), Not(HasSubstr("warning")));
}

TEST_F(FigureWorkersTest, BringFiguresWhileSeveralDomainsAreSilent) {
    MakeDomains(40);
    for (int index = 0; index < 6; ++index) {
        api->host->Freeze("uuid-" + std::to_string(index));
    }
    EXPECT_THAT(workers.Ask(domains), SizeIs(34));
    EXPECT_THAT(workers.Ask(domains), SizeIs(34));
    EXPECT_EQ(api->host->CountWaiting(), 6);
}

TEST_F(FigureWorkersTest, HoldOnlySoManyOfTheHostsThreads) {
    MakeDomains(40);
    for (int index = 0; index < 20; ++index) {
        api->host->Freeze("uuid-" + std::to_string(index));
    }
    workers.Ask(domains);
    workers.Ask(domains);
    EXPECT_EQ(api->host->CountWaiting(), 12);
    EXPECT_THAT(log.GetText(), HasSubstr("error 12 machines do not answer; no more can be asked"));

    for (int index = 0; index < 20; ++index) {
        api->host->Thaw("uuid-" + std::to_string(index));
    }
    EXPECT_TRUE(WaitFor([&] { return workers.Ask(domains).size() == 40; }));
}

TEST_F(FigureWorkersTest, BringNothingFromAHostThatIsDownAndEverythingOnceItIsBack) {
    MakeDomains(10);
    EXPECT_THAT(workers.Ask(domains), SizeIs(10));
    api->host->SetDown(true);
    EXPECT_THAT(workers.Ask(domains), IsEmpty());
    EXPECT_THAT(log.GetText(), Not(HasSubstr("does not answer")));
    api->host->SetDown(false);
    EXPECT_TRUE(WaitFor([&] { return workers.Ask(domains).size() == 10; }));
}

TEST_F(FigureWorkersTest, WaitForAHostThatIsSlowToAcceptConnectionsLongerThanForADomain) {
    MakeDomains(10);
    FigureWorkers own(api, "fake", {.patience = milliseconds(20), .openWait = hours(1)});
    api->host->HoldOpening(true);
    auto figures = std::async(std::launch::async, [&] { return own.Ask(domains); });
    EXPECT_EQ(figures.wait_for(milliseconds(200)), std::future_status::timeout);
    api->host->HoldOpening(false);
    EXPECT_THAT(figures.get(), SizeIs(10));
    EXPECT_THAT(log.GetText(), IsEmpty());
}

// Those that take the places of threads that silent domains hold up need connections of their own.
TEST_F(FigureWorkersTest, AskTheOthersEvenIfTheHostIsSlowToAcceptTheirReplacements) {
    MakeDomains(40);
    FigureWorkers own(api, "fake", {.patience = milliseconds(100), .openWait = hours(1)});
    EXPECT_THAT(own.Ask(domains), SizeIs(40));
    for (int index = 0; index < 4; ++index) {
        api->host->Freeze("uuid-" + std::to_string(index));
    }
    api->host->HoldOpening(true);
    auto figures = std::async(std::launch::async, [&] { return own.Ask(domains); });
    EXPECT_EQ(figures.wait_for(milliseconds(500)), std::future_status::timeout);
    api->host->HoldOpening(false);
    EXPECT_THAT(figures.get(), SizeIs(36));
    EXPECT_THAT(log.GetText(), Not(HasSubstr("no more can be asked")));
}

TEST_F(FigureWorkersTest, BlameNoDomainForAHostThatAcceptsNoConnection) {
    MakeDomains(10);
    FigureWorkers own(api, "fake", {.patience = hours(1), .openWait = milliseconds(50)});
    api->host->HoldOpening(true);
    EXPECT_THAT(own.Ask(domains), IsEmpty());
    EXPECT_THAT(log.GetText(), IsEmpty());
    api->host->HoldOpening(false);
    EXPECT_TRUE(WaitFor([&] { return own.Ask(domains).size() == 10; }));
}

TEST_F(FigureWorkersTest, EndTheirQuestionWhenTheyAreStopped) {
    MakeDomains(3);
    FigureWorkers own(api, "fake", {.patience = hours(1)});
    api->host->Freeze("uuid-0");
    auto figures = std::async(std::launch::async, [&] { return own.Ask(domains); });
    ASSERT_TRUE(WaitFor([&] { return api->host->CountWaiting() == 1; }));
    own.Stop();
    EXPECT_EQ(figures.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_THAT(own.Ask(domains), IsEmpty());
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(FigureWorkersTest, AreLeftBehindWhenTheyWaitForADomain) {
    MakeDomains(2);
    {
        FigureWorkers own(api, "fake", {.patience = milliseconds(20)});
        api->host->Freeze("uuid-0");
        own.Ask(domains);
    }
    EXPECT_EQ(api->host->CountWaiting(), 1);
    api->host->Thaw("uuid-0");
    EXPECT_TRUE(WaitFor([&] { return api->host->CountWaiting() == 0; }));
}

}  // namespace
}  // namespace Vessad::Libvirt
