#include "apps/status/Names.h"

#include <grp.h>
#include <pwd.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace KelvStatus {

namespace {

constexpr std::chrono::milliseconds limit{500};
constexpr std::size_t entrySize = 64UL * 1024;

// Calls `lookUp` in a thread of its own, which may never return from the database.
std::string Within(std::string (*lookUp)(id_t), id_t id) {
    static bool replies = true;
    if (replies) {
        std::packaged_task<std::string()> task([=] { return lookUp(id); });
        std::future<std::string> name = task.get_future();
        std::thread(std::move(task)).detach();
        replies = name.wait_for(limit) == std::future_status::ready;
        if (replies) {
            return name.get();
        }
    }
    return std::to_string(id);
}

}  // namespace

std::string UserName(uid_t user) {
    return Within(
        [](id_t id) {
            std::vector<char> buffer(entrySize);
            passwd entry{};
            passwd* found = nullptr;
            ::getpwuid_r(id, &entry, buffer.data(), buffer.size(), &found);
            return found != nullptr ? std::string(found->pw_name) : std::to_string(id);
        },
        user);
}

std::string GroupName(gid_t group) {
    return Within(
        [](id_t id) {
            std::vector<char> buffer(entrySize);
            ::group entry{};
            ::group* found = nullptr;
            ::getgrgid_r(id, &entry, buffer.data(), buffer.size(), &found);
            return found != nullptr ? std::string(found->gr_name) : std::to_string(id);
        },
        group);
}

}  // namespace KelvStatus
