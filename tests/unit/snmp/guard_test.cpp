#include "apps/snmp/agent/Guard.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/log_capture.h"

namespace {

using TestSupport::LogLine;

TEST(Guard, ReturnsWhatTheBodyReturns) {
    TestSupport::LogCapture log;
    u_char answer = 0;
    EXPECT_EQ(SNMP::Guard("SNMP_Test", [&] { return &answer; }), &answer);
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

TEST(Guard, LogsAnExceptionAndReturnsNull) {
    TestSupport::LogCapture log;
    u_char* const answer =
        SNMP::Guard("SNMP_Test", []() -> u_char* { throw std::runtime_error("no more rows"); });
    EXPECT_EQ(answer, nullptr);
    EXPECT_EQ(log.Take(), (std::vector<LogLine>{{3, "SNMP_Test: no more rows\n"}}));
}

TEST(Guard, LogsWhatIsNoExceptionObject) {
    TestSupport::LogCapture log;
    SNMP::Guard("init_Test", [] { throw 7; });
    EXPECT_EQ(log.Take(), (std::vector<LogLine>{{3, "init_Test: unknown exception\n"}}));
}

}  // namespace
