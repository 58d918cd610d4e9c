#include "apps/vessad/TicketStore.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "apps/vessad/PrivateFile.h"
#include "apps/vessad/RequireCall.h"

namespace Vessad {

namespace {

constexpr std::string_view filePrefix = "ticket-";
constexpr std::size_t nameBytes = 16;
constexpr std::size_t passwordBytes = 32;
constexpr mode_t openDirectoryMode = 0711;   // anyone may open a file whose name they know
constexpr mode_t groupDirectoryMode = 0750;  // only the group may

std::string RandomHex(std::size_t count) {
    std::array<unsigned char, passwordBytes> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(count)) != 1) {
        throw std::system_error(EIO, std::generic_category(), "no random numbers");
    }
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (std::size_t index = 0; index < count; ++index) {
        text += digits[bytes[index] >> 4U];
        text += digits[bytes[index] & 0xfU];
    }
    OPENSSL_cleanse(bytes.data(), bytes.size());
    return text;
}

bool IsTicketName(std::string_view name) {
    return name.starts_with(filePrefix) && name.size() == filePrefix.size() + 2 * nameBytes &&
           name.find_first_not_of("0123456789abcdef", filePrefix.size()) == std::string_view::npos;
}

std::optional<gid_t> FindGroup(const std::string& name) {
    if (name.empty()) {
        return std::nullopt;
    }
    std::vector<char> buffer(64UL * 1024);
    group entry{};
    group* found = nullptr;
    errno = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    RequireCall(errno == 0, "cannot look up the group " + name);
    if (found == nullptr) {
        throw std::runtime_error("there is no group " + name);
    }
    return entry.gr_gid;
}

}  // namespace

TicketStore::TicketStore(TicketOptions given, const boost::asio::any_io_executor& executor)
    : options(std::move(given)), group(FindGroup(options.group)), timer(executor) {
    OpenDirectory();
    RemoveStale();
}

TicketStore::~TicketStore() {
    try {
        Close();
    } catch (...) {
        // A remaining file is worthless, and the next daemon removes it.
    }
}

void TicketStore::OpenDirectory() {
    const std::string name = "the ticket directory " + options.directory.string();
    const bool created = ::mkdir(options.directory.c_str(), 0700) == 0;
    RequireCall(created || errno == EEXIST, "cannot create " + name);
    directory = Tessim::FileDescriptor(
        ::open(options.directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    RequireCall(directory.Get() >= 0, "cannot open " + name);
    if (created) {
        try {
            RequireCall((!group || ::fchown(directory.Get(), static_cast<uid_t>(-1), *group) == 0) &&
                            ::fchmod(directory.Get(), group ? groupDirectoryMode : openDirectoryMode) == 0,
                        "cannot set group and mode of " + name);
        } catch (...) {
            ::rmdir(options.directory.c_str());
            throw;
        }
    }
    const struct stat status = CheckPrivate(directory.Get(), name);
    const mode_t search = status.st_gid == group ? S_IXGRP : S_IXOTH;
    if (group && (status.st_mode & search) == 0) {
        throw std::runtime_error("the group " + options.group + " cannot reach files in " + name);
    }
}

void TicketStore::RemoveStale() const {
    // fdopendir takes ownership of the descriptor.
    const int copy = ::fcntl(directory.Get(), F_DUPFD_CLOEXEC, 0);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(copy < 0 ? nullptr : ::fdopendir(copy), ::closedir);
    RequireCall(stream != nullptr, "cannot list the ticket directory");
    std::vector<std::string> stale;
    while (const dirent* entry = ::readdir(stream.get())) {
        if (IsTicketName(entry->d_name)) {
            stale.emplace_back(entry->d_name);
        }
    }
    for (const std::string& file : stale) {
        RemoveFile(file);
    }
    if (!stale.empty()) {
        spdlog::warn("Removed {} stale tickets of an earlier daemon", stale.size());
    }
}

std::string TicketStore::Issue(std::uint64_t owner) {
    Tickets made;
    const Ticket& ticket =
        made.emplace(owner, Ticket{std::string(filePrefix) + RandomHex(nameBytes), RandomHex(passwordBytes),
                                   Clock::now() + options.lifetime})
            .first->second;
    std::string path = options.directory / ticket.file;
    WriteFile(ticket.file, ticket.password);
    Tickets::node_type previous;
    try {
        const std::lock_guard lock(mutex);
        if (closed) {
            throw std::system_error(ECANCELED, std::generic_category(), "the daemon is stopping");
        }
        ArmTimer(ticket.expiry);
        previous = tickets.extract(owner);
        tickets.merge(made);
    } catch (...) {
        Remove(made.extract(owner));
        throw;
    }
    Remove(std::move(previous));
    return path;
}

bool TicketStore::Redeem(std::uint64_t owner, std::string_view password) {
    Tickets::node_type node = Take(owner);
    if (!node) {
        return false;
    }
    const Ticket& ticket = node.mapped();
    const bool same = password.size() == ticket.password.size() &&
                      CRYPTO_memcmp(password.data(), ticket.password.data(), password.size()) == 0;
    const bool valid = Clock::now() < ticket.expiry;
    Remove(std::move(node));
    return same && valid;
}

std::string TicketStore::Describe(std::uint64_t owner) const {
    const std::lock_guard lock(mutex);
    const auto ticket = tickets.find(owner);
    if (ticket == tickets.end()) {
        return {};
    }
    return "the ticket " + (options.directory / ticket->second.file).string() + " was not used; " +
           (group ? "root, this user and the group " + options.group + " can read it"
                  : "only root and this user can read it");
}

void TicketStore::Drop(std::uint64_t owner) {
    Remove(Take(owner));
}

void TicketStore::Close() {
    Tickets removed;
    {
        const std::lock_guard lock(mutex);
        closed = true;
        timer.cancel();
        removed.swap(tickets);
    }
    RemoveAll(std::move(removed));
}

void TicketStore::WriteFile(const std::string& file, std::string_view password) const {
    Tessim::FileDescriptor descriptor(
        ::openat(directory.Get(), file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    RequireCall(descriptor.Get() >= 0, "cannot create a ticket file");
    try {
        RequireCall(!group || (::fchown(descriptor.Get(), static_cast<uid_t>(-1), *group) == 0 &&
                               ::fchmod(descriptor.Get(), 0640) == 0),
                    "cannot set the group of a ticket file");
        while (!password.empty()) {
            const ssize_t written = ::write(descriptor.Get(), password.data(), password.size());
            RequireCall(written > 0 || (written < 0 && errno == EINTR), "cannot write a ticket file");
            password.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
        }
    } catch (...) {
        RemoveFile(file);
        throw;
    }
}

void TicketStore::RemoveFile(const std::string& file) const {
    if (::unlinkat(directory.Get(), file.c_str(), 0) != 0 && errno != ENOENT) {
        spdlog::warn("Cannot remove ticket file {}: {}", file, std::generic_category().message(errno));
    }
}

TicketStore::Tickets::node_type TicketStore::Take(std::uint64_t owner) {
    const std::lock_guard lock(mutex);
    return tickets.extract(owner);
}

void TicketStore::Remove(Tickets::node_type ticket) const {
    if (ticket) {
        RemoveFile(ticket.mapped().file);
        OPENSSL_cleanse(ticket.mapped().password.data(), ticket.mapped().password.size());
    }
}

void TicketStore::RemoveAll(Tickets removed) const {
    while (!removed.empty()) {
        Remove(removed.extract(removed.begin()));
    }
}

void TicketStore::ArmTimer(Clock::time_point latest) {
    if (timerArmed) {
        return;
    }
    for (const auto& [owner, ticket] : tickets) {
        latest = std::min(latest, ticket.expiry);
    }
    timer.expires_at(latest);
    timer.async_wait([this](const boost::system::error_code& error) {
        if (!error) {
            RemoveExpired();
        }
    });
    timerArmed = true;
}

void TicketStore::RemoveExpired() {
    const Clock::time_point now = Clock::now();
    Tickets removed;
    {
        const std::lock_guard lock(mutex);
        for (auto ticket = tickets.begin(); ticket != tickets.end();) {
            const auto next = std::next(ticket);
            if (ticket->second.expiry <= now) {
                removed.insert(tickets.extract(ticket));
            }
            ticket = next;
        }
        timerArmed = false;
        if (!tickets.empty()) {
            ArmTimer(Clock::time_point::max());
        }
    }
    RemoveAll(std::move(removed));
}

}  // namespace Vessad
