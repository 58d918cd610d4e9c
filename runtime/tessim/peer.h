// The other end of a connection, with the backoff after a timeout. Internal to the runtime.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>

#include "runtime/tessim/time_budget.h"

namespace Tessim {

// The pause after a timeout, in which a peer is not tried again: 5 s, twice as long for each further timeout
// up to 20 s, and 5 s again once a minute without one has followed the last pause.
class Backoff {
  public:
    // Starts the pause after a timeout at `now`, about which `message` tells.
    void Start(Clock::time_point now, std::string message);
    bool IsActive(Clock::time_point now) const { return now < end; }
    // Of the last timeout.
    const std::string& GetMessage() const { return message; }

  private:
    Clock::duration length{};
    Clock::time_point end{};
    std::string message;
};

class Peer {
  public:
    // `host` is "localhost", which is the IPv4 loopback address and never goes to a resolver, or a numeric
    // address. Throws InvalidArgumentException for anything else.
    Peer(const std::string& host, std::uint16_t port);

    const sockaddr* GetAddress() const noexcept { return reinterpret_cast<const sockaddr*>(&address); }
    socklen_t GetAddressLength() const noexcept { return length; }
    // For messages: "localhost:902", "[::1]:902".
    const std::string& GetName() const noexcept { return name; }

    // Throws TimeoutException, with the message of the last timeout, during the backoff after any connection
    // of this process to the same address and port timed out. Thread-safe.
    void CheckBackoff() const;

    // Starts the backoff and throws TimeoutException. `step` names the wait that timed out. Thread-safe.
    [[noreturn]] void ThrowTimeout(const char* step) const;

  private:
    std::string GetKey() const;

    sockaddr_storage address{};
    socklen_t length = 0;
    std::string name;
};

}  // namespace Tessim
