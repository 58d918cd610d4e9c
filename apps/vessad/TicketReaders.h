// Which local users may read tickets, and so can log in: root, the daemon's own and the tickets' group.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <vector>

#include "runtime/tessim/file_descriptor.h"

namespace Vessad {

// A group of the system's database.
struct Group {
    // Whether a user is in it; true where the database cannot be read. May take long. Thread-safe.
    std::function<bool(uid_t)> includes = [](uid_t) { return false; };
    std::vector<uid_t> members;  // some of those who are: the user of its name, and whom it lists
};

// The group of that id. Looks up its members that are known by name, as far as the database can be read.
Group FindGroup(gid_t id);

class TicketReaders {
  public:
    // `diagnostics`: see Tessim::FindPeerOwner. Throws std::system_error when there is no thread.
    TicketReaders(Group group, Tessim::FileDescriptor diagnostics);
    TicketReaders(const TicketReaders&) = delete;
    TicketReaders& operator=(const TicketReaders&) = delete;
    ~TicketReaders();

    // Returns whether the process at the other end of the TCP socket `socket`, connected to `peer`, may read
    // tickets; true also where the kernel does not return its owner, false when it has closed its end, and
    // while its user is looked up, which a thread does once. Does not wait for that. Thread-safe. Throws
    // std::bad_alloc.
    bool Include(int socket, const sockaddr& peer);

  private:
    struct State;
    static void LookUp(State& state);

    const std::shared_ptr<State> state;
};

}  // namespace Vessad
