// What one connection can reach, and whether it has logged in.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "apps/vessad/TicketStore.h"
#include "apps/vessad/backends/Backend.h"
#include "runtime/ordane/dispatcher.h"

namespace Vessad {

// What all connections share. Outlives them.
struct Services {
    Backend& backend;
    TicketStore& tickets;
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

// Not thread-safe: one call at a time.
class Session final : public Ordane::ObjectSource {
  public:
    // `connection` owns the tickets; `name` is what log lines call it.
    Session(Services& services, std::uint64_t connection, std::string name);
    // Gives the connection's ticket up.
    ~Session() override;

    Tessim::Ref<Ordane::ManagedObject> Find(const Ordane::MoRef& reference) override;
    bool IsLoggedIn() const override { return loggedIn; }

    // Whether a login was refused since this was last asked. Its answer is to be sent late.
    bool TakeRefusal();

  private:
    class ServiceInstanceObject;
    class SessionManagerObject;

    Services& services;
    const std::uint64_t connection;
    const std::string name;
    bool loggedIn = false;
    bool refused = false;
};

}  // namespace Vessad
