#include "runtime/tessim/tls_connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "runtime/tessim/daemon_directory.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/openssl_error.h"
#include "runtime/tessim/peer_owner.h"

namespace Tessim {
namespace {

constexpr const char* closedByPeer = "the peer closed the connection";
constexpr const char* connecting = "connecting";
constexpr std::chrono::milliseconds connectRetry{100};

std::string ErrorText(int error) {
    return std::generic_category().message(error);
}

// OpenSSL's own socket transport writes without MSG_NOSIGNAL and has no deadline; hence these.

template <class Transfer>
int Move(BIO* bio, int retryFlag, Transfer transfer) {
    auto& socket = *static_cast<TlsConnection::Socket*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    // Checked before each transfer, so that a peer that never stops sending does not block the caller.
    if (Clock::now() >= socket.deadline) {
        BIO_set_flags(bio, retryFlag | BIO_FLAGS_SHOULD_RETRY);
        return -1;
    }
    for (;;) {
        const ssize_t moved = transfer(socket.descriptor.Get());
        if (moved >= 0) {
            return static_cast<int>(moved);
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            BIO_set_flags(bio, retryFlag | BIO_FLAGS_SHOULD_RETRY);
            return -1;
        }
        if (errno != EINTR) {
            socket.error = errno;
            return -1;
        }
    }
}

int Send(BIO* bio, const char* data, int size) {
    return Move(bio, BIO_FLAGS_WRITE, [=](int descriptor) {
        return ::send(descriptor, data, static_cast<std::size_t>(size), MSG_NOSIGNAL);
    });
}

int Receive(BIO* bio, char* buffer, int size) {
    const int received = Move(bio, BIO_FLAGS_READ, [=](int descriptor) {
        return ::recv(descriptor, buffer, static_cast<std::size_t>(size), 0);
    });
    if (received == 0) {
        static_cast<TlsConnection::Socket*>(BIO_get_data(bio))->ended = true;
    }
    return received;
}

long Control(BIO* bio, int command, long /*number*/, void* /*pointer*/) {
    switch (command) {
        case BIO_CTRL_FLUSH:
            return 1;
        case BIO_CTRL_EOF:
            return static_cast<TlsConnection::Socket*>(BIO_get_data(bio))->ended ? 1 : 0;
        default:
            return 0;
    }
}

int Create(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
}

// One for the life of the process.
BIO_METHOD* SocketMethod() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "deadline socket");
        RequireOpenSsl(made != nullptr, "make a TLS transport");
        BIO_meth_set_write(made, Send);
        BIO_meth_set_read(made, Receive);
        BIO_meth_set_ctrl(made, Control);
        BIO_meth_set_create(made, Create);
        return made;
    }();
    return method;
}

}  // namespace

void TlsConnection::Freer::operator()(ssl_st* tls) const noexcept {
    SSL_free(tls);
}

TlsConnection::TlsConnection(const Ssl::SSLContext& context, Peer peer, Clock::time_point deadline)
    : peer(std::move(peer)), owner(getpid()) {
    socket.deadline = deadline;
    Connect();
    MakeTls(context);
    if (!Drive("TLS handshake", [&] { return SSL_do_handshake(tls.get()); })) {
        ThrowBroken("TLS handshake", closedByPeer);
    }
    usable = true;
}

std::size_t TlsConnection::Read(void* buffer, std::size_t size, Clock::time_point deadline) {
    CheckUsable();
    if (size == 0) {
        return 0;
    }
    usable = false;
    socket.deadline = deadline;
    std::size_t count = 0;
    const bool open = Drive("reading", [&] { return SSL_read_ex(tls.get(), buffer, size, &count); });
    usable = true;
    return open ? count : 0;
}

void TlsConnection::Write(const void* data, std::size_t size, Clock::time_point deadline) {
    CheckUsable();
    if (size == 0) {
        return;
    }
    usable = false;
    socket.deadline = deadline;
    std::size_t written = 0;
    if (!Drive("writing", [&] { return SSL_write_ex(tls.get(), data, size, &written); })) {
        ThrowBroken("writing", closedByPeer);
    }
    usable = true;
}

void TlsConnection::Close() noexcept {
    if (std::exchange(usable, false) && IsOwn()) {
        socket.deadline = Clock::time_point::max();
        ERR_clear_error();
        SSL_shutdown(tls.get());
        ERR_clear_error();
    }
    tls.reset();
    socket.descriptor.Close();
}

uid_t TlsConnection::CheckOwner() const {
    const std::optional<uid_t> user = FindPeerOwner(socket.descriptor.Get(), *peer.GetAddress());
    if (!user) {
        ThrowBroken("checking its owner", closedByPeer);
    }
    if (!DaemonDirectory::Open().IsTrusted(*user)) {
        throw SystemException(peer.GetName() + " belongs to user " + std::to_string(*user) +
                              ", who does not run the daemon");
    }
    return *user;
}

bool TlsConnection::IsOwn() const noexcept {
    return getpid() == owner;
}

bool TlsConnection::IsConnected() const noexcept {
    // POLLRDHUP reports the end even while bytes before it wait to be read.
    pollfd poll{socket.descriptor.Get(), POLLRDHUP, 0};
    return usable && ::poll(&poll, 1, 0) == 0;
}

void TlsConnection::Connect() {
    // A listening socket with a full queue ignores requests, and the kernel repeats one after a second.
    while (!TryToConnect()) {
        if (Clock::now() >= socket.deadline) {
            peer.ThrowTimeout(connecting, socket.descriptor.Get());
        }
    }
}

// Returns false when there is no reply within connectRetry.
bool TlsConnection::TryToConnect() {
    socket.descriptor = FileDescriptor(
        ::socket(peer.GetAddress()->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!socket.descriptor) {
        throw SystemException("cannot make a socket for " + peer.GetName() + ": " + ErrorText(errno));
    }
    const int descriptor = socket.descriptor.Get();
    // Small requests must not wait for the peer's acknowledgements; without it they are only slower.
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    int error = ::connect(descriptor, peer.GetAddress(), peer.GetAddressLength()) == 0 ? 0 : errno;
    if (error == EINPROGRESS || error == EINTR) {
        if (!WaitUntil(std::min(socket.deadline, Clock::now() + connectRetry), POLLOUT, connecting)) {
            return false;
        }
        socklen_t length = sizeof error;
        if (::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
            error = errno;
        }
    }
    if (error != 0) {
        throw StreamException("cannot connect to " + peer.GetName() + ": " + ErrorText(error));
    }
    return true;
}

void TlsConnection::MakeTls(const Ssl::SSLContext& context) {
    ERR_clear_error();
    tls.reset(SSL_new(context.GetNative()));
    BIO* const bio = tls ? BIO_new(SocketMethod()) : nullptr;
    RequireOpenSsl(bio != nullptr, "prepare TLS for " + peer.GetName());
    BIO_set_data(bio, &socket);
    SSL_set_bio(tls.get(), bio, bio);  // which owns it now
    SSL_set_connect_state(tls.get());
}

void TlsConnection::CheckUsable() const {
    if (!IsOwn()) {
        throw StreamException(peer.GetName() + ": the connection belongs to another process");
    }
    if (!usable) {
        throw StreamException(peer.GetName() + ": the connection is closed");
    }
}

// Repeats `call`, which returns more than 0 when it is done. Returns true when it is done and false when the
// peer has sent close_notify.
template <class Call>
bool TlsConnection::Drive(const char* step, Call call) {
    for (;;) {
        ERR_clear_error();  // SSL_get_error looks into the queue
        socket.error = 0;
        const int result = call();
        if (result > 0) {
            return true;
        }
        switch (SSL_get_error(tls.get(), result)) {
            case SSL_ERROR_WANT_READ:
                Wait(POLLIN, step);
                break;
            case SSL_ERROR_WANT_WRITE:
                Wait(POLLOUT, step);
                break;
            case SSL_ERROR_ZERO_RETURN:
                return false;
            default:
                ThrowBroken(step, ReasonOfFailure());
        }
    }
}

void TlsConnection::Wait(short events, const char* step) const {
    if (!WaitUntil(socket.deadline, events, step)) {
        peer.ThrowTimeout(step, socket.descriptor.Get());
    }
}

// Returns whether one of the events, or an error, is there before `end`.
bool TlsConnection::WaitUntil(Clock::time_point end, short events, const char* step) const {
    for (;;) {
        TimeBudget::CheckEnding(step);
        const auto left = end - Clock::now();
        if (left <= Clock::duration::zero()) {
            return false;
        }
        const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
        timespec timeout{};
        timeout.tv_sec = seconds.count();
        timeout.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
        pollfd poll{socket.descriptor.Get(), events, 0};
        const int ready = ::ppoll(&poll, 1, &timeout, nullptr);
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            throw SystemException("cannot wait for " + peer.GetName() + ": " + ErrorText(errno));
        }
    }
}

// The reason of the call that has just failed. Empties OpenSSL's queue.
std::string TlsConnection::ReasonOfFailure() const {
    std::string errors = TakeOpenSslErrors();
    if (socket.error != 0) {
        return ErrorText(socket.error);
    }
    if (socket.ended) {
        return closedByPeer;
    }
    const long verdict = SSL_get_verify_result(tls.get());
    if (SSL_get_verify_mode(tls.get()) != SSL_VERIFY_NONE && verdict != X509_V_OK) {
        return X509_verify_cert_error_string(verdict);
    }
    return errors;
}

void TlsConnection::ThrowBroken(const char* step, const std::string& reason) const {
    throw StreamException(peer.GetName() + ": " + step + ": " + reason);
}

}  // namespace Tessim
