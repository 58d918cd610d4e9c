#include "apps/vessad/Server.h"

#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <charconv>
#include <deque>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "apps/vessad/Lane.h"
#include "apps/vessad/TlsIdentity.h"
#include "runtime/tessim/file_descriptor.h"

namespace Vessad {

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

// Threads that serve connections; a long call delays only those of its thread.
constexpr unsigned minLanes = 2;
constexpr unsigned maxLanes = 4;
// Of users who cannot log in; a session of theirs is one of somebody who has joined the group meanwhile.
constexpr ConnectionTable::Limits outsiderLimits{.preamble = 32, .login = 32, .session = 32};
constexpr rlim_t ownFiles = 64;  // open files that are not connections
// Open files besides connections of users who can log in.
constexpr rlim_t otherFiles = ownFiles + outsiderLimits.Total() + Lane::maxWaitingOutsiders;

Tessim::FileDescriptor Listen(const tcp::endpoint& endpoint) {
    asio::io_context unused;
    tcp::acceptor acceptor(unused);
    boost::system::error_code error;
    const auto check = [&](boost::system::error_code result) {
        if (result) {
            throw std::runtime_error("cannot listen on " + endpoint.address().to_string() + " port " +
                                     std::to_string(endpoint.port()) + ": " + result.message());
        }
    };
    check(acceptor.open(endpoint.protocol(), error));
    check(acceptor.set_option(tcp::acceptor::reuse_address(true), error));
    check(acceptor.bind(endpoint, error));
    check(acceptor.listen(asio::socket_base::max_listen_connections, error));
    return Tessim::FileDescriptor(acceptor.release());
}

// Returns where the socket listens. Throws std::runtime_error when it does not, or not on TCP at a loopback
// address.
tcp::endpoint ListeningEndpoint(int descriptor) {
    int listening = 0;
    socklen_t size = sizeof listening;
    tcp::endpoint local;
    auto capacity = static_cast<socklen_t>(local.capacity());
    const bool isTcp = ::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 &&
                       listening != 0 && ::getsockname(descriptor, local.data(), &capacity) == 0 &&
                       (local.data()->sa_family == AF_INET || local.data()->sa_family == AF_INET6);
    if (!isTcp || !local.address().is_loopback()) {
        throw std::runtime_error("the passed socket does not listen on TCP at a loopback address");
    }
    return local;
}

}  // namespace

tcp::endpoint ParseListenAddress(const std::string& text) {
    const auto refuse = [&](const char* why) { throw std::invalid_argument("\"" + text + "\": " + why); };
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        refuse("expected ADDRESS:PORT");
    }
    std::string host = text.substr(0, colon);
    const std::string_view digits = std::string_view(text).substr(colon + 1);
    std::uint16_t port = 0;
    const auto [stop, status] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (status != std::errc() || stop != digits.data() + digits.size()) {
        refuse("expected a port from 0 to 65535");
    }
    const bool bracketed = host.starts_with('[') && host.ends_with(']');
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    } else if (host == "localhost") {
        host = "127.0.0.1";
    }
    boost::system::error_code error;
    const asio::ip::address address = asio::ip::make_address(host, error);
    if (error || address.is_v6() != bracketed) {
        refuse("expected a numeric address (IPv6 in brackets) or localhost");
    }
    if (!address.is_loopback()) {
        refuse("only a loopback address: the daemon is for this host alone");
    }
    return {address, port};
}

class Server::Implementation {
  public:
    Implementation(const ServerOptions& options, Backend& backend)
        : lanes(MakeLanes(options)),
          tls(MakeTlsContext()),
          tickets(options.tickets, lanes.front().GetExecutor()),
          table(options.connections),
          outsiderTable(outsiderLimits),
          ticketReaders(tickets.GetGroup() ? FindGroup(*tickets.GetGroup()) : Group{},
                        Tessim::FileDescriptor(options.diagnostics)),
          services{backend, tickets},
          context{services, table, tls, options.timeouts},
          outsiders{services, outsiderTable, tls, options.timeouts},
          shared{context, ticketReaders, outsiders, lanes.back()} {}

    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;
    ~Implementation() { Stop(); }

    tcp::endpoint GetEndpoint() const { return lanes.front().GetEndpoint(); }

    void Start() {
        started = true;
        for (Lane& lane : lanes) {
            lane.Start(shared);
        }
    }

    bool CheckProgress() {
        bool progressed = true;
        for (Lane& lane : lanes) {
            progressed = lane.CheckProgress() && progressed;
        }
        return progressed;
    }

    void FlushLog() { services.log.Flush(); }

    void Stop() {
        if (!std::exchange(started, false)) {
            return;
        }
        // Leaves the lanes nothing to do, so that they end, and connections before what they use.
        for (bool closed = false; !closed;) {
            try {
                for (Lane& lane : lanes) {
                    lane.Close();
                }
                table.Close("the daemon is stopping");
                outsiderTable.Close("the daemon is stopping");
                tickets.Close();
                closed = true;
            } catch (const std::exception&) {
                // Out of memory.
                std::this_thread::sleep_for(Lane::retryDelay);
            }
        }
        for (Lane& lane : lanes) {
            lane.Join();
        }
    }

  private:
    static std::deque<Lane> MakeLanes(const ServerOptions& options) {
        const Tessim::FileDescriptor listener =
            options.listener >= 0 ? Tessim::FileDescriptor(options.listener) : Listen(options.listen);
        const tcp protocol = ListeningEndpoint(listener.Get()).protocol();
        std::deque<Lane> lanes;
        // The last one is the outsiders'.
        for (unsigned count = std::clamp(std::thread::hardware_concurrency(), minLanes, maxLanes) + 1;
             count > 0; --count) {
            lanes.emplace_back(protocol, listener.Get());
        }
        return lanes;
    }

    std::deque<Lane> lanes;
    asio::ssl::context tls;
    TicketStore tickets;
    ConnectionTable table;
    ConnectionTable outsiderTable;
    TicketReaders ticketReaders;
    Services services;
    ConnectionContext context;
    ConnectionContext outsiders;
    Lane::Shared shared;
    bool started = false;
};

Server::Server(const ServerOptions& options, Backend& backend)
    : implementation(std::make_unique<Implementation>(options, backend)) {}

Server::~Server() = default;

tcp::endpoint Server::GetEndpoint() const {
    return implementation->GetEndpoint();
}

void Server::Start() {
    implementation->Start();
}

void Server::FlushLog() {
    implementation->FlushLog();
}

bool Server::CheckProgress() {
    return implementation->CheckProgress();
}

void Server::Stop() {
    implementation->Stop();
}

ConnectionTable::Limits RaiseFileLimit() {
    ConnectionTable::Limits limits;
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) != 0) {
        return limits;
    }
    const rlim_t wanted = limits.Total() + otherFiles;
    if (files.rlim_cur < wanted) {
        files.rlim_cur = std::min(wanted, files.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &files);
        ::getrlimit(RLIMIT_NOFILE, &files);
    }
    if (files.rlim_cur < wanted) {
        const rlim_t available = files.rlim_cur > otherFiles ? files.rlim_cur - otherFiles : 0;
        const rlim_t total = limits.Total();
        for (std::size_t* const limit : {&limits.preamble, &limits.login, &limits.session}) {
            *limit = std::max<std::size_t>(1, *limit * available / total);
        }
        spdlog::warn("Limit of {} open files, serving at most {} connections", files.rlim_cur,
                     limits.Total());
    }
    return limits;
}

}  // namespace Vessad
