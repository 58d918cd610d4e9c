#include "apps/snmp/columns/AnswerBuffers.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <limits>
#include <string>

namespace {

TEST(IntegerAnswer, IsFourBytesThatReadAsAnInt) {
    SNMP::IntegerAnswer answer;
    for (const std::int32_t value :
         {0, 1, -1, 32473, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        std::size_t length = 0;
        const u_char* const bytes = answer.Set(value, &length);
        int read = 0;
        ASSERT_EQ(length, 4U);
        std::memcpy(&read, bytes, sizeof(read));
        EXPECT_EQ(read, value);
    }
}

TEST(IntegerAnswer, ExtendsTheSignOverTheWholeBuffer) {
    if constexpr (std::endian::native == std::endian::little) {
        SNMP::IntegerAnswer answer;
        std::size_t length = 0;
        long read = 0;
        std::memcpy(&read, answer.Set(-2, &length), sizeof(read));
        EXPECT_EQ(read, -2);
        std::memcpy(&read, answer.Set(2, &length), sizeof(read));
        EXPECT_EQ(read, 2);
    }
}

std::string SetText(SNMP::StringAnswer& answer, const char* text) {
    std::size_t length = 99999;
    const u_char* const bytes = answer.Set(text, &length);
    EXPECT_EQ(bytes[length], '\0');
    return {reinterpret_cast<const char*>(bytes), length};
}

TEST(StringAnswer, IsTheTextWithoutItsTerminator) {
    SNMP::StringAnswer answer;
    for (const char* const text : {"lsilogic", "x", "", "before"}) {
        EXPECT_EQ(SetText(answer, text), text);
    }
    EXPECT_EQ(SetText(answer, nullptr), "");
}

TEST(StringAnswer, IsTruncatedBetweenCharactersTo2559Bytes) {
    SNMP::StringAnswer answer;
    const std::string longest(2559, 'a');
    for (const std::string& more : {std::string(), std::string("b"), std::string(100000, 'a')}) {
        EXPECT_EQ(SetText(answer, (longest + more).c_str()), longest);
    }
    for (const std::size_t size : {2557U, 2558U}) {
        const std::string text(size, 'a');
        EXPECT_EQ(SetText(answer, (text + "\u00e9\u00e9").c_str()), text + (size == 2557 ? "\u00e9" : ""));
    }
}

TEST(Counter64Answer, IsOneStructureOfTwo32BitHalves) {
    SNMP::Counter64Answer answer;
    const struct {
        std::uint64_t value;
        u_long high;
        u_long low;
    } cases[] = {{0, 0, 0},
                 {4294967296, 1, 0},
                 {4294967295, 0, 4294967295},
                 {2147483648, 0, 2147483648},
                 {4294967301, 1, 5},
                 {4611686018427387904, 1073741824, 0},
                 {18446744073709551615U, 4294967295, 4294967295},
                 {0x123456789abcdef0, 0x12345678, 0x9abcdef0}};
    for (const auto& expected : cases) {
        std::size_t length = 0;
        counter64 read{};
        const u_char* const bytes = answer.Set(expected.value, &length);
        ASSERT_EQ(length, sizeof(read));
        std::memcpy(&read, bytes, sizeof(read));
        EXPECT_EQ(read.high, expected.high);
        EXPECT_EQ(read.low, expected.low);
    }
}

TEST(ObjectIdAnswer, HasTheSizeOfItsSubIdentifiersOfWhichItHoldsAtMost128) {
    SNMP::ObjectIdAnswer answer;
    for (oid subId = 4294967295; subId > 4294967295 - 200; --subId) {
        answer.Append(subId);
    }
    std::size_t length = 0;
    oid read[128];
    const u_char* const bytes = answer.Set(&length);
    ASSERT_EQ(length, sizeof(read));
    std::memcpy(read, bytes, sizeof(read));
    EXPECT_EQ(read[0], 4294967295U);
    EXPECT_EQ(read[127], 4294967295U - 127);
    answer.Clear();
    answer.Set(&length);
    EXPECT_EQ(length, 0U);
    answer.Append(1);
    answer.Set(&length);
    EXPECT_EQ(length, sizeof(oid));
}

}  // namespace
