#include "apps/vessad/backends/YamlTree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <string_view>

namespace Vessad::Yaml {
namespace {

constexpr std::int64_t low = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t high = std::numeric_limits<std::int64_t>::max();

// What is wrong with the member "v" of `text`, as `use` finds it.
std::string Mistake(const std::string& text, const std::function<void(const Cursor&)>& use) {
    try {
        const Document document(text, "h.yaml");
        use(Cursor(document).Require("v"));
    } catch (const Error& error) {
        return error.what();
    }
    return "none";
}

std::string ParseMistake(const std::string& text, std::size_t maxValues = 1000) {
    try {
        const Document document(text, "h.yaml", maxValues);
    } catch (const Error& error) {
        return error.what();
    }
    return "none";
}

std::string TextOf(const std::string& scalar) {
    const Document document("v: " + scalar, "h.yaml");
    return Cursor(document).Require("v").Text();
}

std::int64_t WholeOf(const std::string& scalar) {
    const Document document("v: " + scalar, "h.yaml");
    return Cursor(document).Require("v").Whole(low, high);
}

double NumberOf(const std::string& scalar) {
    const Document document("v: " + scalar, "h.yaml");
    return Cursor(document).Require("v").Number();
}

void UseAsText(const Cursor& cursor) {
    cursor.Text();
}
void UseAsWhole(const Cursor& cursor) {
    cursor.Whole(-2, 2);
}

TEST(YamlTree, TakesPlainAndQuotedTextAsText) {
    EXPECT_EQ(TextOf("VM Network"), "VM Network");
    EXPECT_EQ(TextOf("\"13638\""), "13638");
    EXPECT_EQ(TextOf("'true'"), "true");
    EXPECT_EQ(TextOf("\"\""), "");
    EXPECT_EQ(TextOf("!!str 5"), "5");
    EXPECT_EQ(TextOf("3.0.2"), "3.0.2");
    EXPECT_EQ(TextOf("00:16:3e:00:00:01"), "00:16:3e:00:00:01");
    EXPECT_EQ(TextOf("5e"), "5e");
    EXPECT_EQ(TextOf("1.5.2e3"), "1.5.2e3");
    EXPECT_EQ(TextOf("inf"), "inf");
    EXPECT_EQ(TextOf("-x"), "-x");
    EXPECT_EQ(TextOf("größe \"\xf0\x9f\x90\xa7\""), "größe \"\xf0\x9f\x90\xa7\"");
}

TEST(YamlTree, RefusesPlainNumbersAndTruthValuesAsText) {
    for (const char* scalar : {"13638", "-5", "3.0", "1e3", "0x10", "0o17", ".5", ".inf", "true", "False"}) {
        EXPECT_EQ(Mistake("v: " + std::string(scalar), UseAsText),
                  "h.yaml:1:4: v: expected text in quotes, found " + std::string(scalar));
    }
}

TEST(YamlTree, RefusesNothingListsAndMappingsAsText) {
    EXPECT_EQ(Mistake("v: null", UseAsText), "h.yaml:1:4: v: expected text, found nothing");
    EXPECT_EQ(Mistake("v: ~", UseAsText), "h.yaml:1:4: v: expected text, found nothing");
    EXPECT_EQ(Mistake("v: [a]", UseAsText), "h.yaml:1:4: v: expected text, found a list");
    EXPECT_EQ(Mistake("v: {a: b}", UseAsText), "h.yaml:1:4: v: expected text, found a mapping");
}

TEST(YamlTree, RefusesEscapedControlCharacters) {
    EXPECT_EQ(Mistake("v: \"a\\x01\"", UseAsText),
              "h.yaml:1:4: v: expected text without control characters, found the text \"a\\x01\"");
}

TEST(YamlTree, ReadsWholeNumbersOfSixtyFourBits) {
    EXPECT_EQ(WholeOf("0"), 0);
    EXPECT_EQ(WholeOf("-7"), -7);
    EXPECT_EQ(WholeOf("4611686018427387904"), 4611686018427387904);
    EXPECT_EQ(WholeOf("9223372036854775807"), high);
    EXPECT_EQ(WholeOf("-9223372036854775808"), low);
}

TEST(YamlTree, RefusesWhatIsNoWholeNumberInRange) {
    for (const char* scalar : {"3", "-3", "1.0", "010", "+1", "0x1", "1_0", "9223372036854775808", "true"}) {
        EXPECT_EQ(Mistake("v: " + std::string(scalar), UseAsWhole).substr(0, 58),
                  "h.yaml:1:4: v: expected a whole number from -2 to 2, found");
    }
    EXPECT_EQ(Mistake("v: \"1\"", UseAsWhole),
              "h.yaml:1:4: v: expected a whole number from -2 to 2, found the text \"1\"");
}

TEST(YamlTree, ReadsNumbersWithFractions) {
    EXPECT_DOUBLE_EQ(NumberOf("35"), 35);
    EXPECT_DOUBLE_EQ(NumberOf("-0.25"), -0.25);
    EXPECT_DOUBLE_EQ(NumberOf("1.5e3"), 1500);
    for (const char* scalar : {"fast", "\"1\"", ".inf", ".nan", "1e999", "0x10"}) {
        EXPECT_NE(Mistake("v: " + std::string(scalar), [](const Cursor& cursor) { cursor.Number(); }), "none")
            << scalar;
    }
}

TEST(YamlTree, TakesOnlyTrueAndFalseAsTruthValues) {
    const auto use = [](const Cursor& cursor) { EXPECT_TRUE(cursor.Bool()); };
    EXPECT_EQ(Mistake("v: true", use), "none");
    EXPECT_EQ(Mistake("v: yes", use), "h.yaml:1:4: v: expected true or false, found the text \"yes\"");
    EXPECT_EQ(Mistake("v: \"true\"", use), "h.yaml:1:4: v: expected true or false, found the text \"true\"");
}

TEST(YamlTree, SaysWhereAMistakeStandsAndHowItIsReached) {
    const auto use = [](const Cursor& cursor) {
        cursor.Items()[1].Require("device").Items()[0].Require("cpu.used").Text();
    };
    EXPECT_EQ(Mistake("v:\n  - {}\n  - device:\n      - cpu.used: 5\n", use),
              "h.yaml:4:19: v[1].device[0].\"cpu.used\": expected text in quotes, found 5");
}

TEST(YamlTree, RefusesAKeyTwice) {
    const auto check = [](const Cursor& cursor) {
        constexpr std::array<std::string_view, 2> known{"a", "b"};
        cursor.CheckKeys(known);
    };
    EXPECT_EQ(Mistake("v: {a: 1, b: 2, a: 3}", check),
              "h.yaml:1:17: v: expected each key once, found a again");
    const auto visit = [](const Cursor& cursor) {
        cursor.ForEachMember([](const std::string&, const Cursor&) {});
    };
    EXPECT_EQ(Mistake("v: {a: 1, \"a\": 3}", visit), "h.yaml:1:11: v: expected each key once, found a again");
}

TEST(YamlTree, RefusesUnknownKeysAndNamesTheKnownOnes) {
    const auto check = [](const Cursor& cursor) {
        constexpr std::array<std::string_view, 2> known{"a", "b"};
        cursor.CheckKeys(known);
    };
    EXPECT_EQ(Mistake("v: {a: 1, colour: 2}", check), "h.yaml:1:11: v: expected one of a, b, found colour");
}

TEST(YamlTree, RefusesAMissingMember) {
    EXPECT_EQ(Mistake("w: 1", UseAsText), "h.yaml:1:1: expected the member v, found none");
    EXPECT_EQ(Mistake("", UseAsText), "h.yaml:1:1: expected a mapping, found nothing");
}

TEST(YamlTree, SaysWhereTheSyntaxIsBroken) {
    EXPECT_THAT(ParseMistake("v: 1\nw: [1, 2\nx: 3\n"), ::testing::StartsWith("h.yaml:3:"));
    EXPECT_THAT(ParseMistake("v: \"open"), ::testing::StartsWith("h.yaml:1:"));
    EXPECT_THAT(ParseMistake("v:\n\tw: 1\n"),
                ::testing::StartsWith("h.yaml:2:3: expected well-formed YAML: "));
}

TEST(YamlTree, RefusesASecondDocument) {
    EXPECT_THAT(ParseMistake("v: 1\n---\nv: 2\n"),
                ::testing::HasSubstr("expected one document, found another"));
}

TEST(YamlTree, RefusesBytesThatAreNoText) {
    EXPECT_EQ(ParseMistake("v: ok\nw: a\xff\n"),
              "h.yaml:2:5: expected UTF-8 text without control characters");
    EXPECT_EQ(ParseMistake(std::string("v: a\x04\nw: 2\n")),
              "h.yaml:1:5: expected UTF-8 text without control characters");
    EXPECT_EQ(ParseMistake(std::string("v: a\0b", 6)),
              "h.yaml:1:5: expected UTF-8 text without control characters");
}

TEST(YamlTree, RefusesTagsAndKeysThatAreNoText) {
    EXPECT_EQ(ParseMistake("v: !!int \"5\""),
              "h.yaml:1:4: expected a value without a tag, found tag:yaml.org,2002:int");
    EXPECT_THAT(ParseMistake("? [a]\n: 1\n"), ::testing::HasSubstr("expected a key, found a list"));
}

TEST(YamlTree, FollowsAliases) {
    const Document document("a: &x {n: 5}\nv: [*x, *x]\n", "h.yaml");
    EXPECT_EQ(Cursor(document).Require("v").Items().at(1).Require("n").Whole(low, high), 5);
}

TEST(YamlTree, CountsAliasesAtTheirWholeSize) {
    std::string bomb = "a0: &a0 [x, x, x, x, x, x, x, x, x, x]\n";
    for (int level = 1; level < 12; ++level) {
        const std::string before = "*a" + std::to_string(level - 1);
        bomb += "a" + std::to_string(level) + ": &a" + std::to_string(level) + " [" + before;
        for (int count = 1; count < 10; ++count) {
            bomb.append(", ").append(before);
        }
        bomb += "]\n";
    }
    EXPECT_THAT(ParseMistake(bomb, 1'000'000), ::testing::HasSubstr("the document has too many values"));
    EXPECT_THAT(ParseMistake("[1, 2, 3]", 3), ::testing::HasSubstr("the document has too many values"));
    EXPECT_EQ(ParseMistake("[1, 2, 3]", 4), "none");
}

TEST(YamlTree, RefusesAnAliasWithinItsOwnValue) {
    EXPECT_THAT(ParseMistake("v: &x [1, *x]"),
                ::testing::HasSubstr("expected the name of a value that is complete"));
}

TEST(YamlTree, SurvivesDeepNesting) {
    EXPECT_NE(ParseMistake(std::string(100'000, '['), 1'000'000), "none");
}

}  // namespace
}  // namespace Vessad::Yaml
