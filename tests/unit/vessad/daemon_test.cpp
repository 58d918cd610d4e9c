// The daemon as a process: start and stop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

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
        }
    }

    std::string CommandLine(const std::string& arguments) const {
        return program + " --ticket-dir " + ticketPath + " " + arguments;
    }
    // Runs the daemon, its output going to the log file, and returns its exit code.
    int Run(const std::string& arguments) const {
        return WEXITSTATUS(
            std::system((CommandLine(arguments) + " >>" + logPath.string() + " 2>&1").c_str()));
    }
    // Starts it in the foreground on a free port, and waits until it listens. Its exit code will follow its
    // log.
    void Start(const std::string& arguments = "") {
        directory.Run("{ " + CommandLine(arguments + " --listen 127.0.0.1:0 --foreground") +
                      " & echo $! >pid; wait $!; echo exit code $?; } >>log 2>&1 &");
        const std::string mark = "Listening on 127.0.0.1 port ";
        ASSERT_TRUE(AwaitLog(mark)) << Log();
        port = static_cast<std::uint16_t>(std::stoi(Log().substr(Log().find(mark) + mark.size())));
        daemon = std::stoi(ReadAll(directory.GetPath() / "pid"));
    }
    void Stop(int number) {
        ::kill(std::exchange(daemon, 0), number);
        EXPECT_TRUE(AwaitLog("exit code 0\n")) << Log();
    }

    std::string Log() const { return ReadAll(logPath); }
    bool AwaitLog(const std::string& text) const {
        return Await([&] { return Log().find(text) != std::string::npos; });
    }
    std::string ServedContent() const {
        RawClient client(port);
        client.Open();
        return client.Call("ServiceInstance", "ServiceInstance", "RetrieveContent").body;
    }

    std::string program = VESSAD_TEST_DAEMON;
    TemporaryDirectory directory;
    std::filesystem::path logPath = directory.GetPath() / "log";
    std::string ticketPath = directory.GetPath() / "tickets";
    pid_t daemon = 0;
    std::uint16_t port = 0;
};

TEST_F(DaemonTest, WithoutLibvirtServesADescribedHostOnly) {
    program = VESSAD_TEST_DAEMON_WITHOUT_LIBVIRT;
    EXPECT_EQ(Run("--libvirt test:///default --listen 127.0.0.1:0 --foreground"), 1);
    EXPECT_THAT(Log(), HasSubstr("critical Exiting: this build of the daemon has no libvirt"));
    WriteAll(directory.GetPath() / "host.yaml", sampleHost);
    Start("--host host.yaml");
    EXPECT_THAT(ServedContent(), HasSubstr("1.2.3"));
    std::string changed = sampleHost;
    WriteAll(directory.GetPath() / "host.yaml", changed.replace(changed.find("1.2.3"), 5, "4.5.6"));
    ::kill(daemon, SIGHUP);
    EXPECT_TRUE(Await([&] { return ServedContent().find("4.5.6") != std::string::npos; })) << Log();
    Stop(SIGINT);
    EXPECT_THAT(Log(), HasSubstr("SIGINT received, stopping"));
}

TEST_F(DaemonTest, ExitsWithTheReasonWhereItsWorkingDirectoryIsGone) {
    directory.Run("mkdir gone && cd gone && rmdir ../gone && { " + CommandLine("--host host.yaml") +
                  "; echo exit code $?; } >>" + logPath.string() + " 2>&1");
    EXPECT_THAT(Log(), HasSubstr("critical Exiting: "));
    EXPECT_THAT(Log(), HasSubstr("exit code 1\n"));
}

TEST_F(DaemonTest, ListensInTheBackgroundWhenTheStarterReturns) {
    Start();
    EXPECT_THAT(Log(), HasSubstr("Serving the built-in sample host"));
    const std::string arguments = "--listen 127.0.0.1:" + std::to_string(port);
    EXPECT_EQ(Run(arguments), 1);
    EXPECT_THAT(Log(), HasSubstr("cannot listen on 127.0.0.1 port " + std::to_string(port) +
                                 ": Address already in use"));
    Stop(SIGTERM);
    ASSERT_EQ(Run(arguments), 0);
    EXPECT_THAT(ServedContent(), HasSubstr("<about>"));

    // Its process is the one with the ticket directory on its command line.
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const pid_t process = std::atoi(entry.path().filename().c_str());
        std::error_code gone;
        if (process > 0 && ReadAll(entry.path() / "cmdline").find(ticketPath) != std::string::npos) {
            EXPECT_EQ(std::exchange(daemon, process), 0) << "two processes";
            EXPECT_EQ(std::filesystem::read_symlink(entry.path() / "cwd", gone), "/");
            EXPECT_EQ(std::filesystem::read_symlink(entry.path() / "fd/2", gone), "/dev/null");
            EXPECT_EQ(::getsid(process), process);
        }
    }
    ASSERT_NE(daemon, 0);
    ::kill(daemon, SIGTERM);
    EXPECT_TRUE(Await([&] { return ::kill(daemon, 0) != 0; }));
    daemon = 0;
    EXPECT_THROW(RawClient{port}, std::runtime_error);
}

}  // namespace
}  // namespace VessadTest
