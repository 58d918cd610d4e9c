#include "runtime/tessim/time_budget.h"

#include <gtest/gtest.h>

#include "runtime/tessim/exception.h"
#include "tests/unit/tessim/open_stream.h"

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

TEST(TimeBudget, EndsWaitsOnlyWhenTheProcessIsEnding) {
    static bool ending = false;
    EXPECT_NO_THROW(TimeBudget::CheckEnding("waiting"));
    TimeBudget::EndWaitsWhen([] { return ending; });
    EXPECT_NO_THROW(TimeBudget::CheckEnding("waiting"));
    ending = true;
    EXPECT_EQ(MessageOf<StreamException>([] { TimeBudget::CheckEnding("waiting"); }),
              "waiting: the process is ending");
    TimeBudget::EndWaitsWhen(nullptr);
    EXPECT_NO_THROW(TimeBudget::CheckEnding("waiting"));
}

}  // namespace
}  // namespace Tessim
