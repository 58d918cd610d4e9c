// The other end of a connection, with the backoff after a timeout.
#pragma once

#include <sys/socket.h>

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "runtime/tessim/file_descriptor.h"
#include "runtime/tessim/time_budget.h"

namespace Tessim {

// The backoff after a timeout, during which the peer is not tried again: 5 s, doubled after each further
// timeout up to 20 s, and 5 s again after a minute without one. It ends after 5 s when the peer has replied
// on the connection that timed out, or closed it: then its process runs again, or a new one. Each of the two
// counts once until 20 s without a timeout have followed a backoff, so that a peer that is always late is not
// tried more often.
class Backoff {
  public:
    // Starts the backoff at `now`; `message` describes the timeout. `connection` is a duplicate of the one
    // that timed out, or none; it is closed when the backoff ends, or at once if it is not needed.
    void Start(Clock::time_point now, std::string message, FileDescriptor connection = {});
    // Does not wait. In a child of fork, which must not use the connection, the backoff has its full length.
    bool IsActive(Clock::time_point now);
    // Of the last timeout.
    const std::string& GetMessage() const { return message; }

  private:
    bool TakeSign();

    Clock::duration length{};
    Clock::time_point begin{};
    Clock::time_point end{};
    std::string message;
    FileDescriptor connection;
    pid_t owner = 0;  // of the connection
    bool replied = false;
    bool closed = false;
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

    // Starts the backoff and throws TimeoutException. `step` names the wait that timed out, `socket` is the
    // connection's, -1 where there is none. Thread-safe.
    [[noreturn]] void ThrowTimeout(const char* step, int socket = -1) const;

  private:
    std::string GetKey() const;

    sockaddr_storage address{};
    socklen_t length = 0;
    std::string name;
};

}  // namespace Tessim
