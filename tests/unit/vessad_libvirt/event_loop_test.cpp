// libvirt's event loop while polling fails.
#include "apps/vessad/backends/libvirt/EventLoop.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

namespace {

std::atomic<bool> pollFails = false;
std::atomic<int> failures = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) int poll(pollfd* descriptors, nfds_t count, int timeout) {
    using Poll = int (*)(pollfd*, nfds_t, int);
    static const auto original = reinterpret_cast<Poll>(::dlsym(RTLD_NEXT, "poll"));
    if (pollFails) {
        ++failures;
        errno = EINTR;  // the one error that the event loop below libvirt's does not log
        return -1;
    }
    return original(descriptors, count, timeout);
}

namespace Vessad::Libvirt {
namespace {

TEST(EventLoopTest, DoesNotSpinWhenPollingFails) {
    pollFails = true;
    {
        const EventLoop loop;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    pollFails = false;
    EXPECT_GT(failures, 0);
    EXPECT_LT(failures, 1000);
}

}  // namespace
}  // namespace Vessad::Libvirt
