// One client's connection, from the TLS handshake to its close.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <chrono>
#include <cstdint>

#include "apps/vessad/ConnectionTable.h"
#include "apps/vessad/Session.h"

namespace Vessad {

// Timeouts of a connection. There is none between the requests of a session: a client that sends one request
// a day must find its session open.
struct Timeouts {
    std::chrono::milliseconds preamble = std::chrono::seconds(5);  // handshake and preamble together
    std::chrono::milliseconds login =
        std::chrono::seconds(10);  // from the connect, or the last logout, to the login
    std::chrono::milliseconds request = std::chrono::seconds(10);       // one request, from its first byte
    std::chrono::milliseconds reply = std::chrono::seconds(10);         // to send one reply
    std::chrono::milliseconds rejectedLogin = std::chrono::seconds(1);  // delay of the reply
};

// What connections use of the server. Must outlive every connection.
struct ConnectionContext {
    Services& services;
    ConnectionTable& table;
    boost::asio::ssl::context& tls;
    Timeouts timeouts;
};

// Serves the client of `socket`, whose executor must run one handler at a time, and places the connection in
// the table as `number`. To be called in a handler of that executor. The connection owns itself until the
// client, a timeout or the table closes it. Throws std::bad_alloc.
void StartConnection(boost::asio::ip::tcp::socket socket, ConnectionContext& context, std::uint64_t number);

}  // namespace Vessad
