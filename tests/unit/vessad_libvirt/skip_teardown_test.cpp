#include "apps/vessad/backends/libvirt/SkipTeardown.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace Vessad::Libvirt {
namespace {

// Exits with code 7. Writes "handler torn down" from an exit handler and a static destructor.
[[noreturn]] void Exit(bool skip) {
    static const struct Witness {
        ~Witness() { std::fputs("torn down", stderr); }
    } witness;
    std::atexit([] { std::fputs("handler ", stderr); });
    if (skip) {
        SkipTeardownAtExit();
        SkipTeardownAtExit();
    }
    std::exit(7);
}

TEST(SkipTeardownDeathTest, KeepsTheExitCodeAndRunsNoHandlerOrDestructor) {
    EXPECT_EXIT(Exit(false), testing::ExitedWithCode(7), "handler torn down");
    EXPECT_EXIT(Exit(true), testing::ExitedWithCode(7), "^$");
}

}  // namespace
}  // namespace Vessad::Libvirt
