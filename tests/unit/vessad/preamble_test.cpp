#include "apps/vessad/Preamble.h"

#include <gtest/gtest.h>

#include <string>

namespace Vessad {
namespace {

TEST(Preamble, TakesASelectorAndTwoTexts) {
    const auto request = ParseOpenRequest(R"(OPEN 2 "" "a text")");
    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(request->selector, 2);
    EXPECT_EQ(request->text1, "");
    EXPECT_EQ(request->text2, "a text");
}

TEST(Preamble, TakesAnySelector) {
    EXPECT_EQ(ParseOpenRequest(R"(OPEN 2147483647 "" "")")->selector, 2147483647);
    EXPECT_EQ(ParseOpenRequest(R"(OPEN 0 "" "")")->selector, 0);
}

TEST(Preamble, RefusesEverythingElse) {
    for (const char* line : {"",
                             "OPEN",
                             "OPEN ",
                             R"(open 2 "" "")",
                             R"( OPEN 2 "" "")",
                             R"(OPEN  2 "" "")",
                             R"(OPEN x "" "")",
                             R"(OPEN -2 "" "")",
                             R"(OPEN 2147483648 "" "")",
                             R"(OPEN 2x "" "")",
                             "OPEN 2",
                             R"(OPEN 2 "")",
                             R"(OPEN 2 """")",
                             R"(OPEN 2 "" ")",
                             R"(OPEN 2 "" x)",
                             R"(OPEN 2 "" "" )",
                             R"(OPEN 2 "" "" "")",
                             "OPEN 2 \"a\tb\" \"\"",
                             "OPEN 2 \"\" \"\x80\"",
                             "OPEN 2 \"\" \"a\nb\"",
                             "GET / HTTP/1.1"}) {
        EXPECT_FALSE(ParseOpenRequest(line).has_value()) << line;
    }
    EXPECT_FALSE(ParseOpenRequest(std::string("OPEN 2 \"\0\" \"\"", 13)).has_value());
}

}  // namespace
}  // namespace Vessad
