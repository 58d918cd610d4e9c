#include "runtime/tessim/preamble.h"

#include <gtest/gtest.h>

#include <string>

namespace Tessim::Authd {
namespace {

TEST(PreambleRequestLine, IsParsedIntoASelectorAndTwoTexts) {
    const auto request = ParseRequestLine(R"(OPEN 2 "" "a text")");
    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(request->selector, 2);
    EXPECT_EQ(request->text1, "");
    EXPECT_EQ(request->text2, "a text");
}

TEST(PreambleRequestLine, MayHaveAnySelector) {
    EXPECT_EQ(ParseRequestLine(R"(OPEN 2147483647 "" "")")->selector, 2147483647);
    EXPECT_EQ(ParseRequestLine(R"(OPEN 0 "" "")")->selector, 0);
}

TEST(PreambleRequestLine, IsNothingElse) {
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
        EXPECT_FALSE(ParseRequestLine(line).has_value()) << line;
    }
    EXPECT_FALSE(ParseRequestLine(std::string("OPEN 2 \"\0\" \"\"", 13)).has_value());
}

TEST(PreambleReplyLine, HasTheStatusAndTheText) {
    EXPECT_EQ(MakeReplyLine(statusOpen, "/connection/1"), "200 /connection/1\r\n");
    EXPECT_EQ(MakeReplyLine(404, "no service 7"), "404 no service 7\r\n");
}

}  // namespace
}  // namespace Tessim::Authd
