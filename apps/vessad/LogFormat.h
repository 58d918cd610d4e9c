// The format of the daemon's log lines.
#pragma once

#include <spdlog/formatter.h>

#include <memory>
#include <string>

namespace Vessad {

// Returns a formatter of spdlog's patterns in which "%*" is the message on one line: untrusted text in a
// message cannot start another line (see Tessim::StringUtil::EscapeControls). Each line ends with `lineEnd`.
std::unique_ptr<spdlog::formatter> MakeLogFormatter(const std::string& pattern, const std::string& lineEnd);

}  // namespace Vessad
