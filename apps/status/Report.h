// The result of all checks, for people and for programs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace KelvStatus {

enum class Result { Ok, Fail, Unknown };

struct Check {
    Result result = Result::Unknown;
    std::string name;
    std::string text;
    std::string remedy;  // may be empty
};

struct Report {
    std::vector<Check> checks;
    // Of the daemon and of the test query, where they are known.
    std::optional<std::string> source;
    std::optional<bool> connected;
    std::optional<std::int64_t> vms;
    std::optional<std::int64_t> snapshotAge;  // in seconds
    std::optional<std::int64_t> queryTime;    // in milliseconds
};

// 0: every check is ok; 1: one failed; 2: none failed, and one is unknown.
int ExitCode(const Report& report);

// One line per check, and one with the remedy below those that have one. Ends with a line feed.
std::string ToText(const Report& report);
// One JSON object. Ends with a line feed.
std::string ToJson(const Report& report);

}  // namespace KelvStatus
