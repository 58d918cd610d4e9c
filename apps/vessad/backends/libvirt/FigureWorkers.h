// Figures of many domains at once, from processes of which any may have stopped.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// A handful of threads, each with a connection of its own, that ask the domains one by one. A domain that
// does not answer holds up one thread, which is written off and replaced; the log says which domain it is and
// since when, and when it answers again. For one caller at a time.
class FigureWorkers {
  public:
    struct Domain {
        std::string uuid;
        std::string name;  // for the log
    };

    struct Waits {
        std::chrono::milliseconds patience{2000};   // how long a domain may take to answer
        std::chrono::milliseconds openWait{10000};  // how long the host may take to accept a connection
    };

    FigureWorkers(std::shared_ptr<Api> api, std::string uri, Waits waits);
    FigureWorkers(const FigureWorkers&) = delete;
    FigureWorkers& operator=(const FigureWorkers&) = delete;
    // Waits a moment for threads that are about to finish; those that wait for a domain are left behind.
    ~FigureWorkers();

    // The figures of the domains that answered, by UUID. Takes longer than `patience` only for the work
    // itself, and where the host is slow to accept connections: a domain that is known not to answer delays
    // nobody.
    std::map<std::string, Statistics> Ask(const std::vector<Domain>& domains);

    // Ends the question that is under way, and every later one, at once. May be called by any thread.
    void Stop();

  private:
    class State;
    std::shared_ptr<State> state;
};

}  // namespace Vessad::Libvirt
