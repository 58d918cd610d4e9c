// Whose process holds the other end of a TCP connection within this host. Internal to the runtime.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <optional>

namespace Tessim {

// The user whose process accepted the TCP socket `socket`, connected to `peer`, an IPv4 or IPv6 address and
// port, as the kernel knows it (sock_diag(7)); none when no process of this host holds that end. Throws
// SystemException when the kernel does not tell. Thread-safe.
std::optional<uid_t> FindPeerOwner(int socket, const sockaddr& peer);

}  // namespace Tessim
