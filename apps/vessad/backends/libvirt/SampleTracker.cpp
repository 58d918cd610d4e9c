#include "apps/vessad/backends/libvirt/SampleTracker.h"

#include <spdlog/fmt/fmt.h>

#include <algorithm>
#include <iomanip>
#include <set>
#include <sstream>
#include <utility>

namespace Vessad::Libvirt {
namespace {

constexpr std::size_t wantedThreads = 4;
// Every call that waits for a domain also holds one of the host's own threads, of which libvirtd has 20.
constexpr std::size_t maxThreads = 12;

std::string LocalTime(std::chrono::system_clock::time_point moment) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(moment);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    std::ostringstream text;
    text << std::put_time(&parts, "%Y-%m-%d %H:%M:%S");
    return text.str();
}

}  // namespace

void SampleTracker::StartRound(const std::vector<SampledDomain>& domains, TimePoint now) {
    lastProgress = now;
    samples.clear();
    queue.clear();
    RemoveUnresponsiveExcept(domains);
    for (const SampledDomain& domain : domains) {
        if (!IsInCall(domain.uuid)) {
            queue.push_back(domain);
        }
    }
}

void SampleTracker::MarkLateCalls(TimePoint now) {
    for (auto& [id, call] : calls) {
        if (!call.late && now >= call.deadline) {
            unresponsive.try_emplace(call.domain.uuid,
                                     Unresponsive{call.domain.name, call.begun, std::nullopt});
            call.late = true;
            lastProgress = now;
            --available;
        }
        if (call.late) {
            LogUnresponsive(call.domain.uuid, now);
        }
    }
}

void SampleTracker::LogUnresponsive(const std::string& uuid, TimePoint now) {
    Unresponsive& domain = unresponsive.at(uuid);
    if (domain.since || now < domain.begun + timeouts.log) {
        return;
    }
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(now - domain.begun);
    const auto since = std::chrono::system_clock::now() - waited;
    Log(spdlog::level::warn, "VM {} ({}) has not responded since {}, it has no statistics until it does",
        domain.name, uuid, LocalTime(since));
    domain.since = since;
}

std::optional<SampleTracker::TimePoint> SampleTracker::NextCheck(TimePoint now) {
    if (stopping) {
        return std::nullopt;
    }
    TimePoint next = now + timeouts.call;
    bool isWaiting = false;
    for (const auto& [id, call] : calls) {
        if (!call.late) {
            isWaiting = true;
            next = std::min(next, call.deadline);
        }
    }
    if (isWaiting) {
        lastProgress = now;
    } else if (queue.empty() || available == 0 || now >= lastProgress + timeouts.open) {
        return std::nullopt;
    }
    return std::min<TimePoint>(next, lastProgress + timeouts.open);
}

std::map<std::string, Statistics> SampleTracker::EndRound() {
    if (available > 0) {
        shortage = false;
    } else if (!queue.empty() && !unresponsive.empty() && !stopping && !shortage) {
        Log(spdlog::level::err, "{} VMs do not respond, no other VM has statistics until one of them does",
            unresponsive.size());
        shortage = true;
    }
    refused = refused && available < wantedThreads;
    queue.clear();
    return std::exchange(samples, {});
}

std::vector<SampleTracker::LogLine> SampleTracker::TakeLog() {
    return std::exchange(log, {});
}

template <class... Arguments>
void SampleTracker::Log(spdlog::level::level_enum level, fmt::format_string<Arguments...> format,
                        Arguments&&... arguments) {
    log.push_back({level, fmt::format(format, std::forward<Arguments>(arguments)...)});
}

bool SampleTracker::AddThread() {
    if (stopping || available >= wantedThreads || threads >= maxThreads) {
        return false;
    }
    ++available;
    ++threads;
    return true;
}

void SampleTracker::CancelThread(const char* why) {
    --available;
    --threads;
    if (!refused) {
        refused = true;
        Log(spdlog::level::err, "No further thread for statistics, some VMs may have none: {}", why);
    }
}

SampleTracker::Call SampleTracker::StartCall(TimePoint now) {
    const bool isKnown = unresponsive.contains(queue.front().uuid);
    const TimePoint deadline = now + (isKnown ? timeouts.retry : timeouts.call);
    Call call{++lastCall, queue.front().uuid};
    calls.emplace(call.id, RunningCall{queue.front(), now, deadline});
    queue.pop_front();
    return call;
}

bool SampleTracker::EndCall(int id, SampleResult result, TimePoint now) {
    const RunningCall call = std::move(calls.extract(id).mapped());
    if (stopping) {
        return false;
    }
    lastProgress = now;
    const bool goesOn = !call.late || available < wantedThreads;
    if (call.late && goesOn) {
        ++available;
    }
    if (result.statistics) {
        MarkResponsive(call.domain.uuid);
        if (!call.late) {
            samples[call.domain.uuid] = std::move(*result.statistics);
        }
    } else if (result.connectionBroke) {
        queue.clear();
    } else {
        Log(spdlog::level::debug, "VM {} ({}) has no statistics: {}", call.domain.name, call.domain.uuid,
            result.error);
    }
    return goesOn;
}

void SampleTracker::Stop() {
    stopping = true;
    queue.clear();
}

bool SampleTracker::IsInCall(const std::string& uuid) const {
    return std::any_of(calls.begin(), calls.end(),
                       [&](const auto& call) { return call.second.domain.uuid == uuid; });
}

void SampleTracker::RemoveUnresponsiveExcept(const std::vector<SampledDomain>& domains) {
    std::set<std::string> sampled;
    for (const SampledDomain& domain : domains) {
        sampled.insert(domain.uuid);
    }
    std::erase_if(unresponsive, [&](const auto& entry) {
        const auto& [uuid, state] = entry;
        if (sampled.contains(uuid) || IsInCall(uuid)) {
            return false;
        }
        if (state.since) {
            Log(spdlog::level::info, "VM {} ({}), which had not responded since {}, no longer runs",
                state.name, uuid, LocalTime(*state.since));
        }
        return true;
    });
}

void SampleTracker::MarkResponsive(const std::string& uuid) {
    if (const auto found = unresponsive.find(uuid); found != unresponsive.end()) {
        if (const auto since = found->second.since) {
            Log(spdlog::level::info, "VM {} ({}) responds again, it had not since {}", found->second.name,
                uuid, LocalTime(*since));
        }
        unresponsive.erase(found);
    }
}

}  // namespace Vessad::Libvirt
