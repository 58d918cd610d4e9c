#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/stream.h"
#include "tests/unit/tessim/open_stream.h"

namespace Tessim::System {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using TimePoint = std::chrono::system_clock::time_point;

constexpr uid_t otherUser = 65534;

class SecretFileTest : public testing::Test {
  protected:
    ~SecretFileTest() override { std::filesystem::remove_all(folder); }

    static std::string MakeFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "secret.XXXXXX").string();
        return ::mkdtemp(name.data()) != nullptr ? name : throw std::runtime_error("no temporary directory");
    }

    static void Make(const std::string& path, mode_t mode = 0600, const std::string& content = "password") {
        std::ofstream(path) << content;
        ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
    }

    static Ref<Stream> Open(const std::string& path, TimePoint notBefore) {
        Ref<Stream> stream;
        GetSystemFactory()->OpenSecretFile(path, notBefore, stream);
        return stream;
    }
    Ref<Stream> Open(const std::string& path) const { return Open(path, start); }

    void ExpectRefused(const std::string& path, const std::string& reason) const {
        ExpectRefused(path, reason, start);
    }
    static void ExpectRefused(const std::string& path, const std::string& reason, TimePoint notBefore) {
        const auto descriptors = OpenDescriptors();
        Ref<Stream> stream;
        try {
            GetSystemFactory()->OpenSecretFile(path, notBefore, stream);
            ADD_FAILURE() << path << " was opened";
        } catch (const SystemException& thrown) {
            EXPECT_THAT(thrown.what(), HasSubstr(reason)) << path;
        }
        EXPECT_FALSE(stream);
        EXPECT_EQ(OpenDescriptors(), descriptors);
    }

    const TimePoint start = std::chrono::system_clock::now();
    const std::string folder = MakeFolder();
    const std::string path = folder + "/ticket";
};

TEST_F(SecretFileTest, ReadsAFreshFileOfItsOwnUser) {
    for (const mode_t mode : {0600U, 0640U, 0400U, 0440U}) {
        Make(path, mode);
        const auto stream = Open(path);
        EXPECT_EQ(ReadBytes(*stream, 100), "password") << mode;
        char byte = 0;
        EXPECT_EQ(stream->Read(&byte, 1), 0U);
        std::filesystem::remove(path);
    }
}

TEST_F(SecretFileTest, IsAReadOnlyStreamOfThisProcess) {
    Make(path, 0600, std::string(3000, 'x'));
    const auto descriptors = OpenDescriptors();
    const auto inherited = OpenDescriptors(FD_CLOEXEC).size();
    const auto stream = Open(path);
    EXPECT_EQ(OpenDescriptors(FD_CLOEXEC).size(), inherited + 1);
    EXPECT_TRUE(stream->IsOwn());
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(stream->IsOwn() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_THROW(stream->Write("x", 1), StreamException);
    EXPECT_EQ(ReadBytes(*stream, 1024).size(), 1024U);
    EXPECT_EQ(ReadBytes(*stream, 4096).size(), 3000U - 1024U);
    stream->Close();
    stream->Close();
    EXPECT_EQ(OpenDescriptors(), descriptors);
    char byte = 0;
    EXPECT_THROW(stream->Read(&byte, 1), StreamException);
    Open(path);  // closed with its last handle
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(SecretFileTest, IsARegularFile) {
    const std::string reason = "no regular file";
    for (const std::string& other : {std::string("/dev/null"), folder, folder + "/", std::string("/")}) {
        ExpectRefused(other, reason);
    }
    ASSERT_EQ(::mkfifo((folder + "/fifo").c_str(), 0600), 0);
    ExpectRefused(folder + "/fifo", reason);
    Make(folder + "/target");
    ASSERT_EQ(::symlink("target", (folder + "/link").c_str()), 0);
    ExpectRefused(folder + "/link", reason);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::chmod(path.c_str(), 0600);
    ExpectRefused(path, reason);
    ::close(listener);
}

TEST_F(SecretFileTest, HasOneName) {
    Make(path);
    ASSERT_EQ(::link(path.c_str(), (folder + "/other").c_str()), 0);
    ExpectRefused(path, "more than one name");
}

TEST_F(SecretFileTest, IsHiddenFromOthersAndWrittenByItsOwnerOnly) {
    for (const mode_t mode : {0620U, 0660U, 0604U, 0644U, 0602U, 0601U, 0666U, 0777U}) {
        Make(path, mode);
        ExpectRefused(path, "others can");
    }
}

TEST_F(SecretFileTest, HasATrustedOwner) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file away";
    }
    Make(path);
    ASSERT_EQ(::chown(path.c_str(), otherUser, 0), 0);
    ExpectRefused(path, "owner is not trusted");
}

// Runs `check` in a child process of the other user; the child's exit code must be 0.
template <class Check>
void AsOtherUser(Check check) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(::setresuid(otherUser, otherUser, otherUser) == 0 && check() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(SecretFileTest, MayBeRootsOrItsReadersOwn) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
    Make(path, 0640);
    ASSERT_EQ(::chown(path.c_str(), 0, ::getgid()), 0);
    Make(folder + "/own");
    ASSERT_EQ(::chown((folder + "/own").c_str(), otherUser, 0), 0);
    AsOtherUser([&] {
        return ReadBytes(*Open(path), 100) == "password" &&
               ReadBytes(*Open(folder + "/own"), 100) == "password";
    });
}

TEST_F(SecretFileTest, IsRefusedWhenItCannotBeRead) {
    if (::geteuid() != 0) {
        Make(path, 0000);
        ExpectRefused(path, "Permission denied");
        return;
    }
    ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
    Make(path, 0600);
    ASSERT_EQ(::chown(path.c_str(), 0, 0), 0);
    ASSERT_EQ(::setgid(otherUser), 0);
    AsOtherUser([&] {
        try {
            Open(path);
            return false;
        } catch (const SystemException& thrown) {
            return std::string(thrown.what()).find("Permission denied") != std::string::npos;
        }
    });
}

TEST_F(SecretFileTest, IsMadeAfterItWasAskedFor) {
    Make(path);
    ExpectRefused(path, "older than the request", start + 1h);
    EXPECT_TRUE(Open(path, TimePoint::min()));
    EXPECT_TRUE(Open(path, start + 1s));  // the file system's clock is coarser
    ExpectRefused(path, "older than the request", TimePoint::max());
}

TEST_F(SecretFileTest, IsNoOldFileThatWasChangedSince) {
    Make(path);
    struct statx status {};
    ASSERT_EQ(::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &status), 0);
    if ((status.stx_mask & STATX_BTIME) == 0) {
        GTEST_SKIP() << "the file system keeps no time of birth";
    }
    std::this_thread::sleep_for(2200ms);
    const auto asked = std::chrono::system_clock::now();
    std::ofstream(path, std::ios::app) << "more";
    ExpectRefused(path, "older than the request", asked);
}

TEST_F(SecretFileTest, IsNotOnAFileSystemOfTheKernel) {
    for (std::filesystem::recursive_directory_iterator
             entry("/sys/module", std::filesystem::directory_options::skip_permission_denied),
         end;
         entry != end; ++entry) {
        struct stat status {};
        if (::lstat(entry->path().c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
            (status.st_mode & 0777) == 0400 && ::access(entry->path().c_str(), R_OK) == 0) {
            ExpectRefused(entry->path(), "stores no files", TimePoint::min());
            return;
        }
    }
    GTEST_SKIP() << "the kernel shows no secret here";
}

TEST_F(SecretFileTest, IsFreshAndNotEmpty) {
    ASSERT_TRUE(std::filesystem::exists("/etc/shadow"));
    ExpectRefused("/etc/shadow", "older than the request");
    // Fresh at every look, root's, and readable by root alone.
    ExpectRefused("/proc/self/environ", "empty");
    Make(path, 0600, "");
    ExpectRefused(path, "empty");
}

TEST_F(SecretFileTest, HasAnAbsolutePath) {
    ASSERT_EQ(::chdir(folder.c_str()), 0);
    Make(path);
    for (const std::string& other :
         {std::string("ticket"), std::string("./ticket"), std::string(), path + std::string("\0x", 2)}) {
        ExpectRefused(other, "no absolute path");
    }
    ASSERT_EQ(::chdir("/"), 0);
}

TEST_F(SecretFileTest, HasAPathThatNeverLeadsUpwards) {
    Make(path);
    std::filesystem::create_directory(folder + "/inner");
    ExpectRefused(folder + "/inner/../ticket", "leads upwards");
    ExpectRefused("/..", "leads upwards");
    // Dots that are part of a name are fine.
    Make(folder + "/..ticket..");
    EXPECT_TRUE(Open(folder + "/..ticket.."));
}

TEST_F(SecretFileTest, HasAPathOfBoundedLength) {
    Make(path);
    std::string longest = folder;
    longest.append(PATH_MAX - 1 - longest.size() - std::string("ticket").size(), '/').append("ticket");
    ASSERT_EQ(longest.size(), PATH_MAX - 1U);
    EXPECT_TRUE(Open(longest));
    longest.insert(folder.size(), "/");
    ExpectRefused(longest, "the path is too long");
    ExpectRefused("/" + std::string(1000000, 'a'), "the path is too long");
}

TEST_F(SecretFileTest, IsCheckedAfterItWasOpened) {
    Make(path);
    const std::string other = folder + "/other";
    Make(other, 0644, "world's");
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        while (!stop) {
            ::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
        }
    });
    int opened = 0;
    for (int i = 0; i < 20000; ++i) {
        try {
            EXPECT_EQ(ReadBytes(*Open(path), 100), "password");
            ++opened;
        } catch (const SystemException&) {  // it was the other one that the name meant at that moment
        }
    }
    stop = true;
    swapper.join();
    EXPECT_GT(opened, 0);
}

TEST_F(SecretFileTest, IsNamedInTheRefusalWithItsControlCharactersEscaped) {
    const std::string message =
        MessageOf<SystemException>([&] { Open(folder + "/\x1b[31m\nfake log line"); });
    EXPECT_THAT(message, HasSubstr(folder + "/\\x1b[31m\\x0afake log line"));
    EXPECT_THAT(message, HasSubstr("No such file"));
}

// The daemon's own directory, in a /run of this process's own.
class DaemonDirectoryTest : public SecretFileTest {
  protected:
    void SetUp() override {
        if (::geteuid() != 0 || ::unshare(CLONE_NEWNS) != 0) {
            GTEST_SKIP() << "only root can have a /run of its own";
        }
        ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(::mount("tmpfs", "/run", "tmpfs", 0, "mode=755"), 0);
        ASSERT_EQ(::mkdir(directory.c_str(), 0750), 0);
        ASSERT_EQ(::chown(directory.c_str(), otherUser, 0), 0);
        MakeOthers(ticket);
    }

    static void MakeOthers(const std::string& file) {
        Make(file, 0640);
        ASSERT_EQ(::chown(file.c_str(), otherUser, 0), 0);
    }

    const std::string directory = "/run/tovric-vessad";
    const std::string ticket = directory + "/ticket";
};

TEST_F(DaemonDirectoryTest, MakesItsOwnerAndNobodyElseTrusted) {
    EXPECT_EQ(ReadBytes(*Open(ticket), 100), "password");
    ASSERT_EQ(::chown(ticket.c_str(), otherUser - 1, 0), 0);
    ExpectRefused(ticket, "owner is not trusted");
}

TEST_F(DaemonDirectoryTest, CountsOnlyForWhatLiesDirectlyInThere) {
    MakeOthers("/run/ticket");
    ExpectRefused("/run/ticket", "owner is not trusted");
    ASSERT_EQ(::mkdir((directory + "/inner").c_str(), 0755), 0);
    MakeOthers(directory + "/inner/ticket");
    ExpectRefused(directory + "/inner/ticket", "owner is not trusted");
    ASSERT_EQ(::symlink(directory.c_str(), "/run/alias"), 0);
    ExpectRefused("/run/alias/ticket", "owner is not trusted");
}

TEST_F(DaemonDirectoryTest, CountsForNothingWhenItIsALink) {
    std::filesystem::rename(directory, "/run/real");
    ASSERT_EQ(::symlink("/run/real", directory.c_str()), 0);
    ASSERT_EQ(::lchown(directory.c_str(), otherUser, 0), 0);
    ExpectRefused(ticket, "owner is not trusted");
}

TEST_F(DaemonDirectoryTest, CountsForNothingWhenRunIsNotRoots) {
    ASSERT_EQ(::chmod("/run", 0777), 0);
    ExpectRefused(ticket, "owner is not trusted");
    ASSERT_EQ(::chmod("/run", 0755), 0);
    ASSERT_EQ(::chown("/run", otherUser, 0), 0);
    ExpectRefused(ticket, "owner is not trusted");
}

TEST_F(DaemonDirectoryTest, KeepsAllOtherRules) {
    ASSERT_EQ(::chmod(ticket.c_str(), 0644), 0);
    ExpectRefused(ticket, "others can");
    ASSERT_EQ(::symlink("ticket", (directory + "/link").c_str()), 0);
    ExpectRefused(directory + "/link", "no regular file");
    ExpectRefused(directory + "/", "No such file");
    ExpectRefused(directory + "/none", "No such file");
}

}  // namespace
}  // namespace Tessim::System
