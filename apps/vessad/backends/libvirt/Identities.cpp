#include "apps/vessad/backends/libvirt/Identities.h"

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

namespace Vessad::Libvirt {
namespace {

constexpr std::string_view heading = "tovric-vessad identities 1";
constexpr std::string_view nextWord = "next ";
constexpr std::int64_t largest = std::numeric_limits<std::int32_t>::max();
// How many numbers are left out behind a damaged file, for machines whose lines are lost.
constexpr std::int64_t lostNumbers = 1000;
constexpr std::size_t uuidLength = 36;

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

// The whole of `text` as a number from 1 to `limit`, or 0.
std::int64_t ParseNumber(std::string_view text, std::int64_t limit) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && number >= 1 && number <= limit ? number : 0;
}

// The file's content; nothing when there is no such file.
std::optional<std::string> ReadFile(const std::filesystem::path& path) {
    const Tessim::FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!descriptor) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        throw Failure("cannot read", path);
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

// The directory, which no other daemon may use meanwhile: two would give one number to two machines.
Tessim::FileDescriptor OpenLocked(const std::filesystem::path& directory) {
    Tessim::FileDescriptor folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        throw Failure("cannot open the state directory", directory);
    }
    if (::flock(folder.Get(), LOCK_EX | LOCK_NB) < 0) {
        if (errno == EWOULDBLOCK) {
            throw std::runtime_error("the state directory " + directory.string() +
                                     " is in use by another daemon");
        }
        throw Failure("cannot lock the state directory", directory);
    }
    return folder;
}

// A name beside `file` that is free.
std::filesystem::path NameAside(const std::filesystem::path& file) {
    for (int number = 1;; ++number) {
        std::filesystem::path name = file;
        name += ".damaged-" + std::to_string(number);
        if (!std::filesystem::exists(std::filesystem::symlink_status(name))) {
            return name;
        }
    }
}

}  // namespace

Identities::Identities(const std::filesystem::path& directory)
    : directory(directory), file(directory / "identities") {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        throw std::runtime_error("cannot make the state directory " + directory.string() + ": " +
                                 error.message());
    }
    folder = OpenLocked(directory);
    const auto text = ReadFile(file);
    if (!text) {
        Save();
    } else if (!Parse(*text)) {
        Repair();
    }
}

// The damaged file stays in its place until a sound one takes it, so that no number is given a second time
// whatever goes wrong between.
void Identities::Repair() {
    const auto aside = NameAside(file);
    std::error_code error;
    std::filesystem::create_hard_link(file, aside, error);
    if (error) {
        throw std::runtime_error("the damaged file " + file.string() +
                                 " cannot be put aside: " + error.message());
    }
    next = std::min(next + lostNumbers * step, largest + step);
    try {
        Save();
    } catch (const std::runtime_error&) {
        std::filesystem::remove(aside, error);
        throw;
    }
    spdlog::error(
        "{} is damaged and kept as {}: {} machines keep their ids, any other gets a new one, from {} on",
        file.string(), aside.string(), numbers.size(), next);
}

bool Identities::Parse(const std::string& text) {
    bool sound = text.ends_with('\n');
    std::istringstream lines(text);
    std::string line;
    sound = std::getline(lines, line) && line == heading && sound;
    std::int64_t written = 0;
    std::set<std::int32_t> taken;
    while (std::getline(lines, line)) {
        const std::string_view view = line;
        if (view.starts_with(nextWord) && written == 0) {
            written = ParseNumber(view.substr(nextWord.size()), largest + step);
            sound = written != 0 && sound;
            continue;
        }
        const auto blank = std::min(view.find(' '), view.size());
        const auto number = static_cast<std::int32_t>(ParseNumber(view.substr(0, blank), largest));
        const std::string uuid(view.substr(std::min(blank + 1, view.size())));
        if (number == 0 || !IsUuid(uuid) || numbers.contains(uuid) || taken.contains(number)) {
            sound = false;
            continue;
        }
        numbers.emplace(uuid, number);
        taken.insert(number);
        next = std::max<std::int64_t>(next, std::int64_t{number} + step);
    }
    sound = sound && written >= next;
    next = std::max(next, written);
    return sound;
}

void Identities::Admit(const std::vector<std::string>& uuids) {
    for (const std::string& uuid : uuids) {
        if (numbers.contains(uuid)) {
            continue;
        }
        if (next > largest) {
            if (!full) {
                spdlog::error("no machine id is left; {} and every later machine stays hidden", uuid);
            }
            full = true;
            break;
        }
        numbers.emplace(uuid, static_cast<std::int32_t>(next));
        unsaved.insert(uuid);
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
            spdlog::error("{}; {} new machines stay hidden until their ids are kept", error.what(),
                          unsaved.size());
        }
        saveFails = true;
    }
}

std::int32_t Identities::Find(const std::string& uuid) const {
    const auto found = numbers.find(uuid);
    return found == numbers.end() || unsaved.contains(uuid) ? 0 : found->second;
}

void Identities::Save() const {
    std::string text = std::string(heading) + "\n" + std::string(nextWord) + std::to_string(next) + "\n";
    for (const auto& [uuid, number] : numbers) {
        text += std::to_string(number) + " " + uuid + "\n";
    }
    std::filesystem::path fresh = file;
    fresh += ".new";
    // One that a crash left behind is of no use to anybody.
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
    Sync(folder.Get(), directory);
}

}  // namespace Vessad::Libvirt
