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

TEST(AllocString, MakesANewCopyEachTime) {
    const std::string source = "web-1";
    const HeapString first = Alloc(source.c_str());
    EXPECT_STREQ(first.get(), "web-1");
    EXPECT_NE(first.get(), source.c_str());
    EXPECT_NE(Alloc(source.c_str()).get(), first.get());
}

TEST(AllocString, ReadsAsAnErrorWithoutASource) {
    EXPECT_STREQ(Alloc(nullptr).get(), "SNMP Error");
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

TEST(LastingString, KeepsOneCopyPerTextWhileOthersAreAdded) {
    const std::string source = "a text that is too long to be kept inside of a string object";
    const char* const first = SNMPLastingString(source.c_str());
    const char* const brief = SNMPLastingString("brief");
    EXPECT_NE(first, source.c_str());
    for (int i = 0; i < 1000; ++i) {
        EXPECT_NE(SNMPLastingString(std::to_string(i).c_str()), first);
    }
    TestSupport::FaultInjection faults;
    faults.FailNew();  // a known text needs no memory
    EXPECT_EQ(SNMPLastingString("brief"), brief);
    EXPECT_STREQ(brief, "brief");
    EXPECT_EQ(SNMPLastingString(source.c_str()), first);
    EXPECT_STREQ(first, source.c_str());
}

TEST(LastingString, ReadsAsAnErrorWithoutASource) {
    EXPECT_STREQ(SNMPLastingString(nullptr), "SNMP Error");
}

TEST(LastingString, ReadsAsAnErrorBeyond16MiBOfTexts) {
    TestSupport::LogCapture log;
    const std::string mebibyte(1UL << 20U, 'x');
    for (int i = 0; i < 15; ++i) {
        const std::string text = std::to_string(i) + mebibyte;
        EXPECT_EQ(SNMPLastingString(text.c_str()), text);
    }
    EXPECT_STREQ(SNMPLastingString(("15" + mebibyte).c_str()), "SNMP Error");
    EXPECT_STREQ(SNMPLastingString(("16" + mebibyte).c_str()), "SNMP Error");
    EXPECT_EQ(log.Take(),
              (std::vector<LogLine>{{4,
                                     "SNMPLastingString: 16777216 bytes are in use, further texts "
                                     "read as \"SNMP Error\".\n"}}));
    EXPECT_EQ(SNMPLastingString(("0" + mebibyte).c_str()), "0" + mebibyte);
    EXPECT_STREQ(SNMPLastingString("there is room for this"), "there is room for this");
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

}  // namespace
