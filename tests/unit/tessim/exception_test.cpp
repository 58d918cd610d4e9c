#include "runtime/tessim/exception.h"

#include <execinfo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <vector>

namespace Tessim {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;

static_assert(std::is_base_of_v<Exception, AlreadyInitializedException>);
static_assert(std::is_base_of_v<Exception, InvalidArgumentException>);
static_assert(std::is_base_of_v<Exception, SystemException>);
static_assert(std::is_base_of_v<Exception, StreamException>);
static_assert(std::is_base_of_v<StreamException, TimeoutException>);

[[gnu::noinline]] void ThrowDeepInside() {
    throw TimeoutException("late");
}
constexpr int throwingLine = __LINE__ - 2;

TEST(Exception, HasTheThrowingStatementAndTheCallingFramesInItsBacktrace) {
    const auto copy = [] {
        try {
            ThrowDeepInside();
        } catch (const TimeoutException& thrown) {
            return thrown;
        }
        return TimeoutException("nothing was thrown");
    }();
    EXPECT_STREQ(copy.what(), "late");
    const std::vector<std::string> lines = copy.GetBacktrace();
    ASSERT_THAT(lines, SizeIs(testing::Gt(2U)));
    EXPECT_THAT(lines[0],
                StartsWith("tests/unit/tessim/exception_test.cpp:" + std::to_string(throwingLine) + " "));
    EXPECT_THAT(lines[0], HasSubstr("ThrowDeepInside"));
    for (std::size_t i = 1; i < lines.size(); ++i) {
        EXPECT_THAT(lines[i], MatchesRegex("[^/\n]+\\(.*\\+0x[0-9a-f]+\\) \\[0x[0-9a-f]+\\]"));
    }
    EXPECT_THAT(lines[1], StartsWith("tessim_test("));
}

TEST(Exception, NamesFunctionsThatAModuleExports) {
    // Its caller is a function of the C library, which exports it.
    static std::vector<std::string> lines;
    const int value = 1;
    const void* found = std::bsearch(&value, &value, 1, sizeof value, [](const void*, const void*) {
        lines = Exception("compared").GetBacktrace();
        return 0;
    });
    EXPECT_EQ(found, &value);
    EXPECT_THAT(lines, testing::Contains(MatchesRegex("libc[.-].*\\(.*__libc_start_main.*\\+0x.*")));
}

TEST(Exception, HasNoFramesOfTheRuntimeInItsBacktrace) {
    std::array<void*, 48> here{};
    const auto depth = static_cast<std::size_t>(backtrace(here.data(), static_cast<int>(here.size())));
    ASSERT_LT(depth, here.size() - 2);
    // Without optimisation the constructor in the header has a frame of its own; the first line is no frame.
    EXPECT_LE(Exception("x").GetBacktrace().size() - 1, depth + 1);
}

// As if the source lay somewhere else.
#line 7 "/home/somebody/runtime/build/apps/snmp/unit.cpp"
const SourceLocation inTree = SourceLocation::current();
#line 8 "/home/somebody/myapps/unit.cpp"
const SourceLocation outside = SourceLocation::current();
#line 9 "runtime/tessim/x.cpp"
const SourceLocation relative = SourceLocation::current();
#line 100 "exception_test.cpp"

TEST(Exception, ShowsNoFolderOfTheBuild) {
    EXPECT_THAT(Exception("placed", inTree).GetBacktrace()[0], StartsWith("apps/snmp/unit.cpp:7 "));
    EXPECT_THAT(Exception("placed", outside).GetBacktrace()[0], StartsWith("unit.cpp:8 "));
    EXPECT_THAT(Exception("placed", relative).GetBacktrace()[0], StartsWith("runtime/tessim/x.cpp:9 "));
}

}  // namespace
}  // namespace Tessim
