// A query as a manager makes it, with the options of net-snmp's commands.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/status/Facts.h"

namespace KelvStatus {

// Not thread-safe, and one per process: net-snmp's library has global state.
class TestQuery {
  public:
    // `arguments` are those of snmpget before the objects; without an agent it is localhost. Reads snmp.conf
    // and writes no file.
    explicit TestQuery(std::vector<std::string> arguments);
    TestQuery(const TestQuery&) = delete;
    TestQuery& operator=(const TestQuery&) = delete;
    ~TestQuery();

    // The code to end with, when the arguments ask for something else or are wrong, which has been printed.
    std::optional<int> GetExitCode() const { return exitCode; }

    // Queries prodName.0 once. Waits 2 s for each reply unless the arguments give another time.
    QueryFacts Run();

  private:
    struct Session;

    std::vector<std::string> arguments;
    std::unique_ptr<Session> session;
    std::optional<int> exitCode;
};

}  // namespace KelvStatus
