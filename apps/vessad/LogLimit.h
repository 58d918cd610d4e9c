// Limits the log lines that clients cause before they have logged in, so that no local user can fill the log.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>

namespace Vessad {

// Of each kind, 20 lines are admitted in a minute, which begins with the first; the rest are counted, and one
// line says how many they were. All functions are thread-safe.
class LogLimit {
  public:
    using Clock = std::chrono::steady_clock;
    enum class Kind : std::size_t { Timeout, Preamble, Request, Login, Ticket, Accept, Count };

    explicit LogLimit(std::function<Clock::time_point()> now = Clock::now) : now(std::move(now)) {}

    // Returns whether the caller is to log a line of that kind, which is not Count. Flushes first.
    bool Admit(Kind kind);

    // Logs how many lines were suppressed in each minute that is over.
    void Flush();

  private:
    struct Minute {
        Clock::time_point begin;
        std::size_t lines = 0;
    };
    static constexpr auto kinds = static_cast<std::size_t>(Kind::Count);

    const std::function<Clock::time_point()> now;
    std::mutex mutex;  // guards what follows
    std::array<Minute, kinds> minutes;
};

}  // namespace Vessad
