// Which local users may read tickets, and so can log in: root, the daemon's own and the tickets' group.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "runtime/tessim/file_descriptor.h"

namespace Vessad {

class TicketReaders {
  public:
    // `group`: the tickets', empty where they have none. `diagnostics`: see Tessim::FindPeerOwner.
    TicketReaders(const std::string& group, Tessim::FileDescriptor diagnostics);

    // Returns whether the process at the other end of the TCP socket `socket`, connected to `peer`, may read
    // tickets; true also where the kernel does not tell whose it is, false when it has closed its end. What
    // groups a user is in is looked up once. Thread-safe. Throws std::bad_alloc.
    bool Include(int socket, const sockaddr& peer);

  private:
    bool MayRead(uid_t user) const;

    const Tessim::FileDescriptor diagnostics;
    std::optional<gid_t> group;
    std::mutex mutex;  // guards all below, and the use of diagnostics
    std::map<uid_t, bool> known;
    bool warned = false;
};

}  // namespace Vessad
