#include "runtime/tessim/peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

namespace Tessim {
namespace {

constexpr std::chrono::seconds firstBackoff{5};
constexpr std::chrono::seconds longestBackoff{20};
constexpr std::chrono::minutes calm{1};
constexpr std::chrono::seconds recovered{20};

std::mutex backoffsMutex;

// By address and port. Never destroyed: other destructors at the process's end may still close streams.
std::map<std::string, Backoff>& Backoffs() {
    static auto& backoffs = *new std::map<std::string, Backoff>;
    return backoffs;
}

}  // namespace

void Backoff::Start(Clock::time_point now, std::string newMessage, FileDescriptor newConnection) {
    if (now > end + recovered) {
        replied = closed = false;
    }
    const bool isFirst = length == Clock::duration::zero() || now > end + calm;
    length = isFirst ? firstBackoff : std::min<Clock::duration>(2 * length, longestBackoff);
    begin = now;
    end = now + length;
    message = std::move(newMessage);
    connection = length > firstBackoff ? std::move(newConnection) : FileDescriptor();
    owner = ::getpid();
}

bool Backoff::IsActive(Clock::time_point now) {
    if (now < end && now >= begin + firstBackoff && TakeSign()) {
        end = now;
    }
    if (now >= end) {
        connection.Close();
    }
    return now < end;
}

// Whether the peer has replied, or closed the connection, for the first time.
bool Backoff::TakeSign() {
    pollfd poll{connection.Get(), POLLIN | POLLRDHUP, 0};
    if (!connection || owner != ::getpid() || ::poll(&poll, 1, 0) <= 0) {
        return false;
    }
    bool& sign = (poll.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0 ? closed : replied;
    return !std::exchange(sign, true);
}

Peer::Peer(const std::string& host, std::uint16_t port) {
    auto* const v4 = reinterpret_cast<sockaddr_in*>(&address);
    auto* const v6 = reinterpret_cast<sockaddr_in6*>(&address);
    if (host == "localhost") {
        v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof *v4;
    } else if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
        length = sizeof *v4;
    } else if (address = {}; inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
        length = sizeof *v6;
    } else {
        throw InvalidArgumentException("\"" + StringUtil::EscapeUntrusted(host, 64) + "\" is not an address");
    }
    if (length == sizeof *v4) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        name = host;
    } else {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        name = "[" + host + "]";
    }
    name += ":" + std::to_string(port);
}

void Peer::CheckBackoff() const {
    const std::lock_guard lock(backoffsMutex);
    const auto backoff = Backoffs().find(GetKey());
    if (backoff != Backoffs().end() && backoff->second.IsActive(Clock::now())) {
        throw TimeoutException(backoff->second.GetMessage());
    }
}

void Peer::ThrowTimeout(const char* step, int socket) const {
    const std::string message = name + ": no reply in time (" + step + ")";
    FileDescriptor connection(::fcntl(socket, F_DUPFD_CLOEXEC, 0));  // none where there are no more
    {
        const std::lock_guard lock(backoffsMutex);
        Backoffs()[GetKey()].Start(Clock::now(), message, std::move(connection));
    }
    throw TimeoutException(message);
}

std::string Peer::GetKey() const {
    return {reinterpret_cast<const char*>(&address), length};
}

}  // namespace Tessim
