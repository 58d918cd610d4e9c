// Logs how long the tables are empty because rebuilds fail. Used on the agent's one request thread.
#pragma once

#include <chrono>
#include <optional>

namespace SNMP {

class Outage {
  public:
    using Clock = std::chrono::steady_clock;

    // A rebuild failed at `now`: a line at the first failure in a row, then one a minute at most.
    void Continue(Clock::time_point now);
    // A rebuild succeeded at `now`: a line when rebuilds failed before.
    void End(Clock::time_point now);

  private:
    std::optional<Clock::time_point> start;
    Clock::time_point lastLine;
};

}  // namespace SNMP
