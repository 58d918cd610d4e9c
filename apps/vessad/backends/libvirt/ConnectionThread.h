// A thread for calls to a host that may never return.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// A thread with a connection of its own, opened for the first task and again for the first one after it
// broke. Runs one task at a time, in the order of posting. Post may be called from any thread.
class ConnectionThread {
  public:
    // Receives the connection, or null and the error that kept it from being opened. Must not throw. A task
    // owns what it uses, because it may outlive the ConnectionThread.
    using Task = std::function<void(Connection*, const ApiError* failure)>;

    ConnectionThread(std::shared_ptr<Api> api, std::string uri);
    ConnectionThread(const ConnectionThread&) = delete;
    ConnectionThread& operator=(const ConnectionThread&) = delete;
    // Waits up to 2 s for a running task, drops those after it. A task that takes longer is abandoned with
    // its thread: both end when the host's call returns.
    ~ConnectionThread();

    // Returns at once.
    void Post(Task task);

  private:
    struct State;
    std::shared_ptr<State> state;
};

}  // namespace Vessad::Libvirt
