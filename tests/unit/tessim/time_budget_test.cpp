#include "runtime/tessim/time_budget.h"

#include <gtest/gtest.h>

namespace Tessim {
namespace {

using namespace std::chrono_literals;

void ExpectDeadlineIn(Clock::duration limit, Clock::time_point start) {
    const auto deadline = TimeBudget::Deadline();
    EXPECT_GE(deadline, start + limit);
    EXPECT_LE(deadline, Clock::now() + limit);
}

TEST(TimeBudget, EndsOnceForEverythingInsideAndIsFiveSecondsOutside) {
    ExpectDeadlineIn(5s, Clock::now());
    {
        const auto start = Clock::now();
        const TimeBudget budget(1h);
        ExpectDeadlineIn(1h, start);
        EXPECT_EQ(TimeBudget::Deadline(), TimeBudget::Deadline());
    }
    ExpectDeadlineIn(5s, Clock::now());
}

TEST(TimeBudget, CountsTheEarliestEndWhenNested) {
    const TimeBudget outer(1h);
    const auto outerEnd = TimeBudget::Deadline();
    {
        const TimeBudget endless(Clock::duration::max());
        EXPECT_EQ(TimeBudget::Deadline(), outerEnd);
        const TimeBudget longer(2h);
        EXPECT_EQ(TimeBudget::Deadline(), outerEnd);
        const TimeBudget shorter(1min);
        EXPECT_LT(TimeBudget::Deadline(), outerEnd);
        const TimeBudget over(0s);
        EXPECT_LE(TimeBudget::Deadline(), Clock::now());
    }
    EXPECT_EQ(TimeBudget::Deadline(), outerEnd);
}

}  // namespace
}  // namespace Tessim
