#include "apps/vessad/backends/libvirt/SampleTracker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <sstream>
#include <string_view>

#include "tests/support/files.h"

namespace Vessad::Libvirt {
namespace {

using std::chrono::seconds;

// Follows a script of words on a tracker, and returns what that returns and logs, in order. The domains are
// "0", "1" and so on, named "vm-0", "vm-1", and calls have ids from 1:
//   "round N" starts one of the first N domains, "threads" adds threads: "+COUNT";
//   "call": the domain's UUID; "succeed ID", "fail ID", "break ID": whether its thread "goes on" or "ends";
//   "pass S": so many seconds; "check": the seconds to the next check, or "over";
//   "end": the domains that the round has samples of; "queued", "in-calls", "stop".
std::string Follow(const std::string& script,
                   SampleTimeouts timeouts = {.call = seconds(2), .log = seconds(2), .open = seconds(10)}) {
    SampleTracker::TimePoint now{seconds(1000)};
    SampleTracker tracker(timeouts);
    std::ostringstream transcript;
    std::istringstream words(script);
    const auto number = [&](auto value) {
        words >> value;
        return value;
    };
    const auto end = [&](SampleResult result) {
        transcript << (tracker.EndCall(number(0), std::move(result), now) ? "goes on, " : "ends, ");
    };
    for (std::string word; words >> word;) {
        if (word == "round") {
            std::vector<SampledDomain> domains;
            for (int index = 0, count = number(0); index < count; ++index) {
                domains.push_back({std::to_string(index), "vm-" + std::to_string(index)});
            }
            tracker.StartRound(domains, now);
        } else if (word == "threads") {
            int added = 0;
            for (; tracker.AddThread(); ++added) {
            }
            transcript << '+' << added << ", ";
        } else if (word == "call") {
            transcript << tracker.StartCall(now).uuid << ", ";
        } else if (word == "succeed") {
            end({Statistics{}, false, ""});
        } else if (word == "fail" || word == "break") {
            end({std::nullopt, word == "break", "refused"});
        } else if (word == "pass") {
            now += std::chrono::milliseconds(std::lround(number(0.0) * 1000));
            tracker.MarkLateCalls(now);
        } else if (word == "check") {
            const auto next = tracker.NextCheck(now);
            if (next) {
                transcript << std::chrono::duration<double>(*next - now).count() << " s, ";
            } else {
                transcript << "over, ";
            }
        } else if (word == "end") {
            for (const auto& sample : tracker.EndRound()) {
                transcript << "sample of " << sample.first << ", ";
            }
        } else if (word == "queued") {
            transcript << (tracker.HasQueued() ? "queued, " : "not queued, ");
        } else if (word == "in-calls") {
            transcript << (tracker.AreAllThreadsInCalls() ? "all in calls, " : "some ready, ");
        } else {
            tracker.Stop();
        }
        for (const SampleTracker::LogLine& line : tracker.TakeLog()) {
            const auto level = spdlog::level::to_string_view(line.level);
            transcript << std::string_view(level.data(), level.size()) << ' ' << line.text << '\n';
        }
    }
    static const std::regex time(R"(\d+-\d\d-\d\d \d\d:\d\d:\d\d)");
    return std::regex_replace(transcript.str(), time, "TIME");
}

std::string Late(int number) {
    const std::string text = std::to_string(number);
    return "warning VM vm-" + text + " (" + text +
           ") has not responded since TIME, it has no statistics until it does\n";
}
const std::string failed = "debug VM vm-0 (0) has no statistics: refused\n";
const std::string again = "info VM vm-0 (0) responds again, it had not since TIME\n";

TEST(SampleTracker, FollowsScripts) {
    for (const auto& [script, transcript] : TestSupport::ReadCases(LIBVIRT_TEST_CASES "/sampling.txt")) {
        EXPECT_EQ(Follow(script), transcript) << script;
    }
}

// As long as libvirt waits for a guest to let go of a device.
TEST(SampleTracker, LogsNothingOfADomainThatRespondsBeforeItsTime) {
    const SampleTimeouts timeouts{.log = seconds(10)};
    const std::string late = "round 1 threads call pass 5 ";
    EXPECT_EQ(Follow(late + "pass 4.9 succeed 1 round 1 call succeed 2 end", timeouts),
              "+4, 0, goes on, 0, goes on, sample of 0, ");
    EXPECT_EQ(Follow(late + "fail 1 round 0 round 1 call pass 9 succeed 2", timeouts),
              "+4, 0, goes on, " + failed + "0, goes on, ");
    EXPECT_EQ(Follow(late + "pass 5 pass 1 round 1 pass 5 succeed 1", timeouts),
              "+4, 0, " + Late(0) + "goes on, " + again);
}

TEST(SampleTracker, StartsAtMostTwelveThreadsAndLogsOnceThatNoneIsAvailable) {
    std::string script = "round 40 ";
    std::string expected;
    for (int first = 0; first < 12; first += 4) {
        script += "threads call call call call pass 2 ";
        expected += "+4, ";
        for (int index = first; index < first + 4; ++index) {
            expected += std::to_string(index) + ", ";
        }
        expected += Late(first) + Late(first + 1) + Late(first + 2) + Late(first + 3);
    }
    const std::string shortage =
        "error 12 VMs do not respond, no other VM has statistics until one of them does\n";
    EXPECT_EQ(Follow(script + "threads in-calls check end round 40 check end round 40 succeed 1 check end "
                              "round 40 call pass 2 end"),
              expected + "+0, all in calls, over, " + shortage + "over, goes on, " + again + "2 s, 0, " +
                  Late(0) + shortage);
}

TEST(SampleTracker, EndsTheRoundWhenTheTimeToOpenConnectionsIsOverAlsoDuringCalls) {
    EXPECT_EQ(
        Follow("round 1 threads call pass 11 check", {.call = std::chrono::hours(1), .open = seconds(10)}),
        "+4, 0, 10 s, ");
}

}  // namespace
}  // namespace Vessad::Libvirt
