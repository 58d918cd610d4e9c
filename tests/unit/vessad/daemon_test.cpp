// The daemon as a process: how it starts, reloads and ends.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/vessad/raw_client.h"
#include "tests/unit/vessad/sample_host.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace VessadTest {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

class DaemonTest : public ::testing::Test {
  protected:
    ~DaemonTest() override {
        if (daemon > 0) {
            ::kill(daemon, SIGKILL);
            ::waitpid(daemon, nullptr, 0);
        }
    }

    // Starts the daemon with its messages going to the log file, and answers its process.
    pid_t Run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {program, "--ticket-dir", ticketPath.string()});
        std::vector<char*> pointers;
        pointers.reserve(arguments.size() + 1);
        for (std::string& argument : arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        const pid_t child = ::fork();
        if (child == 0) {
            const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            ::dup2(log, STDERR_FILENO);
            ::dup2(log, STDOUT_FILENO);
            ::execv(program, pointers.data());
            ::_exit(127);
        }
        return child;
    }

    // The same with a free port; waits until it listens.
    void Start(std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.end(), {"--listen", "127.0.0.1:0", "--foreground"});
        daemon = Run(std::move(arguments));
        const std::string mark = "Listening on 127.0.0.1 port ";
        ASSERT_TRUE(AwaitLog(mark)) << ReadAll(logPath);
        const std::string log = ReadAll(logPath);
        port = static_cast<std::uint16_t>(std::atoi(log.c_str() + log.find(mark) + mark.size()));
    }

    bool AwaitLog(const std::string& text) const {
        for (int tries = 0; tries < 1000; ++tries) {
            if (ReadAll(logPath).find(text) != std::string::npos) {
                return true;
            }
            std::this_thread::sleep_for(10ms);
        }
        return false;
    }

    static int ExitCodeOf(pid_t process) {
        int status = 0;
        ::waitpid(process, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    int Stop(int number) {
        ::kill(daemon, number);
        return ExitCodeOf(std::exchange(daemon, 0));
    }

    std::string ServedVersion() const {
        RawClient client(port);
        client.Open();
        return client.Call("ServiceInstance", "ServiceInstance", "RetrieveContent").body;
    }

    const char* program = VESSAD_TEST_DAEMON;
    TemporaryDirectory directory;
    std::filesystem::path hostPath = directory.GetPath() / "host.yaml";
    std::filesystem::path logPath = directory.GetPath() / "log";
    std::filesystem::path ticketPath = directory.GetPath() / "tickets";
    pid_t daemon = 0;
    std::uint16_t port = 0;
};

TEST_F(DaemonTest, ServesTheDescribedHostUntilItIsTerminated) {
    WriteAll(hostPath, sampleHost);
    Start({"--host", hostPath});
    EXPECT_THAT(ServedVersion(), HasSubstr("1.2.3"));
    RawClient client(port);
    client.Open();
    EXPECT_FALSE(client.AskForTicket().empty());
    EXPECT_EQ(FilesIn(ticketPath).size(), 1U);
    EXPECT_EQ(Stop(SIGTERM), 0);
    EXPECT_TRUE(FilesIn(ticketPath).empty());
    EXPECT_THAT(ReadAll(logPath), HasSubstr("SIGTERM: ending"));
}

TEST_F(DaemonTest, SaysSoWhenItWasBuiltWithoutLibvirt) {
    program = VESSAD_TEST_DAEMON_WITHOUT_LIBVIRT;
    EXPECT_EQ(ExitCodeOf(Run({"--libvirt", "test:///default", "--listen", "127.0.0.1:0", "--foreground"})),
              1);
    EXPECT_THAT(ReadAll(logPath), HasSubstr("critical this build of the daemon has no libvirt"));
}

TEST_F(DaemonTest, WithoutLibvirtServesADescribedHost) {
    program = VESSAD_TEST_DAEMON_WITHOUT_LIBVIRT;
    WriteAll(hostPath, sampleHost);
    Start({"--host", hostPath});
    EXPECT_THAT(ServedVersion(), HasSubstr("1.2.3"));
    EXPECT_EQ(Stop(SIGTERM), 0);
}

TEST_F(DaemonTest, EndsOnAnInterruptToo) {
    Start();
    EXPECT_EQ(Stop(SIGINT), 0);
}

TEST_F(DaemonTest, ReadsTheHostAgainOnAHangup) {
    WriteAll(hostPath, "{about: {name: a, version: first, build: b}, vms: []}");
    Start({"--host", hostPath});
    WriteAll(hostPath, "{about: {name: a, version: second, build: b}, vms: [}");
    ::kill(daemon, SIGHUP);
    ASSERT_TRUE(AwaitLog("the one before stays in force: " + hostPath.string() + ":1:"));
    EXPECT_THAT(ServedVersion(), HasSubstr("first"));
    WriteAll(hostPath, "{about: {name: a, version: third, build: b}, vms: [{id: x, config: null}]}");
    ::kill(daemon, SIGHUP);
    ASSERT_TRUE(AwaitLog("1 VMs,"));
    EXPECT_THAT(ServedVersion(), HasSubstr("third"));
    EXPECT_EQ(Stop(SIGTERM), 0);
}

TEST_F(DaemonTest, ServesTheBuiltInHostWithoutAName) {
    Start();
    EXPECT_THAT(ServedVersion(), HasSubstr("<about>"));
    EXPECT_THAT(ReadAll(logPath), HasSubstr("Serving the built-in sample host"));
    EXPECT_EQ(Stop(SIGTERM), 0);
}

TEST_F(DaemonTest, DoesNotStartOnABadHost) {
    WriteAll(hostPath, "vms:\n  - {id: '1', config: 5}\n");
    for (const bool foreground : {true, false}) {
        std::vector<std::string> arguments{"--host", hostPath, "--listen", "127.0.0.1:0"};
        if (foreground) {
            arguments.emplace_back("--foreground");
        }
        std::filesystem::remove(logPath);
        EXPECT_EQ(ExitCodeOf(Run(arguments)), 1);
        EXPECT_THAT(ReadAll(logPath),
                    HasSubstr(hostPath.string() + ":2:23: vms[0].config: expected a mapping with "
                                                  "the members of VmConfigInfo, found 5"));
    }
}

TEST_F(DaemonTest, DoesNotStartOnAPortThatIsTaken) {
    Start();
    const std::vector<std::string> arguments{"--listen", "127.0.0.1:" + std::to_string(port)};
    EXPECT_EQ(ExitCodeOf(Run(arguments)), 1);
    EXPECT_THAT(ReadAll(logPath), HasSubstr("Address already in use"));
    EXPECT_THAT(ServedVersion(), HasSubstr("<about>"));
    EXPECT_EQ(Stop(SIGTERM), 0);
}

TEST_F(DaemonTest, ListensOnLoopbackOnly) {
    EXPECT_NE(ExitCodeOf(Run({"--listen", "0.0.0.0:0", "--foreground"})), 0);
    EXPECT_THAT(ReadAll(logPath), HasSubstr("only a loopback address"));
}

TEST_F(DaemonTest, LeavesNothingUsableBehindWhenItIsKilled) {
    Start();
    std::string password;
    {
        RawClient client(port);
        client.Open();
        password = ReadAll(client.AskForTicket());
        ASSERT_EQ(password.size(), 64U);
        ::kill(daemon, SIGKILL);
        ::waitpid(std::exchange(daemon, 0), nullptr, 0);
    }
    EXPECT_EQ(FilesIn(ticketPath).size(), 1U);
    std::filesystem::remove(logPath);
    Start();
    EXPECT_TRUE(FilesIn(ticketPath).empty());
    RawClient client(port);
    client.Open();
    EXPECT_EQ(client.LogIn(password), 500);
    EXPECT_EQ(Stop(SIGTERM), 0);
}

// In the background its own exit code says that it stands. Its process is found by the file it leaves nothing
// of: the one that holds the ticket directory open.
TEST_F(DaemonTest, StandsWhenTheStarterReturns) {
    // A port that was free a moment ago.
    Start();
    const std::uint16_t freePort = port;
    ASSERT_EQ(Stop(SIGTERM), 0);
    port = freePort;
    ASSERT_EQ(ExitCodeOf(Run({"--listen", "127.0.0.1:" + std::to_string(port)})), 0);
    EXPECT_THAT(ServedVersion(), HasSubstr("<about>"));

    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const pid_t process = std::atoi(entry.path().filename().c_str());
        std::error_code gone;
        if (process > 0 && ReadAll(entry.path() / "cmdline").find(ticketPath.string()) != std::string::npos) {
            found.push_back(process);
            EXPECT_EQ(std::filesystem::read_symlink(entry.path() / "cwd", gone), "/");
            EXPECT_EQ(std::filesystem::read_symlink(entry.path() / "fd/2", gone), "/dev/null");
            EXPECT_EQ(::getsid(process), process);
        }
    }
    ASSERT_EQ(found.size(), 1U);
    ::kill(found[0], SIGTERM);
    for (int tries = 0; tries < 1000 && ::kill(found[0], 0) == 0; ++tries) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_THROW(RawClient{port}, std::runtime_error);
}

}  // namespace
}  // namespace VessadTest
