#include "apps/vessad/LogLimit.h"

#include <spdlog/spdlog.h>

namespace Vessad {
namespace {

constexpr std::size_t budget = 20;
constexpr std::chrono::minutes period{1};

// By kind.
constexpr std::array names{"connections that timed out",  "rejected preambles",
                           "rejected requests",           "rejected logins",
                           "tickets that are not issued", "failed accepts"};

}  // namespace

bool LogLimit::Admit(Kind kind) {
    Flush();
    const std::lock_guard lock(mutex);
    Minute& minute = minutes.at(static_cast<std::size_t>(kind));
    if (minute.lines == 0) {
        minute.begin = now();
    }
    return ++minute.lines <= budget;
}

void LogLimit::Flush() {
    static_assert(names.size() == kinds);
    std::array<std::size_t, kinds> suppressed{};
    {
        const std::lock_guard lock(mutex);
        for (std::size_t kind = 0; kind < kinds; ++kind) {
            Minute& minute = minutes.at(kind);
            if (minute.lines > 0 && now() >= minute.begin + period) {
                suppressed.at(kind) = minute.lines > budget ? minute.lines - budget : 0;
                minute.lines = 0;
            }
        }
    }
    for (std::size_t kind = 0; kind < kinds; ++kind) {
        if (suppressed.at(kind) > 0) {
            spdlog::warn("Suppressed {} more lines about {} within a minute", suppressed.at(kind),
                         names.at(kind));
        }
    }
}

}  // namespace Vessad
