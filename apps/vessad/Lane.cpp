#include "apps/vessad/Lane.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>

#include <boost/asio/post.hpp>
#include <exception>
#include <memory>
#include <utility>

#include "apps/vessad/ErrnoException.h"

namespace Vessad {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

int Duplicate(int descriptor) {
    const int copy = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) {
        throw ErrnoException("cannot use the listening socket");
    }
    return copy;
}

void LogFailure(const char* why) noexcept {
    try {
        spdlog::error("A connection failed and is closed: {}", why);
    } catch (...) {
        // Out of memory.
    }
}

// Some failures destroy a pending accept without calling its handler.
struct EndAccept {
    void operator()(bool* accepting) const { *accepting = false; }
};
using PendingAccept = std::unique_ptr<bool, EndAccept>;

}  // namespace

Lane::Lane(const tcp& protocol, int listener) : acceptor(io, protocol, Duplicate(listener)) {}

void Lane::Start(Shared& given) {
    shared = &given;
    asio::post(io, [this] { Accept(); });
    thread = std::thread([this] { Run(); });
}

bool Lane::CheckProgress() {
    const bool progressed = responded.exchange(false);
    asio::post(io, [this] { responded = true; });
    return progressed;
}

void Lane::Close() {
    asio::post(io, [this] {
        stopping = true;
        error_code ignored;
        acceptor.close(ignored);
        timer.cancel();
    });
}

void Lane::Join() {
    work.reset();
    if (thread.joinable()) {
        thread.join();
    }
}

void Lane::Run() {
    for (bool failed = false;; failed = true) {
        try {
            if (failed) {
                Resume();
            }
            io.run();
            return;
        } catch (const std::exception& failure) {
            LogFailure(failure.what());
        } catch (...) {
            LogFailure("unknown exception");
        }
    }
}

void Lane::Resume() {
    if (!accepting && !stopping) {
        std::this_thread::sleep_for(retryDelay);
        Accept();
    }
}

// Makes an accept pending unless one is.
void Lane::Accept() {
    if (accepting || stopping) {
        return;
    }
    accepting = true;
    acceptor.async_accept(
        [this, pending = PendingAccept(&accepting)](const error_code& error, tcp::socket socket) mutable {
            pending.reset();
            OnAccept(error, std::move(socket));
        });
}

void Lane::OnAccept(const error_code& error, tcp::socket socket) {
    if (stopping) {
        return;
    }
    if (error && error != asio::error::connection_aborted) {
        RetryLater(error);
        return;
    }
    shared->exhausted = false;
    if (!error) {
        Serve(std::move(socket));
    }
    Accept();
}

// After running out of descriptors or memory. The client stays in the backlog until there are some.
void Lane::RetryLater(const error_code& error) {
    if (!shared->exhausted.exchange(true) && shared->context.services.log.Admit(LogLimit::Kind::Accept)) {
        spdlog::warn("Cannot accept connections, evicting those without a login: {}", error.message());
    }
    shared->context.table.MakeRoom("out of files or memory");
    timer.expires_after(retryDelay);
    timer.async_wait([this](const error_code& stopped) {
        if (!stopped) {
            Accept();
        }
    });
}

void Lane::Serve(tcp::socket socket) {
    const std::uint64_t number = ++shared->accepted;
    try {
        error_code ignored;
        const tcp::endpoint peer = socket.remote_endpoint(ignored);
        spdlog::debug("Connection {}: accepted from {} port {}", number, peer.address().to_string(),
                      peer.port());
        socket.set_option(tcp::no_delay(true), ignored);
        StartConnection(std::move(socket), shared->context, number);
    } catch (const std::exception& failure) {
        spdlog::error("Connection {}: cannot be served, closing: {}", number, failure.what());
    }
}

}  // namespace Vessad
