// How long a thread may wait. Everything that waits for a peer keeps to the budgets in force. Each thread has
// its own budgets.
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

    // Makes every wait of this process end with a StreamException once `isEnding` returns true. It is called
    // before each wait and after each signal, on the waiting thread. Null, as at first: waits go on.
    static void EndWaitsWhen(bool (*isEnding)()) noexcept;
    // Throws that StreamException when `isEnding` returns true; `wait` names the wait in the message.
    static void CheckEnding(const char* wait);

  private:
    Clock::time_point outerEnd;  // what to restore; time_point::max() outside any budget
};

}  // namespace Tessim
