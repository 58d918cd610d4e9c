#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/stream.h"
#include "tests/unit/tessim/open_stream.h"

namespace {

// How far the wall clock is behind the real one.
std::chrono::seconds clockOffset{0};

}  // namespace

// In place of the C library's.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_REALTIME) {
        now->tv_sec -= clockOffset.count();
    }
    return result;
}

namespace Tessim::System {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using TimePoint = std::chrono::system_clock::time_point;

constexpr uid_t otherUser = 65534;
constexpr const char* untrusted = "owner is not trusted";
constexpr const char* old = "older than the request";

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
    static void MakeOwnedBy(uid_t user, const std::string& path, mode_t mode) {
        Make(path, mode);
        ASSERT_EQ(::chown(path.c_str(), user, 0), 0) << path;
    }

    Ref<Stream> Open(const std::string& path) const {
        Ref<Stream> stream;
        GetSystemFactory()->OpenSecretFile(path, start, stream);
        return stream;
    }

    // The content of the file as requested at `notBefore`, or else when the test started; else why it is
    // refused. Leaves no descriptor open.
    std::string Content(const std::string& path, std::optional<TimePoint> notBefore = {}) const {
        const auto descriptors = OpenDescriptors();
        std::string content;
        Ref<Stream> stream;
        try {
            GetSystemFactory()->OpenSecretFile(path, notBefore.value_or(start), stream);
            content = ReadBytes(*stream, 100);
            stream.Reset();
        } catch (const SystemException& refused) {
            EXPECT_FALSE(stream);
            content = refused.what();
        }
        EXPECT_EQ(OpenDescriptors(), descriptors) << path;
        return content;
    }

    const TimePoint start = std::chrono::system_clock::now();
    const std::string folder = MakeFolder();
    const std::string path = folder + "/ticket";
};

TEST_F(SecretFileTest, IsReadableByItsOwnerAndGroupOnlyAndWrittenByItsOwner) {
    for (const mode_t mode : {0600U, 0640U, 0400U, 0440U}) {
        Make(path, mode);
        EXPECT_EQ(Content(path), "password") << mode;
        std::filesystem::remove(path);
    }
    for (const mode_t mode : {0620U, 0660U, 0604U, 0644U, 0602U, 0601U, 0666U, 0777U}) {
        Make(path, mode);
        EXPECT_THAT(Content(path), HasSubstr("others can"));
    }
}

TEST_F(SecretFileTest, IsAReadOnlyStreamOfThisProcess) {
    Make(path, 0600, std::string(3000, 'x'));
    const auto descriptors = OpenDescriptors();
    const auto inherited = OpenDescriptors(FD_CLOEXEC).size();
    const auto stream = Open(path);
    EXPECT_EQ(OpenDescriptors(FD_CLOEXEC).size(), inherited + 1);
    EXPECT_TRUE(stream->IsOwn());
    ExpectInChild([&] { return !stream->IsOwn(); });
    EXPECT_THROW(stream->Write("x", 1), StreamException);
    EXPECT_EQ(ReadBytes(*stream, 1024).size(), 1024U);
    EXPECT_EQ(ReadBytes(*stream, 4096).size(), 3000U - 1024U);
    EXPECT_TRUE(stream->IsConnected());
    stream->Close();
    EXPECT_FALSE(stream->IsConnected());
    stream->Close();
    EXPECT_EQ(OpenDescriptors(), descriptors);
    char byte = 0;
    EXPECT_THROW(stream->Read(&byte, 1), StreamException);
    Open(path);  // closed with its last handle
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(SecretFileTest, RejectsUnsafePaths) {
    Make(path);
    const std::string name = "ticket";
    const std::string longest = folder + std::string(PATH_MAX - 1 - folder.size() - name.size(), '/') + name;
    ASSERT_EQ(::chdir(folder.c_str()), 0);
    ASSERT_EQ(
        std::system("umask 077; : > empty; echo > named; ln named 'named twice'; mkdir inner; mkfifo fifo; "
                    "ln -s ticket link"),
        0);
    ASSERT_TRUE(std::filesystem::exists("/etc/shadow"));

    const std::map<std::string, std::vector<std::string>> refusals = {
        {"not an absolute path", {"ticket", "./ticket", "", path + std::string("\0x", 2)}},
        {"leads upwards", {folder + "/inner/../ticket", "/.."}},
        {"the path is too long", {"/" + longest, "/" + std::string(1000000, 'a')}},
        {"not a regular file", {"/dev/null", "/", folder, folder + "/", folder + "/fifo", folder + "/link"}},
        {"more than one name", {folder + "/named"}},
        // The environment is always fresh, root's, and readable by root alone.
        {"empty", {folder + "/empty", "/proc/self/environ"}},
        {old, {"/etc/shadow"}},
        {folder + R"(/\x1b[31m\x0afake log line": No such file)", {folder + "/\x1b[31m\nfake log line"}},
    };
    for (const auto& [reason, paths] : refusals) {
        for (const std::string& refused : paths) {
            EXPECT_THAT(Content(refused), HasSubstr(reason));
        }
    }
    EXPECT_EQ(Content(longest), "password");
    Make(folder + "/..ticket..");
    EXPECT_EQ(Content(folder + "/..ticket.."), "password");
    ASSERT_EQ(::chdir("/"), 0);
}

TEST_F(SecretFileTest, IsRootsOrItsReadersOwnAndReadable) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file away";
    }
    MakeOwnedBy(otherUser, path, 0600);
    EXPECT_THAT(Content(path), HasSubstr(untrusted));
    MakeOwnedBy(0, folder + "/roots", 0640);
    MakeOwnedBy(otherUser, folder + "/unreadable", 0000);
    ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
    ExpectInChild([&] {
        return ::setresuid(otherUser, otherUser, otherUser) == 0 && Content(path) == "password" &&
               Content(folder + "/roots") == "password" &&
               Content(folder + "/unreadable").ends_with("Permission denied");
    });
}

TEST_F(SecretFileTest, IsMadeAfterItWasRequested) {
    Make(path);
    EXPECT_THAT(Content(path, start + 1h), HasSubstr(old));
    EXPECT_EQ(Content(path, TimePoint::min()), "password");
    EXPECT_EQ(Content(path, start + 1s), "password");  // the file system's clock is coarser
    EXPECT_THAT(Content(path, TimePoint::max()), HasSubstr(old));
}

// As left by an earlier clock, ahead of the one that was set back.
TEST_F(SecretFileTest, IsNotFromTheFuture) {
    Make(path);
    clockOffset = 1s;
    EXPECT_EQ(Content(path, TimePoint::min()), "password");
    clockOffset = 1h;
    EXPECT_THAT(Content(path, start - 2h), HasSubstr("it is from the future"));
    clockOffset = 0s;
    EXPECT_EQ(Content(path, TimePoint::min()), "password");
}

TEST_F(SecretFileTest, RejectsAnOldFileChangedSince) {
    Make(path);
    struct statx status {};
    ASSERT_EQ(::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &status), 0);
    if ((status.stx_mask & STATX_BTIME) == 0) {
        GTEST_SKIP() << "the file system keeps no time of birth";
    }
    std::this_thread::sleep_for(2200ms);
    const auto requested = std::chrono::system_clock::now();
    std::ofstream(path, std::ios::app) << "more";
    EXPECT_THAT(Content(path, requested), HasSubstr(old));
}

TEST_F(SecretFileTest, IsNotOnAFileSystemOfTheKernel) {
    for (std::filesystem::recursive_directory_iterator
             entry("/sys/module", std::filesystem::directory_options::skip_permission_denied),
         end;
         entry != end; ++entry) {
        struct stat status {};
        if (::lstat(entry->path().c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
            (status.st_mode & 0777) == 0400 && ::access(entry->path().c_str(), R_OK) == 0) {
            EXPECT_THAT(Content(entry->path(), TimePoint::min()), HasSubstr("stores no files"));
            return;
        }
    }
    GTEST_SKIP() << "the kernel shows no secret here";
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
        } catch (const SystemException&) {  // the name meant the other file at that moment
        }
    }
    stop = true;
    swapper.join();
    EXPECT_GT(opened, 0);
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
        ASSERT_EQ(::mkdir("/run/tovric-vessad", 0750), 0);
        ASSERT_EQ(::chown("/run/tovric-vessad", otherUser, 0), 0);
        MakeOwnedBy(otherUser, "/run/tovric-vessad/ticket", 0640);
    }
};

TEST_F(DaemonDirectoryTest, MakesItsOwnerTrustedForFilesDirectlyInThereAndNobodyWhenOthersMayHaveMadeIt) {
    const struct {
        const char* change;  // a shell command in the directory
        const char* path;
        const char* content;
    } steps[] = {
        {"true", "/run/tovric-vessad/ticket", "password"},
        {"true", "/run/tovric-vessad/", "No such file"},
        {"true", "/run/tovric-vessad/none", "No such file"},
        {"ln -s tovric-vessad ../alias", "/run/alias/ticket", untrusted},
        {"cp -p ticket ..", "/run/ticket", untrusted},
        {"mkdir inner; cp -p ticket inner", "/run/tovric-vessad/inner/ticket", untrusted},
        {"ln -s ticket link", "/run/tovric-vessad/link", "not a regular file"},
        {"chown 65533 ticket", "/run/tovric-vessad/ticket", untrusted},
        {"chown 65534 ticket; chmod 644 ticket", "/run/tovric-vessad/ticket", "others can"},
        {"chmod 640 ticket; chmod 775 /run", "/run/tovric-vessad/ticket", untrusted},
        {"chmod 757 /run", "/run/tovric-vessad/ticket", untrusted},
        {"chmod 755 /run; chown 65534 /run", "/run/tovric-vessad/ticket", untrusted},
        {"chown 0 /run", "/run/tovric-vessad/ticket", "password"},
        {"cd ..; mv tovric-vessad real; ln -s real tovric-vessad; chown -h 65534 tovric-vessad",
         "/run/tovric-vessad/ticket", untrusted},
    };
    for (const auto& step : steps) {
        ASSERT_EQ(std::system(("cd /run/tovric-vessad; " + std::string(step.change)).c_str()), 0);
        EXPECT_THAT(Content(step.path), HasSubstr(step.content)) << step.change;
    }
}

}  // namespace
}  // namespace Tessim::System
