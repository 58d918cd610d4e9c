#include "runtime/tessim/time_budget.h"

#include <gtest/gtest.h>

#include "runtime/tessim/exception.h"

namespace Tessim {
namespace {

using namespace std::chrono_literals;

TEST(TimeBudget, AllowsFiveSecondsOutsideAny) {
    const auto before = Clock::now();
    const auto deadline = TimeBudget::Deadline();
    EXPECT_GE(deadline, before + 5s);
    EXPECT_LE(deadline, Clock::now() + 5s);
}

TEST(TimeBudget, EndsOnceForEverythingInside) {
    const auto before = Clock::now();
    const TimeBudget budget(1h);
    const auto deadline = TimeBudget::Deadline();
    EXPECT_GE(deadline, before + 1h);
    EXPECT_LE(deadline, Clock::now() + 1h);
    EXPECT_EQ(TimeBudget::Deadline(), deadline);
}

TEST(TimeBudget, CountsTheEarliestEndWhenNested) {
    const TimeBudget outer(1h);
    const auto outerEnd = TimeBudget::Deadline();
    {
        const TimeBudget longer(2h);
        EXPECT_EQ(TimeBudget::Deadline(), outerEnd);
        const TimeBudget shorter(1min);
        EXPECT_LT(TimeBudget::Deadline(), outerEnd);
    }
    EXPECT_EQ(TimeBudget::Deadline(), outerEnd);
}

TEST(TimeBudget, MayBeOverFromTheStartOrWithoutEnd) {
    {
        const TimeBudget outer(1h);
        const auto outerEnd = TimeBudget::Deadline();
        const TimeBudget endless(Clock::duration::max());
        EXPECT_EQ(TimeBudget::Deadline(), outerEnd);
        const TimeBudget over(0s);
        EXPECT_LE(TimeBudget::Deadline(), Clock::now());
    }
    EXPECT_LT(TimeBudget::Deadline(), Clock::now() + 1min);
}

TEST(TimeBudget, EndsWaitsOnlyWhenTheProcessIsEnding) {
    static bool ending = false;
    EXPECT_NO_THROW(TimeBudget::CheckEnding("waiting"));
    TimeBudget::EndWaitsWhen([] { return ending; });
    EXPECT_NO_THROW(TimeBudget::CheckEnding("waiting"));
    ending = true;
    try {
        TimeBudget::CheckEnding("waiting");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const StreamException& thrown) {
        EXPECT_STREQ(thrown.what(), "waiting: the process is ending");
    }
    TimeBudget::EndWaitsWhen(nullptr);
    EXPECT_NO_THROW(TimeBudget::CheckEnding("waiting"));
}

}  // namespace
}  // namespace Tessim
