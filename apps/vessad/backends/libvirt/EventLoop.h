// libvirt's event loop, which keepalive needs: it sends the probes and notices a host that stopped replying.
#pragma once

#include <atomic>
#include <thread>

namespace Vessad::Libvirt {

// Runs the loop in a thread while it lives. At most one object at a time: libvirt has one loop per process.
// Made and destroyed by one thread.
class EventLoop {
  public:
    // Throws ApiError.
    EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;
    ~EventLoop();

  private:
    int timer = -1;
    std::atomic<bool> stopping = false;
    std::thread thread;
};

}  // namespace Vessad::Libvirt
