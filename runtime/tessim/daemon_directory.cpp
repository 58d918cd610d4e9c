#include "runtime/tessim/daemon_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace Tessim {
namespace {

constexpr const char* runDirectory = "/run";
static_assert(DaemonDirectory::path.starts_with("/run/"));
constexpr const char* daemonDirectory = DaemonDirectory::path.data() + DaemonDirectory::path.rfind('/') + 1;

}  // namespace

DaemonDirectory DaemonDirectory::Open() noexcept {
    constexpr int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    DaemonDirectory opened;
    const FileDescriptor run(::open(runDirectory, flags));
    struct stat status {};
    if (!run || ::fstat(run.Get(), &status) != 0 || status.st_uid != 0 ||
        (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return opened;
    }
    FileDescriptor found(::openat(run.Get(), daemonDirectory, flags));
    if (found && ::fstat(found.Get(), &status) == 0) {
        opened.directory = std::move(found);
        opened.owner = status.st_uid;
    }
    return opened;
}

bool DaemonDirectory::IsTrusted(uid_t user) const noexcept {
    return user == 0 || user == ::geteuid() || user == owner;
}

}  // namespace Tessim
