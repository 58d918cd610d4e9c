// The daemon's network side: listens on a loopback address and serves every client. Used by one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "apps/vessad/Connection.h"
#include "apps/vessad/ConnectionTable.h"
#include "apps/vessad/TicketStore.h"
#include "apps/vessad/backends/Backend.h"

namespace Vessad {

struct ServerOptions {
    boost::asio::ip::tcp::endpoint listen;  // port 0: a free one
    // A listening TCP socket on a loopback address, which the server owns, instead of `listen`; -1: none.
    int listener = -1;
    // A NETLINK_SOCK_DIAG socket, which the server owns, of the network that connections come from; -1: the
    // server is in it.
    int diagnostics = -1;
    TicketOptions tickets;
    Timeouts timeouts;
    ConnectionTable::Limits connections;  // of users who can log in
};

// Parses "ADDRESS:PORT": an IPv4 address, an IPv6 address in brackets or "localhost", which is 127.0.0.1 and
// is not resolved. Throws std::invalid_argument, also for an address that is not loopback.
boost::asio::ip::tcp::endpoint ParseListenAddress(const std::string& text);

class Server {
  public:
    // Listens and prepares the ticket directory; accepts no connection yet. `backend` must outlive the
    // server. Throws std::runtime_error, or Tessim::SystemException, with the reason.
    Server(const ServerOptions& options, Backend& backend);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    // The address and port that the server listens on.
    boost::asio::ip::tcp::endpoint GetEndpoint() const;

    // Serves on threads of its own. Call it once.
    void Start();

    // Returns whether every thread of the server has run since the previous call, true at the first, and
    // starts the next check. Call it after Start, at intervals of seconds. Throws std::bad_alloc.
    bool CheckProgress();

    // Logs how many log lines of untrusted clients were suppressed. Call it at intervals of a minute or less.
    void FlushLog();

    // Closes every connection, removes every ticket and waits for the threads. May be called again; the
    // destructor calls it.
    void Stop();

  private:
    class Implementation;
    std::unique_ptr<Implementation> implementation;
};

// Raises the limit of open files as far as needed and allowed, and returns how many connections of users who
// can log in it permits: fewer in proportion, but one at each stage, where it does not allow all.
ConnectionTable::Limits RaiseFileLimit();

}  // namespace Vessad
