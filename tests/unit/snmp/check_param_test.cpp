#include "apps/snmp/columns/CheckParam.h"

#include <gtest/gtest.h>

#include <array>

#include "tests/unit/snmp/handler_call.h"

namespace {

const Oid scalar{1, 3, 6, 1, 4, 1, 32473, 3, 1, 1};
const Oid instance = Join(scalar, {0});

u_char* AnswerAMatch(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                     WriteMethod** writeMethod) {
    static std::array<u_char, 4> bytes;
    const int result = CheckParam(vp, name, length, exact, varLen, writeMethod);
    EXPECT_TRUE(result == 0 || result == 1);
    return result == 1 ? bytes.data() : nullptr;
}

// Whether the request leads to the instance, which it becomes then; else it stays as it is.
bool Matches(const Oid& request, bool exact, const Oid& name = scalar) {
    const Answer answer = RegisteredVariable{"test", name, AnswerAMatch, 1, ASN_INTEGER}.Call(request, exact);
    EXPECT_EQ(answer.name, answer.answered ? Join(name, {0}) : request);
    EXPECT_EQ(answer.length, answer.answered ? 4U : Answer::unset);
    EXPECT_EQ(answer.writeMethodNull, answer.answered);
    return answer.answered;
}

TEST(CheckParam, MatchesAGetOfTheInstanceAndAGetNextFromBeforeIt) {
    EXPECT_TRUE(Matches(instance, true));
    for (const Oid& before : {scalar, Oid{}, Enterprise({}), Enterprise({3, 1, 0, 99, 99})}) {
        EXPECT_FALSE(Matches(before, true));
        EXPECT_TRUE(Matches(before, false));
    }
    EXPECT_FALSE(Matches(instance, false));
    for (const Oid& beyond :
         {Join(instance, {0}), Join(scalar, {1}), Enterprise({3, 1, 2}), Enterprise({3, 1, 2, 0})}) {
        EXPECT_FALSE(Matches(beyond, true));
        EXPECT_FALSE(Matches(beyond, false));
    }
    EXPECT_FALSE(Matches(Oid(MAX_OID_LEN, 1), true));
}

TEST(CheckParam, RefusesAnOidThatLeavesNoRoomForTheInstance) {
    EXPECT_FALSE(Matches({}, false, Oid(MAX_OID_LEN, 1)));
    EXPECT_TRUE(Matches({}, false, Oid(MAX_OID_LEN - 1, 1)));
}

}  // namespace
