#include "apps/vessad/TicketReaders.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <future>

#include "tests/unit/vessad/log_lines.h"

namespace Vessad {
namespace {

using boost::asio::ip::tcp;

// A connection to `address` whose other end is a socket of `user`, and whether `readers` include that user.
bool IncludesUser(TicketReaders& readers, uid_t user, const char* address = "127.0.0.1") {
    boost::asio::io_context io;
    tcp::acceptor acceptor(io, {boost::asio::ip::make_address(address), 0});
    tcp::socket client(io);
    ::setfsuid(user);  // of this thread, for the sockets that it makes
    client.open(acceptor.local_endpoint().protocol());
    ::setfsuid(::geteuid());
    client.connect(acceptor.local_endpoint());
    tcp::endpoint peer;
    tcp::socket served = acceptor.accept(peer);
    return readers.Include(served.native_handle(), *peer.data());
}

TEST(TicketReadersTest, AreRootTheDaemonsUserAndTheGroupOfTheTickets) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    // Debian's users "daemon" and "bin" are each in the group of their name and number only; nobody and no
    // group has the last number.
    constexpr uid_t daemon = 1;
    constexpr uid_t bin = 2;
    constexpr uid_t missing = 4'000'000;
    for (const auto& [group, expected] :
         std::vector<std::pair<Group, std::string>>{{{}, "1000"},
                                                    {FindGroup(daemon), "1100"},
                                                    {FindGroup(bin), "1010"},
                                                    {FindGroup(missing), "1000"}}) {
        TicketReaders readers(group, {});
        for (const char* const address : {"127.0.0.1", "127.0.0.1", "::1"}) {
            std::string included;
            for (const uid_t user : {uid_t{0}, daemon, bin, missing}) {
                included += IncludesUser(readers, user, address) ? '1' : '0';
            }
            EXPECT_EQ(included, expected) << "expected at " << address;
        }
    }
}

TEST(TicketReadersTest, DoNotWaitForTheLookUpOfAUser) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    std::promise<void> found;
    const auto isOne = [isFound = std::shared_future<void>(found.get_future())](uid_t user) {
        isFound.wait_for(std::chrono::seconds(20));
        return user == 1;
    };
    TicketReaders readers({isOne, {}}, {});
    EXPECT_FALSE(IncludesUser(readers, 1));
    EXPECT_FALSE(IncludesUser(readers, 1));
    EXPECT_TRUE(IncludesUser(readers, 0));
    found.set_value();
    EXPECT_TRUE(VessadTest::Await([&] { return IncludesUser(readers, 1); }));
}

TEST(TicketReadersTest, AreAllUsersWhereTheKernelDoesNotTellWhoConnects) {
    const VessadTest::LogLines log;
    TicketReaders readers({}, Tessim::FileDescriptor(::open("/dev/null", O_RDWR)));
    EXPECT_TRUE(IncludesUser(readers, 1));
    EXPECT_TRUE(IncludesUser(readers, 1));
    EXPECT_EQ(log.GetText(),
              "warning All local users are served alike: cannot determine who owns a connection "
              "(tcp_diag): Socket operation on non-socket\n");
}

}  // namespace
}  // namespace Vessad
