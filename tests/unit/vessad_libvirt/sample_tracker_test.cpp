#include "apps/vessad/backends/libvirt/SampleTracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "tests/unit/vessad/log_lines.h"

namespace Vessad::Libvirt {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;

std::string Late(int number) {
    const std::string text = std::to_string(number);
    return "warning VM vm-" + text + " (" + text +
           ") has not responded since TIME, it has no statistics until it does\n";
}
const std::string again = "info VM vm-0 (0) responds again, it had not since TIME\n";
const std::string failed = "debug VM vm-0 (0) has no statistics: refused\n";

class SampleTrackerTest : public testing::Test {
  protected:
    // Starts a round of the domains "0", "1" and so on, named "vm-0", "vm-1"; returns how many threads it
    // adds.
    int StartRound(int count) {
        std::vector<SampledDomain> domains;
        for (int number = 0; number < count; ++number) {
            domains.push_back({std::to_string(number), "vm-" + std::to_string(number)});
        }
        tracker.StartRound(domains, now);
        return AddThreads();
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
    // Returns the id of a call that starts now.
    int Call() { return tracker.StartCall(now).id; }
    bool Succeed(int call) { return tracker.EndCall(call, {Statistics{}, false, ""}, now); }
    bool Fail(int call, bool connectionBroke = false) {
        return tracker.EndCall(call, {std::nullopt, connectionBroke, "refused"}, now);
    }
    // Returns the time until the next check, or nothing when the round is over.
    std::optional<SampleTracker::TimePoint::duration> NextCheck() {
        const auto next = tracker.NextCheck(now);
        return next ? std::optional(*next - now) : std::nullopt;
    }
    std::string Log() const {
        static const std::regex time(R"(\d+-\d\d-\d\d \d\d:\d\d:\d\d)");
        return std::regex_replace(log.GetText(), time, "TIME");
    }

    VessadTest::LogLines log;
    SampleTracker::TimePoint now{seconds(1000)};
    SampleTracker tracker{{.call = seconds(2), .open = seconds(10)}};
};

TEST_F(SampleTrackerTest, ReturnsTheSamplesOfARound) {
    EXPECT_EQ(StartRound(2), 4);
    const auto first = tracker.StartCall(now);
    EXPECT_EQ(first.uuid, "0");
    EXPECT_EQ(NextCheck(), seconds(2));
    Pass(seconds(1));
    const int second = Call();
    EXPECT_EQ(NextCheck(), seconds(1)) << "the timeout of the first";
    EXPECT_FALSE(tracker.HasQueued());
    EXPECT_TRUE(Succeed(first.id));
    EXPECT_TRUE(Succeed(second));
    EXPECT_EQ(NextCheck(), std::nullopt);
    EXPECT_THAT(tracker.EndRound(), ElementsAre(Key("0"), Key("1")));
    EXPECT_THAT(tracker.EndRound(), IsEmpty());
    EXPECT_EQ(Log(), "");
}

TEST_F(SampleTrackerTest, ReplacesTheThreadOfALateCallAndDropsItsSample) {
    StartRound(1);
    const int call = Call();
    Pass(seconds(2));
    EXPECT_EQ(NextCheck(), std::nullopt);
    EXPECT_EQ(AddThreads(), 1);
    EXPECT_EQ(Log(), Late(0));
    tracker.EndRound();
    StartRound(1);
    EXPECT_FALSE(tracker.HasQueued()) << "its call still runs";
    EXPECT_FALSE(Succeed(call)) << "another thread took its place";
    EXPECT_EQ(Log(), Late(0) + again);
    EXPECT_THAT(tracker.EndRound(), IsEmpty());
}

// libvirt fails a call after a while when another program's call holds the domain.
TEST_F(SampleTrackerTest, TakesAnErrorForNoResponse) {
    StartRound(1);
    const int late = Call();
    Pass(seconds(2));
    Fail(late);
    StartRound(1);
    const int next = Call();
    EXPECT_EQ(NextCheck(), milliseconds(200)) << "a shorter timeout";
    Pass(milliseconds(200));
    EXPECT_EQ(NextCheck(), std::nullopt);
    EXPECT_TRUE(Fail(next)) << "its thread is not replaced";
    EXPECT_EQ(AddThreads(), 0);
    StartRound(1);
    Succeed(Call());
    EXPECT_THAT(tracker.EndRound(), ElementsAre(Key("0")));
    EXPECT_EQ(Log(), Late(0) + failed + failed + again);
}

TEST_F(SampleTrackerTest, LogsThatAnUnresponsiveDomainIsGoneOnceItsCallEnded) {
    StartRound(1);
    const int call = Call();
    Pass(seconds(2));
    StartRound(0);
    EXPECT_EQ(Log(), Late(0));
    Fail(call);
    StartRound(0);
    EXPECT_EQ(Log(),
              Late(0) + failed + "info VM vm-0 (0), which had not responded since TIME, no longer runs\n");
}

TEST_F(SampleTrackerTest, StartsAtMostTwelveThreadsAndLogsOnceThatNoneIsAvailable) {
    std::string expected;
    std::vector<int> calls;
    for (int added = StartRound(40); added > 0; added = AddThreads()) {
        for (; added > 0; --added) {
            expected += Late(static_cast<int>(calls.size()));
            calls.push_back(Call());
        }
        Pass(seconds(2));
    }
    EXPECT_EQ(calls.size(), 12U);
    EXPECT_TRUE(tracker.AreAllThreadsInCalls());
    const std::string shortage =
        "error 12 VMs do not respond, no other VM has statistics until one of them does\n";
    expected += shortage;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(NextCheck(), std::nullopt);
        tracker.EndRound();
        EXPECT_EQ(Log(), expected);
        StartRound(40);
    }
    EXPECT_TRUE(Succeed(calls[0]));
    EXPECT_NE(NextCheck(), std::nullopt);
    tracker.EndRound();
    StartRound(40);
    Call();
    Pass(seconds(2));
    tracker.EndRound();
    EXPECT_EQ(Log(), expected + again + Late(0) + shortage) << "logged again after a response";
}

TEST_F(SampleTrackerTest, WaitsForConnectionsAsLongAsTheirTimeoutSinceTheLastProgress) {
    StartRound(2);
    Pass(seconds(9));
    EXPECT_EQ(NextCheck(), seconds(1));
    EXPECT_TRUE(Succeed(Call()));
    Pass(seconds(9));
    EXPECT_EQ(NextCheck(), seconds(1));
    Pass(seconds(1));
    EXPECT_EQ(NextCheck(), std::nullopt);
    EXPECT_THAT(tracker.EndRound(), ElementsAre(Key("0")));
    EXPECT_EQ(Log(), "");
}

TEST_F(SampleTrackerTest, CountsTheTimeForConnectionsFromTheEndOfTheLastCallInTime) {
    StartRound(2);
    Call();
    Pass(seconds(2));
    Pass(seconds(9));
    EXPECT_EQ(NextCheck(), seconds(1)) << "the call became late 9 s ago";
    SampleTracker slow({.call = std::chrono::hours(1), .open = seconds(10)});
    slow.StartRound({{"0", "vm-0"}}, now);
    EXPECT_TRUE(slow.AddThread());
    slow.StartCall(now);
    now += seconds(11);
    EXPECT_EQ(slow.NextCheck(now), now + seconds(10));
}

TEST_F(SampleTrackerTest, EndsTheRoundOfAHostWhoseConnectionBroke) {
    StartRound(9);
    EXPECT_TRUE(Fail(Call(), true));
    EXPECT_EQ(NextCheck(), std::nullopt);
    EXPECT_EQ(Log(), "");
}

TEST_F(SampleTrackerTest, EndsEverythingWhenItIsStopped) {
    StartRound(9);
    const int call = Call();
    Pass(seconds(2));
    tracker.Stop();
    EXPECT_EQ(AddThreads(), 0);
    EXPECT_EQ(NextCheck(), std::nullopt);
    EXPECT_FALSE(Succeed(call));
    EXPECT_EQ(Log(), Late(0));
    EXPECT_THAT(tracker.EndRound(), IsEmpty());
}

}  // namespace
}  // namespace Vessad::Libvirt
