#include "apps/vessad/Server.h"

#include <spdlog/spdlog.h>
#include <sys/resource.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "apps/vessad/TlsIdentity.h"

namespace Vessad {

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

constexpr unsigned minThreads = 2;  // one long call must not block the others
constexpr unsigned maxThreads = 4;
constexpr std::chrono::milliseconds acceptBackoff{50};
constexpr rlim_t otherFiles = 64;  // open files besides connections

tcp::acceptor Listen(const asio::any_io_executor& executor, const tcp::endpoint& endpoint) {
    tcp::acceptor acceptor(executor);
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
    return acceptor;
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
        : acceptStrand(asio::make_strand(io)),
          acceptor(Listen(acceptStrand, options.listen)),
          acceptTimer(acceptStrand),
          tls(MakeTlsContext()),
          tickets(options.tickets, io.get_executor()),
          table(options.connections),
          services{backend, tickets},
          context{services, table, tls, options.timeouts} {}

    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;
    ~Implementation() {
        try {
            Stop();
        } catch (...) {
            // Out of memory. The threads must not outlive what they use.
            io.stop();
            Join();
        }
    }

    tcp::endpoint GetEndpoint() const { return acceptor.local_endpoint(); }

    void Start() {
        asio::post(acceptStrand, [this] { Accept(); });
        const unsigned count = std::clamp(std::thread::hardware_concurrency(), minThreads, maxThreads);
        for (unsigned index = 0; index < count; ++index) {
            threads.emplace_back([this] { Run(); });
        }
    }

    void Stop() {
        if (threads.empty()) {
            return;
        }
        // Leaves the threads nothing to run, so that they return, and connections end before what they use.
        asio::post(acceptStrand, [this] {
            stopping = true;
            acceptor.close();
            acceptTimer.cancel();
            table.Close("the daemon is stopping");
            tickets.Close();
        });
        Join();
    }

  private:
    void Join() {
        for (std::thread& thread : threads) {
            thread.join();
        }
        threads.clear();
    }

    void Run() {
        // An exception from a handler releases that handler's connection, and affects no other.
        for (;;) {
            try {
                io.run();
                return;
            } catch (const std::exception& failure) {
                spdlog::error("A connection failed and is closed: {}", failure.what());
            }
        }
    }

    void Accept() {
        acceptor.async_accept(asio::make_strand(io),
                              [this](const boost::system::error_code& error, tcp::socket socket) {
                                  OnAccept(error, std::move(socket));
                              });
    }

    void OnAccept(const boost::system::error_code& error, tcp::socket socket) {
        if (stopping) {
            return;
        }
        if (error && error != asio::error::connection_aborted) {
            // Out of descriptors or memory; the client stays in the backlog until there are some.
            if (!std::exchange(exhausted, true)) {
                spdlog::warn("Cannot accept connections, evicting those without a login: {}",
                             error.message());
            }
            table.MakeRoom("out of files or memory");
            acceptTimer.expires_after(acceptBackoff);
            acceptTimer.async_wait([this](const boost::system::error_code& stopped) {
                if (!stopped && !stopping) {
                    Accept();
                }
            });
            return;
        }
        exhausted = false;
        if (!error) {
            Serve(std::move(socket));
        }
        Accept();
    }

    void Serve(tcp::socket socket) {
        const std::uint64_t number = ++connections;
        try {
            boost::system::error_code ignored;
            const tcp::endpoint peer = socket.remote_endpoint(ignored);
            spdlog::debug("Connection {}: accepted from {} port {}", number, peer.address().to_string(),
                          peer.port());
            socket.set_option(tcp::no_delay(true), ignored);
            StartConnection(std::move(socket), context, number);
        } catch (const std::exception& failure) {
            spdlog::error("Connection {}: cannot be served, closing: {}", number, failure.what());
        }
    }

    asio::io_context io;
    asio::strand<asio::io_context::executor_type> acceptStrand;  // guards accepting and stopping
    tcp::acceptor acceptor;
    asio::steady_timer acceptTimer;
    asio::ssl::context tls;
    TicketStore tickets;
    ConnectionTable table;
    Services services;
    ConnectionContext context;
    std::uint64_t connections = 0;
    bool stopping = false;
    bool exhausted = false;  // whether the last accept ran out of files or memory
    std::vector<std::thread> threads;
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
        // An equal share for each of the three stages.
        const std::size_t share =
            std::max<std::size_t>(1, (files.rlim_cur > otherFiles ? files.rlim_cur - otherFiles : 0) / 3);
        limits = {share, share, share};
        spdlog::warn("Limit of {} open files, serving at most {} connections", files.rlim_cur,
                     limits.Total());
    }
    return limits;
}

}  // namespace Vessad
