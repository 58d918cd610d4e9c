#include "tests/support/tls_test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <utility>

namespace KelvTest {
namespace {

void Require(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(std::string("TLS test server: ") + what);
    }
}

// What `write` writes to a BIO.
std::string TextOf(const std::function<void(BIO*)>& write) {
    const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new(BIO_s_mem()), BIO_free);
    write(bio.get());
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(size)};
}

// A transport that sends through ServedConnection::SendRaw.
BIO* MakeTransport(ServedConnection* connection) {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "scripted wire");
        BIO_meth_set_write(made, [](BIO* bio, const char* data, int size) {
            auto* const connection = static_cast<ServedConnection*>(BIO_get_data(bio));
            return connection->SendRaw({data, static_cast<std::size_t>(size)}) ? size : -1;
        });
        BIO_meth_set_ctrl(made, [](BIO* /*bio*/, int command, long /*number*/, void* /*pointer*/) {
            return command == BIO_CTRL_FLUSH ? 1L : 0L;
        });
        return made;
    }();
    BIO* const bio = BIO_new(method);
    BIO_set_data(bio, connection);
    BIO_set_init(bio, 1);
    return bio;
}

}  // namespace

Identity::Identity() : key(EVP_EC_gen("P-256"), EVP_PKEY_free), x509(X509_new(), X509_free) {
    X509* const own = x509.get();
    X509_set_version(own, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(own), 1);
    X509_gmtime_adj(X509_getm_notBefore(own), -3600);
    X509_gmtime_adj(X509_getm_notAfter(own), 3600);
    X509_set_pubkey(own, key.get());
    X509_NAME* const name = X509_get_subject_name(own);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("test"), -1,
                               -1, 0);
    X509_set_issuer_name(own, name);
    Require(X509_sign(own, key.get(), EVP_sha256()) > 0, "sign");
    certificate = TextOf([own](BIO* out) { PEM_write_bio_X509(out, own); });
    privateKey = TextOf([this](BIO* out) {
        PEM_write_bio_PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
}

ServedConnection::ServedConnection(ssl_ctx_st* context, int descriptor)
    : tls(SSL_new(context), SSL_free), descriptor(descriptor) {
    SSL_set_bio(tls.get(), BIO_new_socket(descriptor, BIO_NOCLOSE), MakeTransport(this));
    SSL_set_accept_state(tls.get());
}

ServedConnection::~ServedConnection() {
    if (wire.reset) {
        const linger now{1, 0};
        ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }
}

bool ServedConnection::SendRaw(std::string_view bytes) {
    const bool slowly = wire.byteInterval.count() > 0;
    while (!bytes.empty() && !gone && sent < wire.limit) {
        const std::size_t wanted = std::min(slowly ? 1 : bytes.size(), wire.limit - sent);
        const ssize_t count = ::send(descriptor, bytes.data(), wanted, MSG_NOSIGNAL);
        gone = count <= 0;
        if (!gone) {
            sent += static_cast<std::size_t>(count);
            bytes.remove_prefix(static_cast<std::size_t>(count));
            std::this_thread::sleep_for(wire.byteInterval);
        }
    }
    return bytes.empty();
}

std::string ServedConnection::ReadUntil(char last) {
    std::string text;
    for (char byte = 0; (text.empty() || byte != last) && SSL_read(tls.get(), &byte, 1) > 0;) {
        text += byte;
    }
    return text;
}

bool ServedConnection::Send(std::string_view text) {
    return SSL_write(tls.get(), text.data(), static_cast<int>(text.size())) > 0;
}

bool ServedConnection::Serve() {
    return !ReadLine().empty() && Send("200 /connection/1\r\n");
}

void ServedConnection::StaySilent() {
    pollfd poll{descriptor, POLLRDHUP, 0};
    ::poll(&poll, 1, -1);
}

TlsTestServer::TlsTestServer(Script script, int newestVersion)
    : script(std::move(script)),
      context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free),
      listener(BindLoopback(port)) {
    SSL_CTX_set_security_level(context.get(), 0);  // so that old versions can be offered
    SSL_CTX_set_min_proto_version(context.get(), 0);
    SSL_CTX_set_max_proto_version(context.get(), newestVersion);
    Require(SSL_CTX_use_certificate(context.get(), identity.x509.get()) == 1 &&
                SSL_CTX_use_PrivateKey(context.get(), identity.key.get()) == 1,
            "use the key");
    Require(::listen(listener.Get(), 16) == 0, "listen");
    // The thread blocks all signals: a SIGALRM or SIGPIPE of a test is for the client.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    thread = std::thread([this] { Run(); });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TlsTestServer::~TlsTestServer() {
    {
        const std::lock_guard lock(mutex);
        stopping = true;
        ::shutdown(listener.Get(), SHUT_RDWR);
        ::shutdown(connection.Get(), SHUT_RDWR);
    }
    thread.join();
}

void TlsTestServer::WaitForScripts(int count) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (ended < count) {
        Require(std::chrono::steady_clock::now() < deadline, "a script does not end");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void TlsTestServer::Run() {
    for (;;) {
        const int descriptor = ::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC);
        {
            const std::lock_guard lock(mutex);
            connection = Tessim::FileDescriptor(descriptor);
            if (stopping || descriptor < 0) {
                return;
            }
        }
        ++accepted;
        {
            ServedConnection served(context.get(), descriptor);
            script(served);
        }
        {
            const std::lock_guard lock(mutex);
            connection.Close();
        }
        ++ended;
    }
}

Tessim::FileDescriptor BindLoopback(std::uint16_t& port, int family) {
    Tessim::FileDescriptor bound(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 address{};
    address.sin6_family = static_cast<sa_family_t>(family);
    address.sin6_addr = in6addr_loopback;
    if (family == AF_INET) {
        reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    if (::bind(bound.Get(), generic, length) != 0 || ::getsockname(bound.Get(), generic, &length) != 0) {
        return {};
    }
    port = ntohs(address.sin6_port);  // at the same place for both families
    return bound;
}

std::uint16_t FreePort() {
    std::uint16_t port = 0;
    Require(static_cast<bool>(BindLoopback(port)), "bind");
    return port;
}

}  // namespace KelvTest
