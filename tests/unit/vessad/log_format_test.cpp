#include "apps/vessad/LogFormat.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <sstream>

namespace Vessad {
namespace {

// What a logger with that format writes for `message`.
std::string Logged(const std::string& pattern, const std::string& lineEnd, const std::string& message) {
    std::ostringstream text;
    spdlog::logger logger("test", std::make_shared<spdlog::sinks::ostream_sink_st>(text));
    logger.set_formatter(MakeLogFormatter(pattern, lineEnd));
    logger.warn("{}", message);
    return text.str();
}

TEST(LogFormat, FollowsThePatternAndKeepsAMessageOnOneLine) {
    EXPECT_EQ(Logged("%l: %*", "\n", "refused"), "warning: refused\n");
    EXPECT_EQ(Logged("%*", "", "\x1b[2J\r\n"), "\\x1b[2J\\x0d\\x0a");
}

}  // namespace
}  // namespace Vessad
