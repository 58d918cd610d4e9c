// How long the agent may wait. Everything that can wait for a peer asks the budget in force.
//
// Each thread has its own budgets.
#pragma once

#include <chrono>

namespace Tessim {

using Clock = std::chrono::steady_clock;

// While an object of this class lives, no wait may last beyond its end. Budgets nest: the earliest end
// counts. Objects end in the reverse order of their creation.
class TimeBudget {
  public:
    explicit TimeBudget(Clock::duration limit);
    TimeBudget(const TimeBudget&) = delete;
    TimeBudget& operator=(const TimeBudget&) = delete;
    ~TimeBudget();

    // When a wait that starts now must end: the end of the budgets in force, or, outside any, 5 s from now.
    static Clock::time_point Deadline();

    // Makes every wait of this process end with a StreamException once `isEnding` answers true. It is asked
    // before each wait and after each signal. Null, as it is at first: never.
    static void EndWaitsWhen(bool (*isEnding)()) noexcept;
    // Throws that StreamException if it is time; `wait` names the wait.
    static void CheckEnding(const char* wait);

  private:
    Clock::time_point outerEnd;  // what to restore; time_point::max() outside any budget
};

}  // namespace Tessim
