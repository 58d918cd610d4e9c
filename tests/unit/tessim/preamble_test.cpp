#include "runtime/tessim/preamble.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "runtime/tessim/exception.h"

namespace Tessim::Authd {
namespace {

using namespace std::string_literals;
using ::testing::HasSubstr;

TEST(PreambleRequestLine, IsParsedIntoWhatItWasMadeOf) {
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
         {"a\"b"s, "a\r\nOPEN 2"s, "\0"s, "\xC3\xA4"s, "\x7f"s, std::string(maxPreambleLine, 'x')}) {
        EXPECT_THROW(MakeRequestLine({2, text, ""}), InvalidArgumentException) << text;
        EXPECT_THROW(MakeRequestLine({2, "", text}), InvalidArgumentException) << text;
    }
}

TEST(PreambleRequestLine, IsRejectedInAnyOtherForm) {
    const std::string others[] = {""s,
                                  "OPEN"s,
                                  "OPEN "s,
                                  R"(open 2 "" "")"s,
                                  R"( OPEN 2 "" "")"s,
                                  R"(OPEN  2 "" "")"s,
                                  R"(OPEN x "" "")"s,
                                  R"(OPEN -2 "" "")"s,
                                  R"(OPEN 2147483648 "" "")"s,
                                  R"(OPEN 2x "" "")"s,
                                  "OPEN 2"s,
                                  R"(OPEN 2 "")"s,
                                  R"(OPEN 2 """")"s,
                                  R"(OPEN 2 "" ")"s,
                                  R"(OPEN 2 "" x)"s,
                                  R"(OPEN 2 "" "" )"s,
                                  R"(OPEN 2 "" "" "")"s,
                                  "OPEN 2 \"a\tb\" \"\""s,
                                  "OPEN 2 \"\" \"\x80\""s,
                                  "OPEN 2 \"\" \"a\nb\""s,
                                  "GET / HTTP/1.1"s,
                                  "OPEN 2 \"\0\" \"\""s};
    for (const std::string& line : others) {
        EXPECT_FALSE(ParseRequestLine(line).has_value()) << line;
    }
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

TEST(PreambleReplyLine, IsRejectedInAnyOtherForm) {
    for (const std::string& reply :
         {"\r\n"s, "200\r\n"s, "200 \r\n"s, "20 /c\r\n"s, "2000 /c\r\n"s, "abc /c\r\n"s, " 200 /c\r\n"s,
          "200\t/c\r\n"s, "200 /c\x01\r\n"s, "200 /c\n/d\r\n"s, "200 /\xC3\xA4\r\n"s, "+20 /c\r\n"s,
          "200 /c\0\r\n"s, "200 /c\r/d\r\n"s, "403\r\n"s}) {
        EXPECT_THAT(Reply(reply), HasSubstr("peer: no authentication service: its reply has no ")) << reply;
    }
    EXPECT_EQ(Reply("200 /c"), "peer: no authentication service: it closed the connection without a reply");
}

TEST(PreambleReplyLine, IsRejectedBeyondTheLimitOfItsLength) {
    const std::string path(maxPreambleLine - std::string("200 \r\n").size(), 'p');
    EXPECT_EQ(Reply("200 " + path + "\r\n"), path);
    EXPECT_THAT(Reply("200 " + path + "p\r\n"), HasSubstr("its reply is too long"));
    EXPECT_THAT(Reply(std::string(100000, 'x')), HasSubstr("its reply is too long"));
}

}  // namespace
}  // namespace Tessim::Authd
