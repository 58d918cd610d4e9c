// The other end of a connection, with the backoff after a timeout. Internal to the runtime.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>

namespace Tessim {

class Peer {
  public:
    // `host` is "localhost", which is the IPv4 loopback address and never goes to a resolver, or a numeric
    // address. Throws InvalidArgumentException for anything else.
    Peer(const std::string& host, std::uint16_t port);

    const sockaddr* GetAddress() const noexcept { return reinterpret_cast<const sockaddr*>(&address); }
    socklen_t GetAddressLength() const noexcept { return length; }
    // For messages: "localhost:902", "[::1]:902".
    const std::string& GetName() const noexcept { return name; }

    // Throws TimeoutException, with the message of the last timeout, during the backoff: for 5 s after any
    // connection of this process to the same address and port timed out. Thread-safe.
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
