#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>

#include <array>
#include <thread>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/file_descriptor.h"
#include "runtime/tessim/peer_owner.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/tls_test_server.h"
#include "tests/unit/tessim/open_stream.h"

namespace Tessim {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

// The kernel repeats a request that found the queue full after a second, later than the budget's end.
TEST(TlsStream, IsConnectedSoonAfterTheListenersQueueWasFull) {
    const FileDescriptor listener(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener.Get(), any, length) | ::listen(listener.Get(), 0) |
                  ::getsockname(listener.Get(), any, &length),
              0);
    const FileDescriptor queued(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(::connect(queued.Get(), any, length), 0);
    const TimeBudget budget(800ms);
    std::array<FileDescriptor, 2> accepted;
    std::thread server([&] {
        std::this_thread::sleep_for(200ms);
        for (FileDescriptor& connection : accepted) {
            connection = FileDescriptor(::accept(listener.Get(), nullptr, nullptr));
        }
    });
    EXPECT_THAT(MessageOf<TimeoutException>([&] { OpenStream(ntohs(address.sin_port)); }),
                HasSubstr("TLS handshake"));
    ::shutdown(listener.Get(), SHUT_RDWR);
    server.join();
}

TEST(PeerOwner, IsNotTakenFromAReplyToAnEarlierQuery) {
    KelvTest::TlsTestServer server(&KelvTest::ServedConnection::StaySilent);
    const FileDescriptor client(::socket(AF_INET, SOCK_STREAM, 0));
    const FileDescriptor diagnostics(::socket(AF_NETLINK, SOCK_RAW, NETLINK_SOCK_DIAG));
    sockaddr_in address{AF_INET, htons(server.GetPort()), {htonl(INADDR_LOOPBACK)}, {}};
    const auto& peer = reinterpret_cast<const sockaddr&>(address);
    ASSERT_EQ(::connect(client.Get(), &peer, sizeof address), 0);
    nlmsghdr invalid{sizeof invalid, 0xffff, NLM_F_REQUEST, 1, 0};
    ASSERT_EQ(::send(diagnostics.Get(), &invalid, sizeof invalid, 0), ssize_t{sizeof invalid});
    while (server.GetAccepted() == 0) {
    }
    EXPECT_EQ(FindPeerOwner(client.Get(), peer, diagnostics.Get()), ::getuid());
}

}  // namespace
}  // namespace Tessim
