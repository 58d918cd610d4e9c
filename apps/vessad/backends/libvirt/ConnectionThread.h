// A thread for the calls to a host that may not come back.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// A thread with a connection of its own, which it opens when it needs one and replaces when it broke. It does
// one task at a time; nobody waits for it but who wants to.
class ConnectionThread {
  public:
    // A task is given the connection, or the error that kept it from being opened.
    using Task = std::function<void(Connection*, const ApiError* failure)>;

    ConnectionThread(std::shared_ptr<Api> api, std::string uri);
    ConnectionThread(const ConnectionThread&) = delete;
    ConnectionThread& operator=(const ConnectionThread&) = delete;
    // Waits a moment for a running task. One that takes longer is left behind: it ends, with the thread, when
    // the host lets it, so a task may own what it uses, but borrow nothing.
    ~ConnectionThread();

    // Runs the task after those before it. It must not throw.
    void Post(Task task);

  private:
    struct State;
    std::shared_ptr<State> state;
};

}  // namespace Vessad::Libvirt
