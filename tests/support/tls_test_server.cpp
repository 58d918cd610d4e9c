#include "tests/support/tls_test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

namespace KelvTest {
namespace {

constexpr std::chrono::milliseconds pollStep{5};  // how soon a stop is noticed
constexpr std::chrono::seconds patience{30};

void Require(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(std::string("TLS test server: ") + what);
    }
}

std::string TextOf(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return {data, static_cast<std::size_t>(size)};
}

int Listen(std::uint16_t& port) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    Require(::bind(listener, generic, sizeof address) == 0 && ::getsockname(listener, generic, &length) == 0,
            "bind");
    port = ntohs(address.sin_port);
    return listener;
}

}  // namespace

ServedConnection::ServedConnection(ssl_ctx_st* context, int descriptor, const std::atomic<bool>& stopping)
    : tls(SSL_new(context), SSL_free), descriptor(descriptor), stopping(stopping) {
    SSL_set_bio(tls.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    SSL_set_accept_state(tls.get());
}

ServedConnection::~ServedConnection() {
    if (descriptor >= 0) {
        if (wire.reset) {
            const linger now{1, 0};
            ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        }
        ::close(descriptor);
    }
}

bool ServedConnection::WaitFor(short events) const {
    while (!stopping) {
        pollfd poll{descriptor, events, 0};
        if (::poll(&poll, 1, static_cast<int>(pollStep.count())) > 0) {
            return true;
        }
    }
    return false;
}

// Sends what TLS has written.
bool ServedConnection::Flush() {
    std::array<char, 4096> buffer{};
    const int count = BIO_read(SSL_get_wbio(tls.get()), buffer.data(), static_cast<int>(buffer.size()));
    if (count > 0) {
        SendRaw({buffer.data(), static_cast<std::size_t>(count)});
        return Flush();
    }
    return !gone;
}

void ServedConnection::SendRaw(std::string_view bytes) {
    while (!bytes.empty() && !gone) {
        if (sent == wire.limit || !WaitFor(POLLOUT)) {
            gone = true;
            break;
        }
        const bool slowly = wire.byteInterval.count() > 0;
        const std::size_t wanted = std::min(slowly ? 1 : bytes.size(), wire.limit - sent);
        const ssize_t count = ::send(descriptor, bytes.data(), wanted, MSG_NOSIGNAL);
        if (count < 0 && errno == EAGAIN) {
            continue;
        }
        if (count <= 0) {
            gone = true;
            break;
        }
        sent += static_cast<std::size_t>(count);
        bytes.remove_prefix(static_cast<std::size_t>(count));
        if (slowly) {
            std::this_thread::sleep_for(wire.byteInterval);
        }
    }
    heldBack = heldBack || !bytes.empty();
    gone = gone || sent == wire.limit;
}

// Receives something for TLS to read.
bool ServedConnection::Fill() {
    std::array<char, 4096> buffer{};
    if (gone || !WaitFor(POLLIN)) {
        return false;
    }
    const ssize_t count = ::recv(descriptor, buffer.data(), buffer.size(), 0);
    gone = count <= 0;
    return !gone && BIO_write(SSL_get_rbio(tls.get()), buffer.data(), static_cast<int>(count)) > 0;
}

template <class Call>
bool ServedConnection::Drive(Call call) {
    for (;;) {
        ERR_clear_error();
        const int result = call();
        const int error = SSL_get_error(tls.get(), result);
        if (!Flush()) {
            return false;
        }
        if (result > 0) {
            return true;
        }
        if (error != SSL_ERROR_WANT_READ || !Fill()) {
            gotCloseNotify = gotCloseNotify || error == SSL_ERROR_ZERO_RETURN;
            return false;
        }
    }
}

bool ServedConnection::Handshake() {
    return Drive([&] { return SSL_do_handshake(tls.get()); });
}

bool ServedConnection::ReadByte(char& byte) {
    return Drive([&] { return SSL_read(tls.get(), &byte, 1); });
}

std::string ServedConnection::ReadLine() {
    std::string line;
    for (char byte = 0; byte != '\n' && ReadByte(byte);) {
        line += byte;
    }
    return line;
}

std::string ServedConnection::ReadAll() {
    std::string text;
    for (char byte = 0; ReadByte(byte);) {
        text += byte;
    }
    return text;
}

void ServedConnection::Send(std::string_view text) {
    Drive([&] { return SSL_write(tls.get(), text.data(), static_cast<int>(text.size())); });
}

bool ServedConnection::Serve(std::string_view after) {
    if (!Handshake() || ReadLine().empty()) {
        return false;
    }
    Send("200 /connection/1\r\n" + std::string(after));
    return !heldBack;
}

void ServedConnection::SendCloseNotify() {
    SSL_shutdown(tls.get());
    Flush();
}

void ServedConnection::FloodWithTickets() {
    while (SSL_new_session_ticket(tls.get()) == 1 && Drive([&] { return SSL_do_handshake(tls.get()); })) {
    }
}

void ServedConnection::StaySilent() {
    while (!stopping) {
        pollfd poll{descriptor, POLLRDHUP, 0};
        if (::poll(&poll, 1, static_cast<int>(pollStep.count())) > 0) {
            return;
        }
    }
}

TlsTestServer::TlsTestServer(Script script, int newestVersion)
    : script(std::move(script)), context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free) {
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const std::unique_ptr<X509, void (*)(X509*)> own(X509_new(), X509_free);
    X509_set_version(own.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(own.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(own.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(own.get()), 3600);
    X509_set_pubkey(own.get(), key.get());
    X509_NAME* const name = X509_get_subject_name(own.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("test"), -1,
                               -1, 0);
    X509_set_issuer_name(own.get(), name);
    Require(X509_sign(own.get(), key.get(), EVP_sha256()) > 0, "sign");

    const std::unique_ptr<BIO, int (*)(BIO*)> certificateText(BIO_new(BIO_s_mem()), BIO_free);
    const std::unique_ptr<BIO, int (*)(BIO*)> keyText(BIO_new(BIO_s_mem()), BIO_free);
    PEM_write_bio_X509(certificateText.get(), own.get());
    PEM_write_bio_PrivateKey(keyText.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    certificate = TextOf(certificateText.get());
    privateKey = TextOf(keyText.get());

    SSL_CTX_set_security_level(context.get(), 0);  // so that old versions can be offered
    SSL_CTX_set_min_proto_version(context.get(), 0);
    SSL_CTX_set_max_proto_version(context.get(), newestVersion);
    Require(SSL_CTX_use_certificate(context.get(), own.get()) == 1 &&
                SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1,
            "use the key");

    listener = Listen(port);
    Require(::listen(listener, 16) == 0, "listen");
    // The thread blocks all signals: a SIGALRM or SIGPIPE of a test is for the client.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread = std::thread([this] { Run(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TlsTestServer::~TlsTestServer() {
    stopping = true;
    thread.join();
    ::close(listener);
}

void TlsTestServer::WaitForScripts(int count) const {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (ended < count) {
        Require(std::chrono::steady_clock::now() < deadline, "a script does not end");
        std::this_thread::sleep_for(pollStep);
    }
}

void TlsTestServer::Run() {
    while (!stopping) {
        pollfd poll{listener, POLLIN, 0};
        if (::poll(&poll, 1, static_cast<int>(pollStep.count())) <= 0) {
            continue;
        }
        const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor < 0) {
            continue;
        }
        ++accepted;
        {
            ServedConnection connection(context.get(), descriptor, stopping);
            script(connection);
        }
        ++ended;
    }
}

std::uint16_t FreePort() {
    std::uint16_t port = 0;
    ::close(Listen(port));
    return port;
}

}  // namespace KelvTest
