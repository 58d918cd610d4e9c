#include "runtime/tessim/preamble.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "runtime/tessim/exception.h"
#include "tests/support/files.h"

namespace Tessim::Authd {
namespace {

using namespace std::string_literals;
using ::testing::HasSubstr;

std::vector<TestSupport::Case> ReadCases(const std::string& name) {
    return TestSupport::ReadCases(TESSIM_CASES_DIR "/" + name + ".txt");
}

TEST(PreambleRequestLine, IsParsedIntoWhatItWasMadeOfAndInNoOtherForm) {
    for (const auto& [line, expected] : ReadCases("request_lines")) {
        const auto request = ParseRequestLine(line);
        EXPECT_EQ(request ? MakeRequestLine(*request) : "none\r\n", expected + "\r\n") << line;
    }
}

TEST(PreambleRequestLine, CarriesOnlyTextsThatFit) {
    const std::string longest(maxPreambleLine - MakeRequestLine({2, "", ""}).size(), 'x');
    EXPECT_EQ(MakeRequestLine({2, longest, ""}).size(), maxPreambleLine);
    for (const std::string& text : {"a\"b"s, "a\r\nOPEN 2"s, "\0"s, "\xC3\xA4"s, "\x7f"s, longest + 'x'}) {
        EXPECT_THROW(MakeRequestLine({2, text, ""}), InvalidArgumentException) << text;
        EXPECT_THROW(MakeRequestLine({2, "", text}), InvalidArgumentException) << text;
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

TEST(PreambleReplyLine, CarriesAPathOrARefusalAndHasNoOtherForm) {
    EXPECT_EQ(MakeReplyLine(statusOpen, "/c 1"), "200 /c 1\r\n");
    for (const auto& [reply, expected] : ReadCases("reply_lines")) {
        EXPECT_EQ(Reply(reply), expected) << reply;
    }
}

TEST(PreambleReplyLine, IsEscapedAndTruncatedInTheMessageOfARefusal) {
    const std::string message = Reply("503 \x1b[31mred\n\x80" + std::string(400, 'x') + "\r\n");
    EXPECT_THAT(message, HasSubstr("503 \\x1b[31mred\\x0a\\x80xxx"));
    EXPECT_LT(message.size(), 300U);
}

TEST(PreambleReplyLine, IsRejectedBeyondTheLimitOfItsLength) {
    const std::string path(maxPreambleLine - std::string("200 \r\n").size(), 'p');
    EXPECT_EQ(Reply("200 " + path + "\r\n"), path);
    EXPECT_THAT(Reply("200 " + path + "p\r\n"), HasSubstr("its reply is too long"));
    EXPECT_THAT(Reply(std::string(100000, 'x')), HasSubstr("its reply is too long"));
}

}  // namespace
}  // namespace Tessim::Authd
