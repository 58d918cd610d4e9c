#include "tests/unit/vessad/raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "runtime/hask/host_agent.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace VessadTest {

namespace {

constexpr timeval timeout{10, 0};

// The number behind the first `mark` in `text`, or 0.
int NumberAfter(const std::string& text, const std::string& mark) {
    const std::size_t at = text.find(mark);
    return at == std::string::npos ? 0 : std::atoi(text.c_str() + at + mark.size());
}

// Shared by all clients: creating one takes longer than a handshake.
SSL_CTX* SharedContext() {
    static const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()),
                                                                           SSL_CTX_free);
    return context.get();
}

}  // namespace

std::string TextOf(const std::string& xml, const std::string& element) {
    const std::size_t at = xml.find("<" + element + ">");
    const std::size_t begin = at + element.size() + 2;
    return at == std::string::npos ? std::string() : xml.substr(begin, xml.find('<', begin) - begin);
}

RawClient::RawClient(std::uint16_t port)
    : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), tls(SSL_new(SharedContext()), SSL_free) {
    ::signal(SIGPIPE, SIG_IGN);
    ::setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    const int on = 1;
    ::setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot connect");
    }
    SSL_set_fd(tls.get(), socket.Get());
}

bool RawClient::Handshake(int maxVersion) {
    if (maxVersion != 0) {
        SSL_set_security_level(tls.get(), 0);
        SSL_set_min_proto_version(tls.get(), TLS1_VERSION);
        SSL_set_max_proto_version(tls.get(), maxVersion);
    }
    return SSL_connect(tls.get()) == 1;
}

std::string RawClient::Open(const std::string& line) {
    if (!Handshake()) {
        return {};
    }
    Send(line);
    const std::string reply = ReadUntil([](std::string_view text) { return text.ends_with('\n'); });
    return reply.ends_with("\r\n") ? reply.substr(0, reply.size() - 2) : std::string();
}

void RawClient::Send(std::string_view text) {
    if (!text.empty()) {
        SSL_write(tls.get(), text.data(), static_cast<int>(text.size()));
    }
}

void RawClient::SendRaw(std::string_view bytes) {
    ::send(socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

std::string RawClient::ReadUntil(const std::function<bool(std::string_view)>& complete) {
    std::string text;
    for (char byte = 0; !complete(text) && SSL_read(tls.get(), &byte, 1) == 1;) {
        text += byte;
    }
    return text;
}

bool RawClient::IsClosed(int milliseconds) {
    for (;;) {
        pollfd poll{socket.Get(), POLLIN, 0};
        if (::poll(&poll, 1, milliseconds) != 1) {
            return false;
        }
        std::array<char, 4096> buffer{};
        std::size_t count = 0;
        const bool received = SSL_is_init_finished(tls.get()) != 0
                                  ? SSL_read_ex(tls.get(), buffer.data(), buffer.size(), &count) == 1
                                  : ::recv(socket.Get(), buffer.data(), buffer.size(), 0) > 0;
        if (!received) {
            return true;
        }
    }
}

HttpReply RawClient::Exchange(std::string_view request) {
    HttpReply reply;
    Send(request);
    reply.header = ReadUntil([](std::string_view text) { return text.ends_with("\r\n\r\n"); });
    reply.status = NumberAfter(reply.header, "HTTP/1.1 ");
    const auto length = static_cast<std::size_t>(NumberAfter(reply.header, "Content-Length: "));
    reply.body = ReadUntil([length](std::string_view text) { return text.size() == length; });
    return reply;
}

HttpReply RawClient::Post(std::string_view body) {
    return Exchange("POST " + Hask::HostAgent::apiPath + " HTTP/1.1\r\nHost: localhost\r\nContent-Length: " +
                    std::to_string(body.size()) + "\r\n\r\n" + std::string(body));
}

HttpReply RawClient::Call(const std::string& type, const std::string& id, const std::string& method,
                          const std::string& parameters) {
    return Post(R"(<e:Envelope xmlns:e="http://schemas.xmlsoap.org/soap/envelope/"><e:Body><)" + method +
                R"( xmlns="urn:ordane"><_this type=")" + type + R"(">)" + id + "</_this>" + parameters +
                "</" + method + "></e:Body></e:Envelope>");
}

std::string RawClient::AcquireTicket() {
    return ReadAll(TextOf(
        Call("SessionManager", "ha-sessionmgr", "AcquireLocalTicket", "<userName>root</userName>").body,
        "passwordFilePath"));
}

HttpReply RawClient::LogIn(const std::string& password, const std::string& user) {
    return Call("SessionManager", "ha-sessionmgr", "Login",
                "<userName>" + user + "</userName><password>" + password + "</password><locale>en</locale>");
}

}  // namespace VessadTest
