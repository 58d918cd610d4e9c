#include "apps/vessad/TicketReaders.h"

#include <grp.h>
#include <pwd.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/peer_owner.h"

namespace Vessad {

namespace {

constexpr std::size_t entrySize = 64UL * 1024;
constexpr std::size_t maxKnown = 1024;

}  // namespace

TicketReaders::TicketReaders(const std::string& group, Tessim::FileDescriptor diagnostics)
    : diagnostics(std::move(diagnostics)) {
    std::vector<char> buffer(entrySize);
    ::group entry{};
    ::group* found = nullptr;
    if (!group.empty() && ::getgrnam_r(group.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr) {
        this->group = entry.gr_gid;
    }
}

bool TicketReaders::Include(int socket, const sockaddr& peer) {
    const std::lock_guard lock(mutex);
    std::optional<uid_t> user;
    try {
        user = Tessim::FindPeerOwner(socket, peer, diagnostics.Get());
    } catch (const Tessim::Exception& failure) {
        if (!std::exchange(warned, true)) {
            spdlog::warn("All local users are served alike: {}", failure.what());
        }
        return true;
    }
    if (!user) {
        return false;
    }
    if (known.size() >= maxKnown) {
        known.clear();
    }
    const auto [place, isNew] = known.try_emplace(*user, true);
    if (isNew) {
        place->second = MayRead(*user);
    }
    return place->second;
}

// True where the system's database cannot be read.
bool TicketReaders::MayRead(uid_t user) const {
    if (user == 0 || user == ::geteuid()) {
        return true;
    }
    if (!group) {
        return false;
    }
    std::vector<char> buffer(entrySize);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) != 0) {
        return true;
    }
    if (found == nullptr) {
        return false;
    }
    std::vector<gid_t> groups(1);
    int count = 1;
    // The first call says how many there are.
    while (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<std::size_t>(count));
    }
    groups.resize(static_cast<std::size_t>(count));
    return std::ranges::find(groups, *group) != groups.end();
}

}  // namespace Vessad
