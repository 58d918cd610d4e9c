// The daemon as a process: start and stop.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/raw_client.h"
#include "tests/unit/vessad/sample_host.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace VessadTest {
namespace {

using ::testing::HasSubstr;

class DaemonTest : public ::testing::Test {
  protected:
    ~DaemonTest() override {
        if (daemon > 0) {
            ::kill(daemon, SIGKILL);
            ::waitpid(daemon, nullptr, 0);
        }
    }

    // Starts the daemon with its output going to the log file, and returns its process id.
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

    // Starts it in the foreground on a free port, and waits until it listens.
    void Start(std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.end(), {"--listen", "127.0.0.1:0", "--foreground"});
        daemon = Run(std::move(arguments));
        const std::string mark = "Listening on 127.0.0.1 port ";
        ASSERT_TRUE(AwaitLog(mark)) << ReadAll(logPath);
        const std::string log = ReadAll(logPath);
        port = static_cast<std::uint16_t>(std::atoi(log.c_str() + log.find(mark) + mark.size()));
    }

    bool AwaitLog(const std::string& text) const {
        return Await([&] { return ReadAll(logPath).find(text) != std::string::npos; });
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

TEST_F(DaemonTest, WithoutLibvirtServesADescribedHostOnly) {
    program = VESSAD_TEST_DAEMON_WITHOUT_LIBVIRT;
    EXPECT_EQ(ExitCodeOf(Run({"--libvirt", "test:///default", "--listen", "127.0.0.1:0", "--foreground"})),
              1);
    EXPECT_THAT(ReadAll(logPath), HasSubstr("critical Exiting: this build of the daemon has no libvirt"));
    WriteAll(hostPath, sampleHost);
    Start({"--host", hostPath});
    EXPECT_THAT(ServedVersion(), HasSubstr("1.2.3"));
    EXPECT_EQ(Stop(SIGINT), 0);
    EXPECT_THAT(ReadAll(logPath), HasSubstr("SIGINT received, stopping"));
}

TEST_F(DaemonTest, DoesNotStartWithABadHost) {
    WriteAll(hostPath, "vms:\n  - {id: '1', config: 5}\n");
    EXPECT_EQ(ExitCodeOf(Run({"--host", hostPath, "--listen", "127.0.0.1:0"})), 1);
    EXPECT_THAT(ReadAll(logPath),
                HasSubstr(hostPath.string() + ":2:23: vms[0].config: expected a mapping with "
                                              "the members of VmConfigInfo, found 5"));
}

TEST_F(DaemonTest, ListensInTheBackgroundWhenTheStarterReturns) {
    Start();
    EXPECT_THAT(ReadAll(logPath), HasSubstr("Serving the built-in sample host"));
    const std::vector<std::string> arguments{"--listen", "127.0.0.1:" + std::to_string(port)};
    EXPECT_EQ(ExitCodeOf(Run(arguments)), 1);
    EXPECT_THAT(ReadAll(logPath), HasSubstr("Address already in use"));
    ASSERT_EQ(Stop(SIGTERM), 0);
    ASSERT_EQ(ExitCodeOf(Run(arguments)), 0);
    EXPECT_THAT(ServedVersion(), HasSubstr("<about>"));

    // Its process is the one with the ticket directory on its command line.
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
    EXPECT_TRUE(Await([&] { return ::kill(found[0], 0) != 0; }));
    EXPECT_THROW(RawClient{port}, std::runtime_error);
}

}  // namespace
}  // namespace VessadTest
