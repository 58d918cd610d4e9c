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

Answer Call(const Oid& name, const Oid& request, bool exact) {
    return RegisteredVariable{"test", name, AnswerAMatch, 1, ASN_INTEGER}.Call(request, exact);
}

void ExpectMatch(const Oid& request, bool exact, const Oid& name = scalar) {
    const Answer answer = Call(name, request, exact);
    EXPECT_TRUE(answer.answered);
    EXPECT_EQ(answer.name, Join(name, {0}));
    EXPECT_EQ(answer.length, 4U);
    EXPECT_TRUE(answer.writeMethodNull);
}

void ExpectNoMatch(const Oid& request, bool exact, const Oid& name = scalar) {
    const Answer answer = Call(name, request, exact);
    EXPECT_FALSE(answer.answered);
    EXPECT_EQ(answer.name, request);
    EXPECT_EQ(answer.length, Answer::unset);
    EXPECT_FALSE(answer.writeMethodNull);
}

TEST(CheckParam, MatchesAGetOfTheInstanceOnly) {
    ExpectMatch(instance, true);
    for (const Oid& other :
         {scalar, Join(scalar, {1}), Join(instance, {0}), Oid{1, 3, 6, 1, 4, 1, 32473, 3, 1, 2, 0},
          Oid{1, 3, 6}, Oid{}, Oid(MAX_OID_LEN, 1)}) {
        ExpectNoMatch(other, true);
    }
}

TEST(CheckParam, MatchesAGetNextFromBeforeTheInstanceOnly) {
    for (const Oid& before : {scalar, Oid{}, Enterprise({}), Enterprise({3, 1, 0, 99, 99})}) {
        ExpectMatch(before, false);
    }
    for (const Oid& other : {instance, Join(instance, {0}), Enterprise({3, 1, 2})}) {
        ExpectNoMatch(other, false);
    }
}

TEST(CheckParam, RefusesAnOidThatLeavesNoRoomForTheInstance) {
    ExpectNoMatch({}, false, Oid(MAX_OID_LEN, 1));
    ExpectMatch({}, false, Oid(MAX_OID_LEN - 1, 1));
}

}  // namespace
