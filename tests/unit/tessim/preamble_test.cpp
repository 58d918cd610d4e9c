#include "runtime/tessim/preamble.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "runtime/tessim/exception.h"

namespace Tessim::Authd {
namespace {

using ::testing::HasSubstr;

TEST(PreambleRequestLine, IsParsedIntoWhatItWasMadeOf) {
    EXPECT_EQ(MakeRequestLine({2, "", ""}), "OPEN 2 \"\" \"\"\r\n");
    EXPECT_EQ(MakeRequestLine({2, "first text", "~second"}), "OPEN 2 \"first text\" \"~second\"\r\n");
    for (const int selector : {0, 2, 2147483647}) {
        std::string line = MakeRequestLine({selector, "", "a text"});
        line.resize(line.size() - preambleLineEnd.size());
        const auto request = ParseRequestLine(line);
        ASSERT_TRUE(request.has_value());
        EXPECT_EQ(request->selector, selector);
        EXPECT_EQ(request->text1, "");
        EXPECT_EQ(request->text2, "a text");
    }
}

TEST(PreambleRequestLine, CarriesOnlyTextsThatFit) {
    for (const std::string& text :
         {std::string("a\"b"), std::string("a\r\nOPEN 2"), std::string(1, '\0'), std::string("\xC3\xA4"),
          std::string("\x7f"), std::string(maxPreambleLine, 'x')}) {
        EXPECT_THROW(MakeRequestLine({2, text, ""}), InvalidArgumentException) << text;
        EXPECT_THROW(MakeRequestLine({2, "", text}), InvalidArgumentException) << text;
    }
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

// The path in the reply line of a server that sends `stream` and then ends it; else why there is none.
std::string Reply(const std::string& stream) {
    std::size_t read = 0;
    try {
        return ReadReplyLine("peer", [&](char& byte) {
            byte = stream[read];
            return read++ < stream.size();
        });
    } catch (const StreamException& thrown) {
        return thrown.what();
    }
}

TEST(PreambleReplyLine, CarriesAPathOrARefusal) {
    EXPECT_EQ(MakeReplyLine(statusOpen, "/c 1"), "200 /c 1\r\n");
    EXPECT_EQ(Reply("200 /c 1\r\nHTTP"), "/c 1");
    EXPECT_EQ(MakeReplyLine(403, "not for you"), "403 not for you\r\n");
    EXPECT_EQ(Reply("403 not for you\r\n"),
              "peer: the authentication service refused the stream: 403 not for you");
}

TEST(PreambleReplyLine, IsEscapedAndTruncatedInTheMessageOfARefusal) {
    const std::string message = Reply("503 \x1b[31mred\n\x80" + std::string(400, 'x') + "\r\n");
    EXPECT_THAT(message, HasSubstr("503 \\x1b[31mred\\x0a\\x80xxx"));
    EXPECT_LT(message.size(), 300U);
}

TEST(PreambleReplyLine, IsNothingElse) {
    for (const std::string& reply :
         {std::string("\r\n"), std::string("200\r\n"), std::string("200 \r\n"), std::string("20 /c\r\n"),
          std::string("2000 /c\r\n"), std::string("abc /c\r\n"), std::string(" 200 /c\r\n"),
          std::string("200\t/c\r\n"), std::string("200 /c\x01\r\n"), std::string("200 /c\n/d\r\n"),
          std::string("200 /\xC3\xA4\r\n"), std::string("+20 /c\r\n"), std::string("200 /c\0\r\n", 9),
          std::string("200 /c\r/d\r\n"), std::string("403\r\n")}) {
        EXPECT_THAT(Reply(reply), HasSubstr("peer: no authentication service: its reply has no ")) << reply;
    }
    EXPECT_EQ(Reply("200 /c"), "peer: no authentication service: it closed the connection without a reply");
}

TEST(PreambleReplyLine, HasALimitedLength) {
    const std::string path(maxPreambleLine - std::string("200 \r\n").size(), 'p');
    EXPECT_EQ(Reply("200 " + path + "\r\n"), path);
    EXPECT_THAT(Reply("200 " + path + "p\r\n"), HasSubstr("its reply is too long"));
    EXPECT_THAT(Reply(std::string(100000, 'x')), HasSubstr("its reply is too long"));
}

}  // namespace
}  // namespace Tessim::Authd
