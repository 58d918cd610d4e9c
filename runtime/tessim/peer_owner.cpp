#include "runtime/tessim/peer_owner.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <system_error>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/file_descriptor.h"

namespace Tessim {
namespace {

struct Request {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

struct Reply {
    nlmsghdr header;
    union {
        inet_diag_msg found;
        nlmsgerr error;
    };
    std::array<char, 4096> attributes;
};

// Copies an address and a port, both in network byte order, as the request has them.
void Fill(const sockaddr& from, __be32 (&address)[4], __be16& port) {
    if (from.sa_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(from);
        std::memcpy(address, &v6.sin6_addr, sizeof v6.sin6_addr);
        port = v6.sin6_port;
    } else {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(from);
        std::memcpy(address, &v4.sin_addr, sizeof v4.sin_addr);
        port = v4.sin_port;
    }
}

// The kernel's reply about the socket at the other end. False, with errno, when there is none.
bool Query(int socket, const sockaddr& peer, int diagnostics, Reply& reply) {
    // Starts where no earlier process did.
    static std::atomic sequence =
        static_cast<std::uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    sockaddr_storage own{};
    socklen_t ownLength = sizeof own;
    Request request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.header.nlmsg_seq = ++sequence;
    request.body.sdiag_family = static_cast<std::uint8_t>(peer.sa_family);
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_states = ~0U;
    inet_diag_sockid& id = request.body.id;
    id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    const FileDescriptor made(
        diagnostics < 0 ? ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG) : -1);
    const int netlink = made ? made.Get() : diagnostics;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&own), &ownLength) != 0) {
        return false;
    }
    Fill(peer, id.idiag_src, id.idiag_sport);
    Fill(reinterpret_cast<const sockaddr&>(own), id.idiag_dst, id.idiag_dport);
    if (::send(netlink, &request, sizeof request, 0) < 0) {
        return false;
    }
    // The kernel replies before it returns from send. A reply to a request of an earlier process may wait in
    // a socket that outlives processes.
    while (::recv(netlink, &reply, sizeof reply, MSG_DONTWAIT) >= 0) {
        if (reply.header.nlmsg_seq == request.header.nlmsg_seq) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::optional<uid_t> FindPeerOwner(int socket, const sockaddr& peer, int diagnostics) {
    Reply reply{};
    int error = Query(socket, peer, diagnostics, reply) ? 0 : errno;
    if (error == 0 && reply.header.nlmsg_type == NLMSG_ERROR) {
        error = -reply.error.error;
    }
    if (error != 0 && error != ENOENT) {
        throw SystemException("cannot determine who owns a connection (tcp_diag): " +
                              std::generic_category().message(error));
    }
    // A socket that no process holds, not accepted yet or closed already, counts as root's in `idiag_uid`.
    // When it is gone, the kernel finds the listening one, which has no peer.
    const bool isHeld = error == 0 && reply.header.nlmsg_type == SOCK_DIAG_BY_FAMILY &&
                        reply.found.idiag_inode != 0 && reply.found.id.idiag_dport != 0;
    return isHeld ? std::optional<uid_t>(reply.found.idiag_uid) : std::nullopt;
}

}  // namespace Tessim
