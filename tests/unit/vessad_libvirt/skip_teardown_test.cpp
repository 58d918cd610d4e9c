#include "apps/vessad/backends/libvirt/SkipTeardown.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace Vessad::Libvirt {
namespace {

constexpr int status = 7;

// Says so when it is torn down.
struct Witness {
    ~Witness() { std::fputs("torn down", stderr); }
};

[[noreturn]] void End(bool leaveBehind) {
    static const Witness witness;
    std::atexit([] { std::fputs("handler ", stderr); });
    if (leaveBehind) {
        SkipTeardownAtExit();
        SkipTeardownAtExit();
    }
    std::exit(status);
}

TEST(LeftBehindDeathTest, WithoutAThreadTheProgramIsTornDown) {
    EXPECT_EXIT(End(false), testing::ExitedWithCode(status), "handler torn down");
}

TEST(LeftBehindDeathTest, WithAThreadNothingIsTornDownAndTheExitCodeIsKept) {
    EXPECT_EXIT(End(true), testing::ExitedWithCode(status), "^$");
}

}  // namespace
}  // namespace Vessad::Libvirt
