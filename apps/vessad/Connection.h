// One client's connection, from the TLS handshake to its end.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <chrono>
#include <cstdint>

#include "apps/vessad/ConnectionTable.h"
#include "apps/vessad/Session.h"

namespace Vessad {

// How long a client may take. Between the requests of a session it may take as long as it likes: it is a
// legitimate one, and a client that asks once a day must find its session there.
struct TimeLimits {
    std::chrono::milliseconds preamble = std::chrono::seconds(5);      // handshake and first line together
    std::chrono::milliseconds login = std::chrono::seconds(10);        // from the connect to the login
    std::chrono::milliseconds request = std::chrono::seconds(10);      // one request, from its first byte
    std::chrono::milliseconds reply = std::chrono::seconds(10);        // to take one reply
    std::chrono::milliseconds refusedLogin = std::chrono::seconds(1);  // how late its answer comes
};

// What a connection needs of the server. Outlives every connection.
struct ConnectionContext {
    Services& services;
    ConnectionTable& table;
    boost::asio::ssl::context& tls;
    TimeLimits times;
};

// Serves the client at the other end of `socket`, whose executor must be a strand, and enters the connection
// into the table as `number`. The connection lives until the client, a time limit or the table ends it.
void StartConnection(boost::asio::ip::tcp::socket socket, ConnectionContext& context, std::uint64_t number);

}  // namespace Vessad
