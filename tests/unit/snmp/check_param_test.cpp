#include "apps/snmp/columns/CheckParam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "tests/support/in_process_agent.h"

namespace {

using TestSupport::Oid;

int NeverCalled(int, u_char*, u_char, size_t, u_char*, oid*, size_t) {
    return 0;
}

struct Match {
    int result;
    Oid name;
    std::size_t varLen = 777;
    WriteMethod* writeMethod = NeverCalled;
};

Match Check(const Oid& scalar, const Oid& request, int exact) {
    variable entry{};
    entry.namelen = static_cast<u_char>(scalar.size());
    std::copy_n(scalar.begin(), std::min<std::size_t>(scalar.size(), MAX_OID_LEN), entry.name);
    std::array<oid, MAX_OID_LEN> name{};
    std::copy(request.begin(), request.end(), name.begin());
    std::size_t length = request.size();
    Match match{};
    match.result = CheckParam(&entry, name.data(), &length, exact, &match.varLen, &match.writeMethod);
    match.name.assign(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(length));
    return match;
}

const Oid scalar{1, 3, 6, 1, 4, 1, 32473, 3, 1, 1};
const Oid instance{1, 3, 6, 1, 4, 1, 32473, 3, 1, 1, 0};

void ExpectMatch(const Match& match) {
    EXPECT_EQ(match.result, 1);
    EXPECT_EQ(match.name, instance);
    EXPECT_EQ(match.varLen, 4U);
    EXPECT_EQ(match.writeMethod, nullptr);
}

void ExpectNoMatch(const Match& match, const Oid& request) {
    EXPECT_EQ(match.result, 0);
    EXPECT_EQ(match.name, request);
    EXPECT_EQ(match.varLen, 777U);
    EXPECT_EQ(match.writeMethod, &NeverCalled);
}

TEST(CheckParam, MatchesAGetOfTheInstance) {
    ExpectMatch(Check(scalar, instance, 1));
}

TEST(CheckParam, RefusesAGetOfAnythingElse) {
    const Oid others[] = {
        scalar,
        {1, 3, 6, 1, 4, 1, 32473, 3, 1, 1, 1},
        {1, 3, 6, 1, 4, 1, 32473, 3, 1, 1, 0, 0},
        {1, 3, 6, 1, 4, 1, 32473, 3, 1, 2, 0},
        {1, 3, 6},
        {},
        Oid(MAX_OID_LEN, 1),
    };
    for (const Oid& other : others) {
        ExpectNoMatch(Check(scalar, other, 1), other);
    }
}

TEST(CheckParam, MatchesAGetNextFromBeforeTheInstance) {
    ExpectMatch(Check(scalar, scalar, 0));
    ExpectMatch(Check(scalar, {}, 0));
    ExpectMatch(Check(scalar, {1, 3, 6, 1, 4, 1, 32473}, 0));
    ExpectMatch(Check(scalar, {1, 3, 6, 1, 4, 1, 32473, 3, 1, 0, 99, 99}, 0));
}

TEST(CheckParam, RefusesAGetNextFromTheInstanceOrBeyond) {
    ExpectNoMatch(Check(scalar, instance, 0), instance);
    const Oid deeper{1, 3, 6, 1, 4, 1, 32473, 3, 1, 1, 0, 0};
    ExpectNoMatch(Check(scalar, deeper, 0), deeper);
    const Oid beyond{1, 3, 6, 1, 4, 1, 32473, 3, 1, 2};
    ExpectNoMatch(Check(scalar, beyond, 0), beyond);
}

TEST(CheckParam, RefusesAnOidThatLeavesNoRoomForTheInstance) {
    ExpectNoMatch(Check(Oid(MAX_OID_LEN, 1), {}, 0), {});
    EXPECT_EQ(Check(Oid(MAX_OID_LEN - 1, 1), {}, 0).result, 1);
}

}  // namespace
