#include "apps/vessad/TicketReaders.h"

#include <grp.h>
#include <pwd.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/peer_owner.h"

namespace Vessad {

namespace {

constexpr std::size_t entrySize = 64UL * 1024;
constexpr std::size_t maxKnown = 1024;
constexpr std::size_t maxListed = 32;  // each is looked up when the daemon starts

bool IsMember(uid_t user, gid_t group) {
    std::vector<char> buffer(entrySize);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) != 0) {
        return true;
    }
    if (found == nullptr || entry.pw_gid == group) {
        return found != nullptr;
    }
    std::vector<gid_t> groups(1);
    int count = 1;
    // The first call says how many there are.
    while (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<std::size_t>(count));
    }
    groups.resize(static_cast<std::size_t>(count));
    return std::ranges::find(groups, group) != groups.end();
}

}  // namespace

Group FindGroup(gid_t id) {
    Group group;
    group.includes = [id](uid_t user) { return IsMember(user, id); };
    std::vector<char> buffer(entrySize);
    ::group entry{};
    ::group* found = nullptr;
    if (::getgrgid_r(id, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
        return group;
    }
    std::vector<std::string> names;
    for (char** member = entry.gr_mem; *member != nullptr && names.size() < maxListed; ++member) {
        names.emplace_back(*member);
    }
    const auto listed = static_cast<std::ptrdiff_t>(names.size());
    names.emplace_back(entry.gr_name);
    for (auto member = names.begin(); member != names.end(); ++member) {
        passwd user{};
        passwd* known = nullptr;
        if (::getpwnam_r(member->c_str(), &user, buffer.data(), buffer.size(), &known) == 0 &&
            known != nullptr && (member - names.begin() < listed || user.pw_gid == id)) {
            group.members.push_back(user.pw_uid);
        }
    }
    return group;
}

struct TicketReaders::State {
    Group group;
    Tessim::FileDescriptor diagnostics;
    std::mutex mutex;                            // guards all below, and the use of diagnostics
    std::map<uid_t, std::optional<bool>> known;  // nothing: to be looked up
    std::condition_variable changed;
    bool warned = false;
    bool stopping = false;
};

TicketReaders::TicketReaders(Group group, Tessim::FileDescriptor diagnostics)
    : state(std::make_shared<State>()) {
    for (const uid_t member : group.members) {
        state->known[member] = true;
    }
    state->known[0] = true;
    state->known[::geteuid()] = true;
    state->group = std::move(group);
    state->diagnostics = std::move(diagnostics);
    // It may never return from the database.
    std::thread([state = state] { LookUp(*state); }).detach();
}

TicketReaders::~TicketReaders() {
    const std::lock_guard lock(state->mutex);
    state->stopping = true;
    state->changed.notify_all();
}

bool TicketReaders::Include(int socket, const sockaddr& peer) {
    std::unique_lock lock(state->mutex);
    std::optional<uid_t> user;
    try {
        user = Tessim::FindPeerOwner(socket, peer, state->diagnostics.Get());
    } catch (const Tessim::Exception& failure) {
        const bool isTold = std::exchange(state->warned, true);
        lock.unlock();
        if (!isTold) {
            spdlog::warn("All local users are served alike: {}", failure.what());
        }
        return true;
    }
    if (!user) {
        return false;
    }
    const auto place = state->known.find(*user);
    if (place != state->known.end()) {
        return place->second.value_or(false);
    }
    if (state->known.size() >= maxKnown) {
        std::erase_if(state->known, [](const auto& other) { return !other.second.value_or(true); });
    }
    if (state->known.size() < maxKnown) {
        state->known.try_emplace(*user);
        state->changed.notify_all();
    }
    return false;
}

void TicketReaders::LookUp(State& state) {
    std::unique_lock lock(state.mutex);
    while (!state.stopping) {
        const auto unknown = std::ranges::find_if(state.known, [](const auto& user) { return !user.second; });
        if (unknown == state.known.end()) {
            state.changed.wait(lock);
            continue;
        }
        const uid_t user = unknown->first;
        lock.unlock();
        bool includes = true;
        try {
            includes = state.group.includes(user);
        } catch (const std::exception&) {
            // Out of memory: the database cannot be read.
        }
        lock.lock();
        state.known[user] = includes;
    }
}

}  // namespace Vessad
