// Statistics from hosts that know libvirt's no-wait flag and from those that do not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libvirt/libvirt.h>

#include <array>
#include <string>

#include "apps/vessad/backends/libvirt/RealLibvirt.h"

namespace {

bool knowsFlag = true;
int busyCalls = 0;   // so many calls find another program's job on the domain
std::string called;  // one letter for each call: n with the flag, w without
virTypedParameter mixed[] = {{"text", VIR_TYPED_PARAM_STRING, {.s = const_cast<char*>("fd0")}},
                             {"int", VIR_TYPED_PARAM_INT, {.i = 1}},
                             {"negative", VIR_TYPED_PARAM_INT, {.i = -1}},
                             {"unsigned", VIR_TYPED_PARAM_UINT, {.ui = 2}},
                             {"long", VIR_TYPED_PARAM_LLONG, {.l = 3}},
                             {"real", VIR_TYPED_PARAM_DOUBLE, {.d = 4}},
                             {"balloon.rss", VIR_TYPED_PARAM_ULLONG, {.ul = 5}}};
bool servesMixed = false;

}  // namespace

// In the place of libvirt's own.
extern "C" int virDomainListGetStats(virDomainPtr* domains, unsigned, virDomainStatsRecordPtr** list,
                                     unsigned flags) {
    static virTypedParameter whole{"balloon.rss", VIR_TYPED_PARAM_ULLONG, {.ul = 7}};
    static virTypedParameter partial{"balloon.maximum", VIR_TYPED_PARAM_ULLONG, {.ul = 9}};
    static virDomainStatsRecord record{nullptr, nullptr, 1};
    static std::array<virDomainStatsRecordPtr, 2> records{&record, nullptr};
    called += flags == VIR_CONNECT_GET_ALL_DOMAINS_STATS_NOWAIT ? 'n' : 'w';
    if (flags != 0 && !knowsFlag) {
        // Leaves the error of an invalid argument.
        virDomainLookupByUUIDString(virDomainGetConnect(*domains), "");
        return -1;
    }
    record.params = servesMixed ? mixed : busyCalls-- > 0 ? &partial : &whole;
    record.nparams = servesMixed ? static_cast<int>(std::size(mixed)) : 1;
    *list = records.data();
    return 1;
}
extern "C" void virDomainStatsRecordListFree(virDomainStatsRecordPtr*) {}

namespace Vessad::Libvirt {
namespace {

struct Case {
    bool knowsFlag;
    int busyCalls;
    const char* called;       // by two samples on one connection
    const char* firstSample;  // the statistic that the first one has
};

TEST(NoWaitTest, SamplesWithoutWaitingForOtherProgramsWhereTheHostCan) {
    for (const Case& host :
         {Case{true, 0, "nn", "balloon.rss"}, Case{true, 1, "nnn", "balloon.rss"},
          Case{true, 3, "nnnn", "balloon.maximum"}, Case{false, 0, "nww", "balloon.rss"}}) {
        knowsFlag = host.knowsFlag;
        busyCalls = host.busyCalls;
        called.clear();
        const auto connection = MakeApi()->Open("test:///default");
        const std::string uuid = connection->GetDomains().at(0).uuid;
        EXPECT_TRUE(connection->GetStatistics(uuid).contains(host.firstSample));
        EXPECT_TRUE(connection->GetStatistics(uuid).contains("balloon.rss"));
        EXPECT_EQ(called, host.called);
    }
}

TEST(NoWaitTest, TakesTextsAndWholeNumbersOfStatistics) {
    servesMixed = true;
    const auto connection = MakeApi()->Open("test:///default");
    EXPECT_EQ(
        connection->GetStatistics(connection->GetDomains().at(0).uuid),
        (Statistics{{"text", "fd0"}, {"int", 1U}, {"unsigned", 2U}, {"long", 3U}, {"balloon.rss", 5U}}));
    const auto unknown = [&] { connection->GetStatistics("00000000-0000-4000-8000-000000000000"); };
    EXPECT_THAT(unknown,
                testing::Throws<ApiError>(testing::Property(&ApiError::GetKind, ApiError::Kind::Gone)));
}

}  // namespace
}  // namespace Vessad::Libvirt
