#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "apps/snmp/collections/SNMPStrings.h"
#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"

namespace {

using TestSupport::LogLine;
using HeapString = std::unique_ptr<char, decltype(&std::free)>;

const LogLine noMemory{4, "SNMPAllocString: strdup() failed.\n"};

HeapString Alloc(const char* source) {
    return {SNMPAllocString(source), &std::free};
}

TEST(AllocString, CopiesItsSource) {
    const std::string source = "web-1";
    const HeapString copy = Alloc(source.c_str());
    EXPECT_STREQ(copy.get(), "web-1");
    EXPECT_NE(copy.get(), source.c_str());
}

TEST(AllocString, MakesANewCopyEachTime) {
    EXPECT_NE(Alloc("a").get(), Alloc("a").get());
}

TEST(AllocString, ReadsAsAnErrorWithoutASource) {
    const HeapString copy = Alloc(nullptr);
    EXPECT_STREQ(copy.get(), "SNMP Error");
}

TEST(AllocString, WarnsAndReturnsNullWithoutMemory) {
    TestSupport::LogCapture log;
    TestSupport::FaultInjection faults;
    faults.FailStrdup();
    EXPECT_EQ(Alloc("web-1"), nullptr);
    EXPECT_EQ(log.Take(), std::vector{noMemory});
    faults.FailStrdup();
    EXPECT_EQ(Alloc(nullptr), nullptr);
    EXPECT_EQ(log.Take(), std::vector{noMemory});
    EXPECT_NE(Alloc("web-1"), nullptr);
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

TEST(LastingString, KeepsOneCopyPerText) {
    const std::string source = "a text that is too long to be kept inside of a string object";
    const char* const first = SNMPLastingString(source.c_str());
    EXPECT_STREQ(first, source.c_str());
    EXPECT_NE(first, source.c_str());
    EXPECT_EQ(SNMPLastingString(std::string(source).c_str()), first);
    EXPECT_NE(SNMPLastingString("another"), first);
}

TEST(LastingString, StaysWhereItIsWhileOthersAreAdded) {
    const char* const first = SNMPLastingString("first");
    for (int i = 0; i < 1000; ++i) {
        SNMPLastingString(std::to_string(i).c_str());
    }
    EXPECT_EQ(SNMPLastingString("first"), first);
    EXPECT_STREQ(first, "first");
}

TEST(LastingString, ReadsAsAnErrorWithoutASource) {
    EXPECT_STREQ(SNMPLastingString(nullptr), "SNMP Error");
}

TEST(LastingString, WarnsAndReturnsNullWithoutMemory) {
    TestSupport::LogCapture log;
    TestSupport::FaultInjection faults;
    faults.FailNew();
    EXPECT_EQ(SNMPLastingString("there was no memory for this"), nullptr);
    EXPECT_EQ(log.Take(), std::vector{noMemory});
    EXPECT_STREQ(SNMPLastingString("there was no memory for this"), "there was no memory for this");
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

TEST(LastingString, NeedsNoMemoryForAKnownText) {
    const char* const known = SNMPLastingString("known");
    TestSupport::FaultInjection faults;
    faults.FailNew();
    EXPECT_EQ(SNMPLastingString("known"), known);
}

}  // namespace
