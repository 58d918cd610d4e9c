#include "apps/vessad/backends/libvirt/IdentityFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "apps/vessad/PrivateFile.h"

namespace Vessad::Libvirt {
namespace {

// Throws, with errno's message, unless a system call was `done`.
void Require(bool done, const char* what, const std::filesystem::path& path) {
    if (!done) {
        throw std::runtime_error(std::string(what) + " " + path.string() + ": " +
                                 std::generic_category().message(errno));
    }
}

void WriteAll(int descriptor, std::string_view text, const std::filesystem::path& path) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        Require(written >= 0 || errno == EINTR, "cannot write", path);
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
}

// Two daemons in one directory would assign one id to two VMs.
Tessim::FileDescriptor OpenLocked(const std::filesystem::path& directory) {
    Tessim::FileDescriptor descriptor(
        ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    Require(descriptor.Get() >= 0, "cannot open the state directory", directory);
    CheckPrivate(descriptor.Get(), "the state directory " + directory.string());
    const bool locked = ::flock(descriptor.Get(), LOCK_EX | LOCK_NB) == 0;
    if (!locked && errno == EWOULDBLOCK) {
        throw std::runtime_error("the state directory " + directory.string() +
                                 " is in use by another daemon");
    }
    Require(locked, "cannot lock the state directory", directory);
    return descriptor;
}

std::filesystem::path CreateDirectory(const std::filesystem::path& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        throw std::runtime_error("cannot create the state directory " + directory.string() + ": " +
                                 error.message());
    }
    return directory;
}

}  // namespace

IdentityFile::IdentityFile(const std::filesystem::path& directory)
    : directory(CreateDirectory(directory)), file(directory / "identities"), lock(OpenLocked(directory)) {}

std::optional<std::string> IdentityFile::Read(std::int64_t limit) {
    // Waits for no writer, whatever the file is.
    const Tessim::FileDescriptor descriptor(
        ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!descriptor && errno == ENOENT) {
        return std::nullopt;
    }
    Require(descriptor.Get() >= 0, "cannot read", file);
    const struct stat status = CheckPrivate(descriptor.Get(), file.string());
    if (!S_ISREG(status.st_mode)) {
        throw std::runtime_error(file.string() + " is not a regular file");
    }
    if (status.st_size > limit) {
        throw std::runtime_error(file.string() + " has " + std::to_string(status.st_size) +
                                 " bytes, more than any VM ids take");
    }
    std::string text;
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t length = ::read(descriptor.Get(), buffer.data(), buffer.size());
        Require(length >= 0 || errno == EINTR, "cannot read", file);
        if (length == 0) {
            size = static_cast<std::int64_t>(text.size());
            return text;
        }
        text.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    }
}

void IdentityFile::Replace(std::string_view text) {
    std::filesystem::path fresh = file;
    fresh += ".new";
    // Left by a crash, if it is there.
    ::unlink(fresh.c_str());
    const Tessim::FileDescriptor descriptor(
        ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    Require(descriptor.Get() >= 0, "cannot write", fresh);
    WriteAll(descriptor.Get(), text, fresh);
    Require(::fsync(descriptor.Get()) == 0, "cannot write", fresh);
    Require(::rename(fresh.c_str(), file.c_str()) == 0, "cannot write", file);
    size = static_cast<std::int64_t>(text.size());
    Require(::fsync(lock.Get()) == 0, "cannot write", directory);
}

bool IdentityFile::Append(std::string_view text) {
    const Tessim::FileDescriptor descriptor(
        ::open(file.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!descriptor || ::fstat(descriptor.Get(), &status) < 0 || !S_ISREG(status.st_mode) ||
        status.st_size != size) {
        return false;
    }
    try {
        WriteAll(descriptor.Get(), text, file);
        Require(::fsync(descriptor.Get()) == 0, "cannot write", file);
    } catch (const std::runtime_error&) {
        // Where this fails too, the size differs the next time.
        static_cast<void>(::ftruncate(descriptor.Get(), size) == 0);
        throw;
    }
    size += static_cast<std::int64_t>(text.size());
    return true;
}

std::filesystem::path IdentityFile::KeepDamaged() const {
    std::filesystem::path name;
    for (int number = 1;; ++number) {
        name = file;
        name += ".damaged-" + std::to_string(number);
        if (!std::filesystem::exists(std::filesystem::symlink_status(name))) {
            break;
        }
    }
    Require(::link(file.c_str(), name.c_str()) == 0, "cannot keep the damaged file", file);
    return name;
}

}  // namespace Vessad::Libvirt
