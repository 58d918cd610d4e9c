#include "apps/vessad/backends/libvirt/SampleTracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/vessad/log_lines.h"

namespace Vessad::Libvirt {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Key;
using testing::Not;

class SampleTrackerTest : public testing::Test {
  protected:
    // Starts a round of the domains "0", "1" and so on, named "vm-0", "vm-1".
    void StartRound(int count) {
        std::vector<SampledDomain> domains;
        domains.reserve(static_cast<std::size_t>(count));
        for (int number = 0; number < count; ++number) {
            domains.push_back({std::to_string(number), "vm-" + std::to_string(number)});
        }
        tracker.StartRound(domains, now);
    }
    int AddThreads() {
        int added = 0;
        while (tracker.AddThread()) {
            ++added;
        }
        return added;
    }
    void Pass(std::chrono::milliseconds time) {
        now += time;
        tracker.MarkLateCalls(now);
    }
    bool Succeed(int call) { return tracker.EndCall(call, {Statistics{}, false, ""}, now); }
    bool Fail(int call, bool connectionBroke = false) {
        return tracker.EndCall(call, {std::nullopt, connectionBroke, "refused"}, now);
    }
    std::size_t CountInLog(const std::string& text) const {
        std::size_t count = 0;
        const std::string lines = log.GetText();
        for (auto at = lines.find(text); at != std::string::npos; at = lines.find(text, at + 1)) {
            ++count;
        }
        return count;
    }

    VessadTest::LogLines log;
    SampleTracker::TimePoint now{seconds(1000)};
    SampleTracker tracker{{.call = seconds(2), .open = seconds(10)}};
};

TEST_F(SampleTrackerTest, ReturnsTheSamplesOfARound) {
    StartRound(2);
    EXPECT_EQ(AddThreads(), 4);
    const auto first = tracker.StartCall(now);
    EXPECT_EQ(first.uuid, "0");
    EXPECT_EQ(tracker.NextCheck(now), now + seconds(2));
    Pass(seconds(1));
    const auto second = tracker.StartCall(now);
    EXPECT_EQ(tracker.NextCheck(now), now + seconds(1)) << "the timeout of the first";
    EXPECT_FALSE(tracker.HasQueued());
    EXPECT_TRUE(Succeed(first.id));
    EXPECT_TRUE(Succeed(second.id));
    EXPECT_EQ(tracker.NextCheck(now), std::nullopt);
    EXPECT_THAT(tracker.EndRound(), ElementsAre(Key("0"), Key("1")));
    EXPECT_THAT(tracker.EndRound(), IsEmpty());
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(SampleTrackerTest, ReplacesTheThreadOfALateCallAndDropsItsSample) {
    StartRound(1);
    AddThreads();
    const auto call = tracker.StartCall(now);
    Pass(seconds(2));
    EXPECT_EQ(tracker.NextCheck(now), std::nullopt);
    EXPECT_EQ(AddThreads(), 1);
    EXPECT_EQ(CountInLog("warning VM vm-0 (0) has not responded since 20"), 1U);
    tracker.EndRound();
    StartRound(1);
    EXPECT_FALSE(tracker.HasQueued()) << "its call still runs";
    EXPECT_FALSE(Succeed(call.id)) << "another thread took its place";
    EXPECT_EQ(CountInLog("info VM vm-0 (0) responds again, it had not since 20"), 1U);
    EXPECT_THAT(tracker.EndRound(), IsEmpty());
}

TEST_F(SampleTrackerTest, LetsAThreadThatWasNotReplacedGoOn) {
    StartRound(1);
    AddThreads();
    const auto call = tracker.StartCall(now);
    Pass(seconds(2));
    EXPECT_TRUE(Succeed(call.id));
    EXPECT_EQ(AddThreads(), 0);
    EXPECT_THAT(tracker.EndRound(), IsEmpty());
}

// libvirt fails a call after a while when another program's call holds the domain.
TEST_F(SampleTrackerTest, TakesAnErrorForNoResponse) {
    StartRound(1);
    AddThreads();
    const auto late = tracker.StartCall(now);
    Pass(seconds(2));
    Fail(late.id);
    StartRound(1);
    const auto next = tracker.StartCall(now);
    Pass(seconds(0));
    EXPECT_EQ(tracker.NextCheck(now), std::nullopt) << "late at once";
    Succeed(next.id);
    StartRound(1);
    Succeed(tracker.StartCall(now).id);
    EXPECT_EQ(CountInLog("has not responded"), 1U);
    EXPECT_EQ(CountInLog("responds again"), 1U);
}

TEST_F(SampleTrackerTest, LogsThatAnUnresponsiveDomainIsGoneOnceItsCallEnded) {
    StartRound(1);
    AddThreads();
    const auto call = tracker.StartCall(now);
    Pass(seconds(2));
    StartRound(0);
    EXPECT_THAT(log.GetText(), Not(HasSubstr("no longer runs")));
    Fail(call.id);
    StartRound(0);
    EXPECT_THAT(log.GetText(), HasSubstr("info VM vm-0 (0), which had not responded since 20"));
    EXPECT_EQ(CountInLog("no longer runs"), 1U);
    EXPECT_EQ(CountInLog("responds again"), 0U);
}

TEST_F(SampleTrackerTest, StartsAtMostTwelveThreadsAndLogsOnceThatNoneIsAvailable) {
    StartRound(40);
    std::vector<int> calls;
    while (AddThreads() > 0) {
        while (calls.size() < tracker.CountThreads()) {
            calls.push_back(tracker.StartCall(now).id);
        }
        Pass(seconds(2));
    }
    EXPECT_EQ(calls.size(), 12U);
    EXPECT_TRUE(tracker.AreAllThreadsInCalls());
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(tracker.NextCheck(now), std::nullopt);
        tracker.EndRound();
        EXPECT_EQ(CountInLog("error 12 VMs do not respond, no other VM has statistics"), 1U);
        StartRound(40);
    }
    EXPECT_TRUE(Succeed(calls[0]));
    EXPECT_NE(tracker.NextCheck(now), std::nullopt);
    tracker.EndRound();
    StartRound(40);
    tracker.StartCall(now);
    Pass(seconds(2));
    tracker.EndRound();
    EXPECT_EQ(CountInLog("error 12 VMs do not respond"), 2U) << "logged again after a response";
}

TEST_F(SampleTrackerTest, WaitsForConnectionsAsLongAsTheirTimeoutSinceTheLastProgress) {
    StartRound(2);
    AddThreads();
    Pass(seconds(9));
    EXPECT_EQ(tracker.NextCheck(now), now + seconds(1));
    EXPECT_TRUE(Succeed(tracker.StartCall(now).id));
    Pass(seconds(9));
    EXPECT_EQ(tracker.NextCheck(now), now + seconds(1));
    Pass(seconds(1));
    EXPECT_EQ(tracker.NextCheck(now), std::nullopt);
    EXPECT_THAT(tracker.EndRound(), ElementsAre(Key("0")));
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(SampleTrackerTest, CountsTheTimeForConnectionsFromTheEndOfTheLastCallInTime) {
    StartRound(2);
    AddThreads();
    tracker.StartCall(now);
    Pass(seconds(2));
    Pass(seconds(9));
    EXPECT_EQ(tracker.NextCheck(now), now + seconds(1)) << "the call became late 9 s ago";
    SampleTracker slow({.call = std::chrono::hours(1), .open = seconds(10)});
    slow.StartRound({{"0", "vm-0"}}, now);
    EXPECT_TRUE(slow.AddThread());
    slow.StartCall(now);
    now += seconds(11);
    EXPECT_EQ(slow.NextCheck(now), now + seconds(10));
}

TEST_F(SampleTrackerTest, EndsTheRoundOfAHostWhoseConnectionBroke) {
    StartRound(9);
    AddThreads();
    EXPECT_TRUE(Fail(tracker.StartCall(now).id, true));
    EXPECT_EQ(tracker.NextCheck(now), std::nullopt);
    EXPECT_THAT(log.GetText(), IsEmpty());
}

TEST_F(SampleTrackerTest, EndsEverythingWhenItIsStopped) {
    StartRound(9);
    AddThreads();
    const auto call = tracker.StartCall(now);
    Pass(seconds(2));
    tracker.Stop();
    EXPECT_EQ(AddThreads(), 0);
    EXPECT_EQ(tracker.NextCheck(now), std::nullopt);
    EXPECT_FALSE(Succeed(call.id));
    EXPECT_EQ(CountInLog("responds again"), 0U);
    EXPECT_THAT(tracker.EndRound(), IsEmpty());
}

}  // namespace
}  // namespace Vessad::Libvirt
