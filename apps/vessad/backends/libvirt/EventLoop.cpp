#include "apps/vessad/backends/libvirt/EventLoop.h"

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

#include <chrono>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"
#include "apps/vessad/backends/libvirt/SignalFreeThread.h"

namespace Vessad::Libvirt {
namespace {

// No more rounds than these in that time.
constexpr int roundsPerCheck = 100;
constexpr std::chrono::milliseconds shortestCheck{100};

void RegisterOnce() {
    static const int registered = virEventRegisterDefaultImpl();
    if (registered < 0) {
        throw ApiError("libvirt's event loop cannot be set up", ApiError::Kind::Permanent);
    }
}

}  // namespace

EventLoop::EventLoop() {
    RegisterOnce();
    // Disabled until the destructor uses it to wake the loop.
    timer = virEventAddTimeout(
        -1, [](int self, void*) { virEventUpdateTimeout(self, -1); }, nullptr, nullptr);
    if (timer < 0) {
        throw ApiError("libvirt's event loop cannot be set up", ApiError::Kind::Permanent);
    }
    thread = SignalFreeThread([this] {
        // libvirt does not report that polling fails, so only the rate shows it.
        while (!stopping) {
            const auto begun = std::chrono::steady_clock::now();
            for (int round = 0; round < roundsPerCheck && !stopping; ++round) {
                virEventRunDefaultImpl();
            }
            if (!stopping) {
                std::this_thread::sleep_until(begun + shortestCheck);
            }
        }
    });
}

EventLoop::~EventLoop() {
    stopping = true;
    virEventUpdateTimeout(timer, 0);
    thread.join();
    virEventRemoveTimeout(timer);
}

}  // namespace Vessad::Libvirt
