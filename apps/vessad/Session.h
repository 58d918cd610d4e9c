// The login state of a connection, and the objects that it can reach.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "apps/vessad/ChangeTracker.h"
#include "apps/vessad/LogLimit.h"
#include "apps/vessad/TicketStore.h"
#include "apps/vessad/backends/Backend.h"
#include "runtime/ordane/dispatcher.h"

namespace Vessad {

// What all connections share. Must outlive them.
struct Services {
    Backend& backend;
    TicketStore& tickets;
    LogLimit log{};
    ChangeTracker changes{};
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

// Not thread-safe: one call at a time.
class Session final : public Ordane::ObjectSource {
  public:
    // `connection` is the number of the connection, which owns its ticket.
    Session(Services& services, std::uint64_t connection);
    // Removes the connection's ticket.
    ~Session() override;

    Tessim::Ref<Ordane::ManagedObject> Find(const Ordane::MoRef& reference) override;
    bool IsLoggedIn() const override { return loggedIn; }

    // Returns which ticket the client did not use and who can read it, for the log; empty when there is none.
    std::string DescribeUnusedTicket() const;

    // Returns whether a login was rejected since the last call. The reply to it is to be delayed.
    bool TakeRejectedLogin();

  private:
    class ServiceInstanceObject;
    class SessionManagerObject;

    Services& services;
    const std::uint64_t connection;
    bool loggedIn = false;
    bool loginRejected = false;
};

}  // namespace Vessad
