#include "apps/snmp/columns/AnswerBuffers.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <limits>
#include <string>

namespace {

TEST(IntegerAnswer, IsFourBytesThatReadAsAnIntAndItsSignFillsTheBuffer) {
    SNMP::IntegerAnswer answer;
    for (const std::int32_t value :
         {0, 1, -2, 32473, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        std::size_t length = 0;
        int read = 0;
        long whole = value;
        const u_char* const bytes = answer.Set(value, &length);
        ASSERT_EQ(length, 4U);
        std::memcpy(&read, bytes, sizeof(read));
        EXPECT_EQ(read, value);
        if constexpr (std::endian::native == std::endian::little) {
            std::memcpy(&whole, bytes, sizeof(whole));
        }
        EXPECT_EQ(whole, value);
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
