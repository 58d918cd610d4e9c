#include "apps/vessad/backends/libvirt/EventLoop.h"

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"
#include "apps/vessad/backends/libvirt/SignalFreeThread.h"

namespace Vessad::Libvirt {
namespace {

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
        while (!stopping) {
            virEventRunDefaultImpl();
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
