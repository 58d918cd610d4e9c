#include "apps/vessad/LogLimit.h"

#include <gtest/gtest.h>

#include "tests/unit/vessad/log_lines.h"

namespace Vessad {
namespace {

using std::chrono::seconds;

TEST(LogLimit, AdmitsTwentyLinesOfAKindInAMinuteAndThenSaysHowManyMoreThereWere) {
    LogLimit::Clock::time_point now{seconds(1000)};
    LogLimit limit([&] { return now; });
    const VessadTest::LogLines log;
    const auto admitted = [&](LogLimit::Kind kind, int lines) {
        int count = 0;
        for (; lines > 0; --lines) {
            count += limit.Admit(kind) ? 1 : 0;
        }
        return count;
    };
    EXPECT_EQ(admitted(LogLimit::Kind::Login, 500), 20);
    EXPECT_EQ(admitted(LogLimit::Kind::Preamble, 20), 20) << "each kind has its own";
    now += seconds(59);
    limit.Flush();
    EXPECT_EQ(admitted(LogLimit::Kind::Login, 1), 0);
    EXPECT_EQ(log.GetText(), "");
    now += seconds(1);
    limit.Flush();
    limit.Flush();
    const std::string first = "warning Suppressed 481 more lines about rejected logins within a minute\n";
    EXPECT_EQ(log.GetText(), first);
    EXPECT_EQ(admitted(LogLimit::Kind::Login, 22), 20);
    now += seconds(60);
    EXPECT_EQ(admitted(LogLimit::Kind::Accept, 1), 1) << "which flushes";
    EXPECT_EQ(log.GetText(),
              first + "warning Suppressed 2 more lines about rejected logins within a minute\n");
}

}  // namespace
}  // namespace Vessad
