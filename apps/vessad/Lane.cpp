#include "apps/vessad/Lane.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <boost/asio/post.hpp>
#include <exception>
#include <memory>
#include <utility>

#include "apps/vessad/RequireCall.h"

namespace Vessad {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr int acceptsInARow = 16;

int Duplicate(int descriptor) {
    const int copy = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    RequireCall(copy >= 0, "cannot use the listening socket");
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

struct EndWaiting {
    void operator()(std::atomic<unsigned>* waiting) const { --*waiting; }
};
using WaitingOutsider = std::unique_ptr<std::atomic<unsigned>, EndWaiting>;

}  // namespace

Lane::Lane(const tcp& protocol, int listener) : acceptor(io, protocol, Duplicate(listener)) {
    acceptor.non_blocking(true);
}

void Lane::Start(Shared& given) {
    shared = &given;
    asio::post(io, [this] { Accept(); });
    thread = std::thread([this] { Run(); });
}

bool Lane::CheckProgress() {
    const bool progressed = responded.exchange(false);
    asio::post(io, [this] { responded = accepting || retrying || this == &shared->outsiderLane; });
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
    if (!accepting && !stopping && this != &shared->outsiderLane) {
        std::this_thread::sleep_for(retryDelay);
        Accept();
    }
}

// Makes an accept pending unless one is.
void Lane::Accept() {
    if (accepting || stopping || this == &shared->outsiderLane) {
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
        Admit(std::move(socket));
    }
    // In one go, because the listening socket's queue is all that a flood leaves to others.
    for (int more = 0; more < acceptsInARow; ++more) {
        tcp::socket next(io);
        error_code none;
        acceptor.accept(next, none);
        if (none) {
            break;
        }
        Admit(std::move(next));
    }
    Accept();
}

// After running out of descriptors or memory. The client stays in the backlog until there are some.
void Lane::RetryLater(const error_code& error) {
    if (!shared->exhausted.exchange(true) && shared->context.services.log.Admit(LogLimit::Kind::Accept)) {
        spdlog::warn("Cannot accept connections, evicting those without a login: {}", error.message());
    }
    for (ConnectionTable* const table : {&shared->outsiders.table, &shared->context.table}) {
        table->MakeRoom("out of files or memory");
    }
    timer.expires_after(retryDelay);
    timer.async_wait([this](const error_code& stopped) {
        if (!stopped) {
            retrying = false;
            Accept();
        }
    });
    retrying = true;
}

void Lane::Admit(tcp::socket socket) {
    error_code gone;
    const tcp::endpoint peer = socket.remote_endpoint(gone);
    if (gone) {
        return;
    }
    if (shared->ticketReaders.Include(socket.native_handle(), *peer.data())) {
        Serve(std::move(socket), shared->context);
    } else {
        shared->outsiderLane.Queue(std::move(socket), peer.protocol());
    }
}

// Called by the other lanes' threads. Closes the connection when too many wait already, so that a flood takes
// neither memory nor descriptors.
void Lane::Queue(tcp::socket outsider, const tcp& protocol) {
    ++waiting;
    WaitingOutsider place(&waiting);
    if (waiting > maxWaitingOutsiders) {
        // By a reset, which leaves nothing to wait for in the kernel either.
        error_code ignored;
        outsider.set_option(asio::socket_base::linger(true, 0), ignored);
        return;
    }
    tcp::socket moved(io);
    const int descriptor = outsider.release();
    error_code failed;
    moved.assign(protocol, descriptor, failed);
    if (failed) {
        ::close(descriptor);
        return;
    }
    asio::post(io, [this, place = std::move(place), moved = std::move(moved)]() mutable {
        place.reset();
        Serve(std::move(moved), shared->outsiders);
    });
}

void Lane::Serve(tcp::socket socket, ConnectionContext& context) {
    const std::uint64_t number = ++shared->accepted;
    try {
        error_code ignored;
        const tcp::endpoint peer = socket.remote_endpoint(ignored);
        spdlog::debug("Connection {}: accepted from {} port {}", number, peer.address().to_string(),
                      peer.port());
        socket.set_option(tcp::no_delay(true), ignored);
        StartConnection(std::move(socket), context, number);
    } catch (const std::exception& failure) {
        spdlog::error("Connection {}: cannot be served, closing: {}", number, failure.what());
    }
}

}  // namespace Vessad
