// The daemon's network side: listens on a loopback address and serves every client that comes.
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
    TicketOptions tickets;
    TimeLimits times;
    ConnectionTable::Limits connections;
};

// The endpoint that "ADDRESS:PORT" is: an IPv4 address, an IPv6 address in brackets or "localhost", which is
// 127.0.0.1 and never goes to a resolver. Throws std::invalid_argument, also for an address that is not of
// this host alone.
boost::asio::ip::tcp::endpoint ParseListenAddress(const std::string& text);

class Server {
  public:
    // Listens, and makes the ticket directory ready; serves nobody yet. `backend` must outlive the server.
    // Throws std::runtime_error or std::system_error with the reason.
    Server(const ServerOptions& options, Backend& backend);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    // The address and port that it listens on.
    boost::asio::ip::tcp::endpoint GetEndpoint() const;

    // Serves on threads of its own. To be called once.
    void Start();

    // Ends every connection and removes every ticket. May be called again; the destructor calls it.
    void Stop();

  private:
    class Implementation;
    std::unique_ptr<Implementation> implementation;
};

// Lets this process have as many open files as it may, and answers how many connections that allows.
ConnectionTable::Limits RaiseFileLimit();

}  // namespace Vessad
