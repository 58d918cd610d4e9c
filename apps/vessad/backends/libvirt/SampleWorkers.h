// Samples the statistics of many domains at once, although any of their processes may hang.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"
#include "apps/vessad/backends/libvirt/SampleTracker.h"

namespace Vessad::Libvirt {

// A few threads, each with a connection of its own, that sample one domain at a time. A thread whose domain
// does not respond is replaced; see SampleTracker for the states.
class SampleWorkers {
  public:
    using Domain = SampledDomain;
    using Timeouts = SampleTimeouts;

    SampleWorkers(std::shared_ptr<Api> api, std::string uri, Timeouts timeouts);
    SampleWorkers(const SampleWorkers&) = delete;
    SampleWorkers& operator=(const SampleWorkers&) = delete;
    // Waits up to 3 s for threads that open or close a connection; those in a call are abandoned.
    ~SampleWorkers();

    // Returns the statistics of the domains that responded, by UUID. Waits for the others no longer than the
    // timeouts say. Works with fewer threads, or none, while the system grants no more. Calls `progress`
    // every few seconds. For one caller at a time.
    std::map<std::string, Statistics> Sample(
        const std::vector<Domain>& domains, const std::function<void()>& progress = [] {});

    // Makes a running Sample and every later one return at once. May be called from any thread.
    void Stop();

  private:
    class State;
    std::shared_ptr<State> state;
};

}  // namespace Vessad::Libvirt
