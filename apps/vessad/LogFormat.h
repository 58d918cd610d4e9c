// How the daemon's log lines look.
#pragma once

#include <spdlog/formatter.h>

#include <memory>
#include <string>

namespace Vessad {

// A formatter of spdlog's patterns in which "%*" stands for the message as one line: whatever a message
// quotes, it cannot begin another one (see Tessim::StringUtil::EscapeControls). Each line ends with
// `lineEnd`.
std::unique_ptr<spdlog::formatter> MakeLogFormatter(const std::string& pattern, const std::string& lineEnd);

}  // namespace Vessad
