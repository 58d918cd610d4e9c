#include "runtime/tessim/peer_owner.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <system_error>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/file_descriptor.h"

namespace Tessim {
namespace {

struct Query {
    nlmsghdr header;
    inet_diag_req_v2 request;
};

[[noreturn]] void Fail(const char* step, int error) {
    throw SystemException(std::string("the kernel does not tell who owns a connection (tcp_diag): ") + step +
                          ": " + std::generic_category().message(error));
}

// Copies an address and a port, both in network byte order, as the query has them.
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

// The query for the socket at the other end.
Query MakeQuery(int socket, const sockaddr& peer) {
    sockaddr_storage own{};
    socklen_t length = sizeof own;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&own), &length) != 0) {
        Fail("getsockname", errno);
    }
    Query query{};
    query.header.nlmsg_len = sizeof query;
    query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    query.header.nlmsg_flags = NLM_F_REQUEST;
    query.request.sdiag_family = static_cast<std::uint8_t>(peer.sa_family);
    query.request.sdiag_protocol = IPPROTO_TCP;
    query.request.idiag_states = ~0U;
    inet_diag_sockid& id = query.request.id;
    Fill(peer, id.idiag_src, id.idiag_sport);
    Fill(reinterpret_cast<const sockaddr&>(own), id.idiag_dst, id.idiag_dport);
    id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return query;
}

}  // namespace

std::optional<uid_t> FindPeerOwner(int socket, const sockaddr& peer, int diagnostics) {
    const Query query = MakeQuery(socket, peer);
    FileDescriptor own;
    if (diagnostics < 0) {
        own = FileDescriptor(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
        if (!own) {
            Fail("socket", errno);
        }
        diagnostics = own.Get();
    }
    if (::send(diagnostics, &query, sizeof query, 0) != sizeof query) {
        Fail("send", errno);
    }
    alignas(nlmsghdr) std::array<char, 4096> buffer{};
    // The kernel replies before it returns from send.
    const ssize_t length = ::recv(diagnostics, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length < 0) {
        Fail("recv", errno);
    }
    nlmsghdr header{};
    const auto size = static_cast<std::size_t>(length);
    const char* const payload = buffer.data() + sizeof header;
    if (size >= sizeof header) {
        std::memcpy(&header, buffer.data(), sizeof header);
    }
    if (header.nlmsg_type == NLMSG_ERROR && size >= sizeof header + sizeof(nlmsgerr)) {
        nlmsgerr error{};
        std::memcpy(&error, payload, sizeof error);
        if (error.error == -ENOENT) {
            return std::nullopt;
        }
        Fail("reply", -error.error);
    }
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY || size < sizeof header + sizeof(inet_diag_msg)) {
        Fail("reply", EPROTO);
    }
    inet_diag_msg found{};
    std::memcpy(&found, payload, sizeof found);
    // A socket that no process holds, not accepted yet or closed already, counts as root's in `idiag_uid`.
    return found.idiag_inode != 0 ? std::optional<uid_t>(found.idiag_uid) : std::nullopt;
}

}  // namespace Tessim
