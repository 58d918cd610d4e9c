#include "apps/vessad/backends/libvirt/VmIds.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "apps/vessad/PrivateFile.h"

namespace Vessad::Libvirt {
namespace {

constexpr std::string_view heading = "tovric-vessad identities 1";
constexpr std::string_view nextWord = "next ";
constexpr std::int64_t largest = std::numeric_limits<std::int32_t>::max();
// How many ids are skipped after a damaged file, for VMs whose lines are lost.
constexpr std::int64_t skippedIds = 1000;
constexpr std::size_t uuidLength = 36;
// A line has at most ten digits, a blank, a UUID and the line end; heading and next number fit in two lines.
constexpr std::int64_t maxFileSize = (largest / VmIds::step + 2) * (10 + 1 + 36 + 1);

std::runtime_error Failure(const std::string& what, const std::filesystem::path& path) {
    return std::runtime_error(what + " " + path.string() + ": " + std::generic_category().message(errno));
}

bool IsUuid(std::string_view text) {
    if (text.size() != uuidLength) {
        return false;
    }
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool dash = at == 8 || at == 13 || at == 18 || at == 23;
        const bool digit = (text[at] >= '0' && text[at] <= '9') || (text[at] >= 'a' && text[at] <= 'f');
        if (dash ? text[at] != '-' : !digit) {
            return false;
        }
    }
    return true;
}

// The whole of `text` as an id from 1 to `limit`, or 0.
std::int64_t ParseId(std::string_view text, std::int64_t limit) {
    std::int64_t id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && id >= 1 && id <= limit ? id : 0;
}

// The file's content; nothing when there is no such file. Waits for no writer, whatever the file is.
std::optional<std::string> ReadFile(const std::filesystem::path& path) {
    const Tessim::FileDescriptor descriptor(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!descriptor) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        throw Failure("cannot read", path);
    }
    const struct stat status = CheckPrivate(descriptor.Get(), path.string());
    if (!S_ISREG(status.st_mode)) {
        throw std::runtime_error(path.string() + " is not a regular file");
    }
    if (status.st_size > maxFileSize) {
        throw std::runtime_error(path.string() + " has " + std::to_string(status.st_size) +
                                 " bytes, more than any VM ids take");
    }
    std::string text;
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t length = ::read(descriptor.Get(), buffer.data(), buffer.size());
        if (length == 0) {
            return text;
        }
        if (length > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(length));
        } else if (errno != EINTR) {
            throw Failure("cannot read", path);
        }
    }
}

void WriteAll(int descriptor, std::string_view text, const std::filesystem::path& path) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            throw Failure("cannot write", path);
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

void Sync(int descriptor, const std::filesystem::path& path) {
    if (::fsync(descriptor) < 0) {
        throw Failure("cannot write", path);
    }
}

// Two daemons in one directory would assign one id to two VMs.
Tessim::FileDescriptor OpenLocked(const std::filesystem::path& directory) {
    Tessim::FileDescriptor descriptor(
        ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!descriptor) {
        throw Failure("cannot open the state directory", directory);
    }
    CheckPrivate(descriptor.Get(), "the state directory " + directory.string());
    if (::flock(descriptor.Get(), LOCK_EX | LOCK_NB) < 0) {
        if (errno == EWOULDBLOCK) {
            throw std::runtime_error("the state directory " + directory.string() +
                                     " is in use by another daemon");
        }
        throw Failure("cannot lock the state directory", directory);
    }
    return descriptor;
}

// Returns an unused name beside `file`.
std::filesystem::path NameForDamaged(const std::filesystem::path& file) {
    for (int number = 1;; ++number) {
        std::filesystem::path name = file;
        name += ".damaged-" + std::to_string(number);
        if (!std::filesystem::exists(std::filesystem::symlink_status(name))) {
            return name;
        }
    }
}

}  // namespace

VmIds::VmIds(const std::filesystem::path& directory) : directory(directory), file(directory / "identities") {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        throw std::runtime_error("cannot create the state directory " + directory.string() + ": " +
                                 error.message());
    }
    lock = OpenLocked(directory);
    const auto text = ReadFile(file);
    if (!text) {
        Save();
    } else if (!Parse(*text)) {
        Repair();
    }
}

// The damaged file keeps its name until a valid one replaces it, so that no id is assigned a second time
// whatever fails in between.
void VmIds::Repair() {
    const auto kept = NameForDamaged(file);
    std::error_code error;
    std::filesystem::create_hard_link(file, kept, error);
    if (error) {
        throw std::runtime_error("the damaged file " + file.string() + " cannot be kept: " + error.message());
    }
    next = std::min(next + skippedIds * step, largest + step);
    try {
        Save();
    } catch (const std::runtime_error&) {
        std::filesystem::remove(kept, error);
        throw;
    }
    spdlog::error("The damaged {} is kept as {}: {} VMs keep their ids, others get new ones from {} on",
                  file.string(), kept.string(), ids.size(), next);
}

bool VmIds::Parse(const std::string& text) {
    bool valid = text.ends_with('\n');
    std::istringstream lines(text);
    std::string line;
    valid = std::getline(lines, line) && line == heading && valid;
    std::int64_t written = 0;
    std::set<std::int32_t> taken;
    while (std::getline(lines, line)) {
        const std::string_view view = line;
        if (view.starts_with(nextWord) && written == 0) {
            written = ParseId(view.substr(nextWord.size()), largest + step);
            valid = written != 0 && valid;
            continue;
        }
        const auto blank = std::min(view.find(' '), view.size());
        const auto id = static_cast<std::int32_t>(ParseId(view.substr(0, blank), largest));
        const std::string uuid(view.substr(std::min(blank + 1, view.size())));
        if (id == 0 || !IsUuid(uuid) || ids.contains(uuid) || taken.contains(id)) {
            valid = false;
            continue;
        }
        ids.emplace(uuid, id);
        taken.insert(id);
        next = std::max<std::int64_t>(next, std::int64_t{id} + step);
    }
    valid = valid && written >= next;
    next = std::max(next, written);
    return valid;
}

void VmIds::Admit(const std::vector<std::string>& uuids) {
    for (const std::string& uuid : uuids) {
        if (ids.contains(uuid)) {
            continue;
        }
        if (next > largest) {
            if (!full) {
                spdlog::error("No VM id is left, {} and every later VM stay hidden", uuid);
            }
            full = true;
            break;
        }
        unsaved.insert(uuid);
        ids.emplace(uuid, static_cast<std::int32_t>(next));
        next += step;
    }
    if (unsaved.empty()) {
        return;
    }
    try {
        Save();
        unsaved.clear();
        saveFails = false;
    } catch (const std::runtime_error& error) {
        if (!saveFails) {
            spdlog::error("VM ids are not saved: {}; {} new VMs stay hidden until they are", error.what(),
                          unsaved.size());
        }
        saveFails = true;
    }
}

std::int32_t VmIds::Find(const std::string& uuid) const {
    const auto found = ids.find(uuid);
    return found == ids.end() || unsaved.contains(uuid) ? 0 : found->second;
}

void VmIds::Save() const {
    std::string text = std::string(heading) + "\n" + std::string(nextWord) + std::to_string(next) + "\n";
    for (const auto& [uuid, id] : ids) {
        text += std::to_string(id) + " " + uuid + "\n";
    }
    std::filesystem::path fresh = file;
    fresh += ".new";
    // Left by a crash, if it is there.
    ::unlink(fresh.c_str());
    const Tessim::FileDescriptor descriptor(
        ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!descriptor) {
        throw Failure("cannot write", fresh);
    }
    WriteAll(descriptor.Get(), text, fresh);
    Sync(descriptor.Get(), fresh);
    if (::rename(fresh.c_str(), file.c_str()) < 0) {
        throw Failure("cannot write", file);
    }
    Sync(lock.Get(), directory);
}

}  // namespace Vessad::Libvirt
