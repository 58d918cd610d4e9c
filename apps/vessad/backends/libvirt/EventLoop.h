// libvirt's event loop, which answers the host's keepalive probes and notices a host that stopped answering.
#pragma once

#include <atomic>
#include <thread>

namespace Vessad::Libvirt {

// Runs the loop in a thread while it lives. libvirt has one loop per process, so there may be one of these at
// a time.
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
