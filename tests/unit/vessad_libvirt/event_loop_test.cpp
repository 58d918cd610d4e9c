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

bool FailPoll() {
    if (!pollFails) {
        return false;
    }
    ++failures;
    errno = EINTR;  // the one error that the event loop below libvirt's does not log
    return true;
}

}  // namespace

// GLib calls the one or the other, as its release wants it.
extern "C" __attribute__((visibility("default"))) int poll(pollfd* descriptors, nfds_t count, int timeout) {
    static const auto original = reinterpret_cast<decltype(&poll)>(::dlsym(RTLD_NEXT, "poll"));
    return FailPoll() ? -1 : original(descriptors, count, timeout);
}

extern "C" __attribute__((visibility("default"))) int ppoll(pollfd* descriptors, nfds_t count,
                                                            const timespec* timeout,
                                                            const sigset_t* signals) {
    static const auto original = reinterpret_cast<decltype(&ppoll)>(::dlsym(RTLD_NEXT, "ppoll"));
    return FailPoll() ? -1 : original(descriptors, count, timeout, signals);
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
