#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>
#include <tuple>
#include <utility>

#include "runtime/tessim/daemon_directory.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/file_descriptor.h"
#include "runtime/tessim/stream.h"
#include "runtime/tessim/string_util.h"

namespace Tessim::System {
namespace {

using TimePoint = std::chrono::system_clock::time_point;

constexpr std::size_t maxShownPath = 256;
constexpr std::chrono::seconds clockSlack{2};

class FileStream final : public virtual Stream, public ObjectImpl {
  public:
    explicit FileStream(FileDescriptor descriptor) : descriptor(std::move(descriptor)), owner(getpid()) {}

    std::size_t Read(void* buffer, std::size_t size) override {
        if (!descriptor) {
            throw StreamException("the file is closed");
        }
        for (;;) {
            const ssize_t count = ::read(descriptor.Get(), buffer, size);
            if (count >= 0) {
                return static_cast<std::size_t>(count);
            }
            if (errno != EINTR) {
                throw SystemException("cannot read a file: " + std::generic_category().message(errno));
            }
        }
    }
    void Write(const void* /*data*/, std::size_t /*size*/) override {
        throw StreamException("the file is open for reading only");
    }
    void Close() noexcept override { descriptor.Close(); }
    bool IsOwn() const noexcept override { return getpid() == owner; }
    bool IsConnected() const noexcept override { return static_cast<bool>(descriptor); }

  private:
    FileDescriptor descriptor;
    pid_t owner;
};

// The checks of one path.
class Candidate {
  public:
    Candidate(const std::string& path, TimePoint notBefore) : path(path), name(path), notBefore(notBefore) {}

    FileDescriptor Open() {
        CheckPath();
        OpenDaemonDirectory();
        // Before opening, because opening a device or a FIFO can have effects of its own; and again on what
        // was opened, because the name may have changed its meaning in between.
        CheckStatus(Status(Directory(), name.c_str(), AT_SYMLINK_NOFOLLOW));
        FileDescriptor file(
            ::openat(Directory(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
        if (!file) {
            RefuseForError();
        }
        CheckStatus(Status(file.Get(), "", AT_EMPTY_PATH));
        CheckFileSystem(file.Get());
        return file;
    }

  private:
    [[noreturn]] void Refuse(const std::string& reason) const {
        throw SystemException("cannot take a secret from \"" +
                              StringUtil::EscapeUntrusted(path, maxShownPath) + "\": " + reason);
    }

    [[noreturn]] void RefuseForError() const { Refuse(std::generic_category().message(errno)); }

    int Directory() const { return directory.IsOpen() ? directory.GetDescriptor() : AT_FDCWD; }

    void CheckPath() const {
        if (!path.starts_with('/') || path.find('\0') != std::string::npos) {
            Refuse("it is not an absolute path");
        }
        if (path.size() >= PATH_MAX) {
            Refuse("the path is too long");
        }
        const auto parts = StringUtil::Tokenize(path, "/");
        if (std::find(parts.begin(), parts.end(), "..") != parts.end()) {
            Refuse("the path leads upwards");
        }
    }

    // A file directly in the daemon's directory is looked up through that directory's own descriptor: the
    // directory whose owner is the daemon must be the one that the file is opened in. When the directory is
    // not as expected, no daemon's user is trusted.
    void OpenDaemonDirectory() {
        const std::size_t slash = path.rfind('/');
        if (path.substr(0, slash) != DaemonDirectory::path) {
            return;
        }
        directory = DaemonDirectory::Open();
        if (directory.IsOpen()) {
            name = path.substr(slash + 1);
        }
    }

    struct statx Status(int base, const char* relative, int flags) const {
        struct statx status {};
        if (::statx(base, relative, flags, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
            RefuseForError();
        }
        return status;
    }

    void CheckStatus(const struct statx& status) const {
        if (!S_ISREG(status.stx_mode)) {
            Refuse("it is not a regular file");
        }
        if (status.stx_nlink != 1) {
            Refuse("it has more than one name");
        }
        if ((status.stx_mode & (S_IRWXO | S_IWGRP)) != 0) {
            Refuse("others can read or write it");
        }
        if (!directory.IsTrusted(status.stx_uid)) {
            Refuse("its owner is not trusted");
        }
        if (status.stx_size == 0) {
            Refuse("it is empty");
        }
        CheckTime(status.stx_ctime);
        if ((status.stx_mask & STATX_BTIME) != 0) {
            CheckTime(status.stx_btime);
        }
    }

    void CheckTime(const statx_timestamp& time) const {
        constexpr std::int64_t slack = clockSlack.count();
        if (std::make_tuple(time.tv_sec + slack, std::int64_t{time.tv_nsec}) < Parts(notBefore)) {
            Refuse("it is older than the request for it");
        }
        if (Parts(std::chrono::system_clock::now()) <
            std::make_tuple(time.tv_sec - slack, std::int64_t{time.tv_nsec})) {
            Refuse("it is from the future");
        }
    }

    // Seconds and nanoseconds, as no single count of either holds every time of both sides.
    static std::tuple<std::int64_t, std::int64_t> Parts(TimePoint time) {
        const auto sinceEpoch = time.time_since_epoch();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
        const auto rest = std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch - seconds);
        return {seconds.count(), rest.count()};
    }

    // The kernel makes the files of these when they are looked up: they are always new, and some of them are
    // secret, such as the environment of a process.
    void CheckFileSystem(int file) const {
        constexpr std::array<std::uint32_t, 8> kernelMade = {
            PROC_SUPER_MAGIC, SYSFS_MAGIC,        DEBUGFS_MAGIC,       TRACEFS_MAGIC,
            SECURITYFS_MAGIC, CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, EFIVARFS_MAGIC};
        struct statfs status {};
        if (::fstatfs(file, &status) != 0) {
            RefuseForError();
        }
        if (std::find(kernelMade.begin(), kernelMade.end(), static_cast<std::uint32_t>(status.f_type)) !=
            kernelMade.end()) {
            Refuse("it is on a file system that stores no files");
        }
    }

    const std::string& path;
    std::string name;  // of the file, within the directory
    TimePoint notBefore;
    DaemonDirectory directory;  // open when the file is to be directly in it
};

class SystemFactoryImpl final : public virtual SystemFactory, public ObjectImpl {
  public:
    void OpenSecretFile(const std::string& path, TimePoint notBefore, Ref<Stream>& out) override {
        out = MakeRef<FileStream>(Candidate(path, notBefore).Open());
    }
};

}  // namespace

Ref<SystemFactory> GetSystemFactory() {
    return MakeRef<SystemFactoryImpl>();
}

}  // namespace Tessim::System
