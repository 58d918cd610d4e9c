// Helpers for the lines that reach the agent's log.
#pragma once

#include <string>
#include <vector>

#include "runtime/tessim/exception.h"
#include "tests/support/log_capture.h"

// The texts of the lines with that priority.
inline std::vector<std::string> TextsOf(const std::vector<TestSupport::LogLine>& lines, int priority) {
    std::vector<std::string> texts;
    for (const TestSupport::LogLine& line : lines) {
        if (line.priority == priority) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

// What a report of `failure` looks like: the message line at priority 4, then its back-trace at `priority`.
inline std::vector<TestSupport::LogLine> Report(const std::string& message, const Tessim::Exception& failure,
                                                int priority) {
    std::vector<TestSupport::LogLine> lines = {{4, message}};
    for (const std::string& line : failure.GetBacktrace()) {
        lines.push_back({priority, line + "\n"});
    }
    return lines;
}
