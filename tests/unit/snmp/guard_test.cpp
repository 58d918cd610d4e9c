#include "apps/snmp/agent/Guard.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace {

using TestSupport::LogLine;

// Other exceptions, and results, are those of the handlers' tests.
TEST(Guard, LogsWhatIsNoExceptionObjectAndReturnsNull) {
    TestSupport::LogCapture log;
    EXPECT_EQ(SNMP::Guard("init_Test", []() -> u_char* { throw 7; }), nullptr);
    EXPECT_EQ(log.Take(), (std::vector<LogLine>{{3, "init_Test: unknown exception\n"}}));
}

}  // namespace
