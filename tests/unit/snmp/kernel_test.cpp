#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "apps/snmp/SNMPKelv.h"
#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp/handler_call.h"

namespace {

using TestSupport::TakeDetail;

const Column kernelLoaded{SNMP_KelvNorv, 1, {4, 1, 1, 1}};
const std::string processDirectory = "/proc/tovric/vm";

TEST(KernelLoaded, IsYesExactlyWhileTheProcessDirectoryExists) {
    TestSupport::LogCapture log;
    TestSupport::FaultInjection faults;
    faults.SetExists(processDirectory, true);
    EXPECT_EQ(kernelLoaded.Get({0}).bytes, "yes");
    faults.SetExists(processDirectory, false);
    EXPECT_EQ(kernelLoaded.Get({0}).bytes, "no");
    faults.SetExists(processDirectory, true);
    EXPECT_EQ(kernelLoaded.Get({0}).bytes, "yes");
    EXPECT_EQ(faults.Stat64Calls(), 3);
    EXPECT_EQ(log.Take(), std::vector<TestSupport::LogLine>{});
}

TEST(KernelLoaded, IsNoWhateverKeepsTheDirectoryFromBeingSeen) {
    TestSupport::LogCapture log;
    TestSupport::FaultInjection faults;
    for (const int error : {ENOENT, EACCES, EIO, ENOTDIR, ELOOP, ENAMETOOLONG, EOVERFLOW, ENOMEM}) {
        faults.FailStat64(processDirectory, error);
        const Answer answer = kernelLoaded.Get({0});
        ASSERT_TRUE(answer.answered) << error;
        EXPECT_EQ(answer.bytes, "no") << error;
    }
    EXPECT_EQ(faults.Stat64Calls(), 8);
    EXPECT_EQ(log.Take(), std::vector<TestSupport::LogLine>{});
}

TEST(KernelLoaded, LooksAtTheFileSystemItself) {
    // No machine that builds this has the directory.
    EXPECT_EQ(kernelLoaded.Get({0}).bytes, "no");
}

TEST(KernelLoaded, IsFoundByGetNext) {
    const Answer answer = kernelLoaded.GetNext({});
    EXPECT_TRUE(answer.answered);
    EXPECT_TRUE(answer.writeMethodNull);
    EXPECT_EQ(answer.name, Enterprise({4, 1, 1, 1, 0}));
    EXPECT_FALSE(kernelLoaded.GetNext({0}).answered);
}

TEST(KernelLoaded, IsNotTestedForAnotherInstance) {
    TestSupport::FaultInjection faults;
    faults.SetExists(processDirectory, true);
    EXPECT_FALSE(kernelLoaded.Get({}).answered);
    EXPECT_FALSE(kernelLoaded.Get({1}).answered);
    EXPECT_EQ(faults.Stat64Calls(), 0);
}

TEST(KernelLoaded, IsTheOnlyVariableOfItsGroup) {
    TakeDetail();
    for (const int magic : {0, 2}) {
        const Column unknown{SNMP_KelvNorv, magic, {4, 1, 1, 1}};
        EXPECT_FALSE(unknown.Get({0}).answered);
        EXPECT_EQ(TakeDetail(), "SNMPKelvNorv: Unknown variable requested.\n");
    }
    EXPECT_TRUE(kernelLoaded.Get({0}).answered);
    EXPECT_EQ(TakeDetail(), "");
}

}  // namespace
