// The daemon as a service manager runs it: with a passed socket, and watched.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "apps/vessad/Server.h"
#include "runtime/tessim/file_descriptor.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/raw_client.h"
#include "tests/unit/vessad/sample_host.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace VessadTest {
namespace {

using namespace std::chrono_literals;
using Tessim::FileDescriptor;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int firstPassed = 3;

// A socket bound to a free port of `address`.
FileDescriptor Bind(in_addr_t address, bool listens) {
    FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(address);
    EXPECT_EQ(::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
    EXPECT_EQ(listens ? ::listen(socket.Get(), 16) : 0, 0);
    return socket;
}

std::uint16_t PortOf(const FileDescriptor& socket) {
    sockaddr_in local{};
    socklen_t size = sizeof local;
    EXPECT_EQ(::getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&local), &size), 0);
    return ntohs(local.sin_port);
}

class ServiceTest : public ::testing::Test {
  protected:
    ServiceTest() : notices(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        noticePath.string().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(notices.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        const timeval timeout{20, 0};
        EXPECT_EQ(::setsockopt(notices.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout), 0);
    }
    ~ServiceTest() override {
        if (daemon > 0) {
            ::kill(daemon, SIGKILL);
            ::waitpid(daemon, nullptr, 0);
        }
    }

    // With that socket passed `count` times.
    void Start(const FileDescriptor& passed, const char* count = "1") {
        const std::string tickets = (directory.GetPath() / "tickets").string();
        daemon = ::fork();
        if (daemon == 0) {
            ::dup2(::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
            const int copy = ::dup(passed.Get());
            ::dup2(copy, firstPassed);
            ::dup2(copy, firstPassed + 1);
            ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
            ::setenv("LISTEN_FDS", count, 1);
            ::setenv("NOTIFY_SOCKET", noticePath.c_str(), 1);
            ::setenv("WATCHDOG_USEC", "400000", 1);
            ::unsetenv("WATCHDOG_PID");
            ::execl(VESSAD_TEST_DAEMON, VESSAD_TEST_DAEMON, "--foreground", "--ticket-dir", tickets.c_str(),
                    static_cast<char*>(nullptr));
            ::_exit(127);
        }
    }

    // The next notice to the service manager; empty when none comes within 20 s.
    std::string NextNotice() {
        std::array<char, 256> text{};
        const ssize_t size = ::recv(notices.Get(), text.data(), text.size(), 0);
        return {text.data(), static_cast<std::size_t>(size < 0 ? 0 : size)};
    }

    int Wait() {
        int status = 0;
        ::waitpid(std::exchange(daemon, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    TemporaryDirectory directory;
    std::filesystem::path logPath = directory.GetPath() / "log";
    std::filesystem::path noticePath = directory.GetPath() / "notices";
    FileDescriptor notices;
    pid_t daemon = 0;
};

TEST_F(ServiceTest, ServesThePassedSocketAndWhoConnectedBetweenTwoRuns) {
    const FileDescriptor socket = Bind(INADDR_LOOPBACK, true);
    const std::string listening = "Listening on 127.0.0.1 port " + std::to_string(PortOf(socket));
    Start(socket);
    EXPECT_EQ(NextNotice(), "READY=1");
    EXPECT_THAT(ReadAll(logPath), HasSubstr(listening));
    EXPECT_THAT(RawClient(PortOf(socket)).Open(), StartsWith("200 "));
    ::kill(daemon, SIGTERM);
    EXPECT_EQ(Wait(), 0);
    RawClient queued(PortOf(socket));
    Start(socket);
    EXPECT_THAT(queued.Open(), StartsWith("200 "));
}

TEST_F(ServiceTest, ReportsProgressUntilItStops) {
    const FileDescriptor socket = Bind(INADDR_LOOPBACK, true);
    Start(socket);
    EXPECT_EQ(NextNotice(), "READY=1");
    for (int report = 0; report < 4; ++report) {
        EXPECT_EQ(NextNotice(), "WATCHDOG=1");
    }
    ::kill(daemon, SIGTERM);
    std::string notice = NextNotice();
    while (notice == "WATCHDOG=1") {
        notice = NextNotice();
    }
    EXPECT_EQ(notice, "STOPPING=1");
    EXPECT_EQ(Wait(), 0);
}

TEST_F(ServiceTest, RefusesAllButOneSocketThatListensAtALoopbackAddress) {
    const FileDescriptor everywhere = Bind(INADDR_ANY, true);
    const FileDescriptor silent = Bind(INADDR_LOOPBACK, false);
    const FileDescriptor good = Bind(INADDR_LOOPBACK, true);
    for (const auto& [socket, count, reason] :
         std::vector<std::tuple<const FileDescriptor*, const char*, std::string>>{
             {&everywhere, "1", "the passed socket does not listen on TCP at a loopback address"},
             {&silent, "1", "the passed socket does not listen on TCP at a loopback address"},
             {&good, "2", "more than one socket is passed to listen on, or for diagnostics"},
             {&good, "two", "cannot take over the passed sockets: Invalid argument"}}) {
        Start(*socket, count);
        EXPECT_EQ(Wait(), 1);
        EXPECT_THAT(ReadAll(logPath), HasSubstr(reason));
        std::filesystem::remove(logPath);
    }
}

TEST(ServerProgress, RequiresEveryLaneToRunBetweenTwoChecks) {
    const TemporaryDirectory directory;
    TestBackend backend;
    Vessad::ServerOptions options;
    options.listen = Vessad::ParseListenAddress("127.0.0.1:0");
    options.tickets.directory = directory.GetPath() / "tickets";
    Vessad::Server server(options, backend);
    EXPECT_TRUE(server.CheckProgress());
    EXPECT_FALSE(server.CheckProgress()) << "it was not started";
    server.Start();
    EXPECT_TRUE(Await([&] { return server.CheckProgress(); }));
}

}  // namespace
}  // namespace VessadTest
