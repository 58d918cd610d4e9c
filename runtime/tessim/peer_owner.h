// Whose process holds the other end of a TCP connection within this host.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <optional>

namespace Tessim {

// The user whose process accepted the TCP socket `socket`, connected to `peer`, an IPv4 or IPv6 address and
// port, as the kernel knows it (sock_diag(7)); none when no process of this host holds that end.
// `diagnostics`: a NETLINK_SOCK_DIAG socket of the connection's network namespace, which no other thread uses
// meanwhile; -1: this process is in that namespace. Throws SystemException when the kernel does not say.
// Thread-safe.
std::optional<uid_t> FindPeerOwner(int socket, const sockaddr& peer, int diagnostics = -1);

}  // namespace Tessim
