#include "runtime/tessim/string_util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <string>

#include "runtime/tessim/exception.h"

namespace Tessim::StringUtil {
namespace {

using ::testing::ElementsAre;

TEST(Tokenize, SplitsAtEverySeparatorAndKeepsEmptyParts) {
    EXPECT_THAT(Tokenize("3.0.2", "."), ElementsAre("3", "0", "2"));
    EXPECT_THAT(Tokenize("a.b,c", ".,"), ElementsAre("a", "b", "c"));
    EXPECT_THAT(Tokenize("..a.", "."), ElementsAre("", "", "a", ""));
    EXPECT_THAT(Tokenize("", "."), ElementsAre(""));
    EXPECT_THAT(Tokenize("abc", ""), ElementsAre("abc"));
}

TEST(ParseInt, AcceptsWholeDecimalNumbersOnly) {
    EXPECT_EQ(ParseInt("0"), 0);
    EXPECT_EQ(ParseInt("-16"), -16);
    EXPECT_EQ(ParseInt("0017"), 17);
    EXPECT_EQ(ParseInt("2147483647"), INT_MAX);
    EXPECT_EQ(ParseInt("-2147483648"), INT_MIN);
    for (const char* text : {"", "-", "+1", " 1", "1 ", "1x", "0x10", "1.0", "2147483648", "-2147483649",
                             "--1", "99999999999999999999"}) {
        EXPECT_THROW(ParseInt(text), InvalidArgumentException) << '"' << text << '"';
    }
    EXPECT_THROW(ParseInt(std::string_view("1\0", 2)), InvalidArgumentException);
}

TEST(Trim, RemovesBlanksTabsAndLineEndsAtBothEnds) {
    EXPECT_EQ(Trim(" \t\r\n a b \n\r\t "), "a b");
    EXPECT_EQ(Trim(" \n"), "");
    EXPECT_EQ(Trim(""), "");
    EXPECT_EQ(Trim("a"), "a");
}

TEST(TruncateUtf8, NeverEndsInsideACharacter) {
    // Characters of 1, 2, 3 and 4 bytes, one after the other.
    const std::string text = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
    const std::array<std::size_t, 11> expected = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10};
    for (std::size_t limit = 0; limit < expected.size(); ++limit) {
        EXPECT_EQ(TruncateUtf8(text, limit), text.substr(0, expected.at(limit))) << limit;
    }
    EXPECT_EQ(TruncateUtf8("", 0), "");
}

TEST(TruncateUtf8, TruncatesBytesThatAreNoUtf8Anywhere) {
    const struct {
        const char* name;
        std::string_view text;
        std::size_t limit;
    } cases[] = {
        {"only continuations", "\x80\x80\x80\x80\x80\x80", 5},
        {"overlong, two bytes", "a\xC0\x80z", 2},
        {"overlong, three bytes", "a\xE0\x80\x80z", 2},
        {"overlong, four bytes", "a\xF0\x80\x80\x80z", 3},
        {"surrogate", "a\xED\xA0\x80z", 3},
        {"beyond the last code point", "a\xF4\x90\x80\x80z", 3},
        {"no lead byte", "a\xF5\x80\x80\x80z", 3},
        {"a continuation is missing", "a\xE2\x82zz", 3},
        {"the text ends too early", "a\xE2\x82", 2},
    };
    for (const auto& tested : cases) {
        EXPECT_EQ(TruncateUtf8(tested.text, tested.limit).size(), tested.limit) << tested.name;
    }
}

TEST(EscapeControls, EscapesControlCharactersAndNothingElse) {
    EXPECT_EQ(EscapeControls("a\r\nb\t\x1b[0m\x7f"), "a\\x0d\\x0ab\\x09\\x1b[0m\\x7f");
    EXPECT_EQ(EscapeControls(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(EscapeControls("\n"), "\\x0a");
    EXPECT_EQ(EscapeControls("\xC2\x9B"
                             "31m\xC2\x80"),
              "\\u009b31m\\u0080");
    EXPECT_EQ(EscapeControls("a\xC2\x85\n"), "a\\u0085\\x0a");
    const std::string text = " ~\\\"\xC2\xA0\xC3\xA4\xC4\x80\xE2\x82\xAC\xF0\x9F\x98\x80\xff\x80 ";
    EXPECT_EQ(EscapeControls(text), text);
    EXPECT_EQ(EscapeControls(""), "");
}

TEST(EscapeUntrusted, EscapesEverythingButPrintableAsciiUpToTheLimit) {
    EXPECT_EQ(EscapeUntrusted("a\r\nb\x1b[0m\x7f\xC3\xA4~ ", 100), "a\\x0d\\x0ab\\x1b[0m\\x7f\\xc3\\xa4~ ");
    EXPECT_EQ(EscapeUntrusted("abcdef", 3), "abc");
}

TEST(StrStrcpy, TruncatesAndTerminatesWhatItCopies) {
    std::array<char, 4> buffer{'x', 'x', 'x', 'x'};
    EXPECT_EQ(Str_Strcpy(buffer.data(), "ab", buffer.size()), buffer.data());
    EXPECT_STREQ(buffer.data(), "ab");
    EXPECT_EQ(buffer[3], 'x');
    EXPECT_STREQ(Str_Strcpy(buffer.data(), "abcdef", buffer.size()), "abc");
    EXPECT_STREQ(Str_Strcpy(buffer.data(), "ab\xC3\xA4", buffer.size()), "ab");
    EXPECT_STREQ(Str_Strcpy(buffer.data(), "abc", 1), "");
}

}  // namespace
}  // namespace Tessim::StringUtil
