// Reads back what the code under test tells the agent.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

struct netsnmp_log_handler_s;

namespace TestSupport {

// One call of snmp_log: its priority (as in syslog) and its text, line feed included. A debug message is two
// calls of priority 7, token and text.
struct LogLine {
    int priority;
    std::string text;

    friend bool operator==(const LogLine&, const LogLine&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const LogLine& line);
};

// Collects every line that goes to the agent's log while it lives, and keeps them from the terminal. At most
// one lives at a time.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The lines since the last call, oldest first.
    std::vector<LogLine> Take();

    // The texts of the debug messages (priority 7) since the last Take, joined; other lines are dropped.
    std::string TakeDebugText();

    // Called by the log; not for tests.
    void Add(int priority, const char* text);

  private:
    std::vector<LogLine> lines;
    netsnmp_log_handler_s* handler;
};

// The text that snmp_set_detail left since the last call, or the empty string.
std::string TakeDetail();

}  // namespace TestSupport
