// The bookkeeping of SampleWorkers.
#pragma once

#include <spdlog/common.h>
#include <spdlog/fmt/fmt.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

struct SampledDomain {
    std::string uuid;
    std::string name;  // for the log
};

struct SampleTimeouts {
    std::chrono::milliseconds call{2000};   // for a domain to reply
    std::chrono::milliseconds retry{200};   // for one that is known to be unresponsive
    std::chrono::milliseconds log{10000};   // for the log to say that a domain does not reply
    std::chrono::milliseconds open{10000};  // for the host to accept a connection
};

// What a call for a domain's statistics ended with.
struct SampleResult {
    std::optional<Statistics> statistics;  // absent: the call failed
    bool connectionBroke = false;          // the host failed, not the domain
    std::string error;
};

// Tracks domains, calls and threads, and keeps log lines of domains that become unresponsive or respond
// again. Has neither threads nor a clock: callers pass the time and exclude each other. Throws std::bad_alloc
// only.
//
// A round samples a set of domains, each by one call at a time:
//
//   idle ──StartRound──▶ queued ──StartCall──▶ in call ──EndCall──▶ idle
//
// A call that takes longer than the timeout is late until it ends; its sample is dropped. Its domain is
// unresponsive until a call for it succeeds or it is no longer sampled. A call for an unresponsive domain has
// a shorter timeout, so that such a domain hardly delays a round. A domain in a call is not queued. The log
// says what a domain does only where it did not respond for longer than other programs' jobs take.
//
//   AddThread ──▶ ready ──StartCall──▶ in call ──EndCall──▶ ready
//                                         │
//                              MarkLateCalls ──▶ stuck ──EndCall──▶ ready, or ended where it was replaced
//
// Threads that are ready or in call are available; there are 4, and at most 12 with the stuck ones.
//
// A round is over when no call but late ones is running and either no domain is queued, no thread is
// available, or nothing has happened for the time that opening a connection may take.
class SampleTracker {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    struct Call {
        int id = 0;
        std::string uuid;
    };

    struct LogLine {
        spdlog::level::level_enum level;
        std::string text;
    };

    explicit SampleTracker(SampleTimeouts timeouts) : timeouts(timeouts) {}

    void StartRound(const std::vector<SampledDomain>& domains, TimePoint now);
    void MarkLateCalls(TimePoint now);
    // Returns when the round has to be checked again unless something happens before; nothing: it is over.
    std::optional<TimePoint> NextCheck(TimePoint now);
    // Drops the domains that are still queued. Returns the samples of the round by UUID.
    std::map<std::string, Statistics> EndRound();

    // Returns what is to be logged since the previous call.
    std::vector<LogLine> TakeLog();

    // Returns whether the caller is to start another thread, which it counts as ready.
    bool AddThread();
    void RemoveThread() { --threads; }
    // Takes back the latest AddThread, whose thread could not be started.
    void CancelThread(const char* why);

    bool HasQueued() const { return !queue.empty(); }
    void DropQueued() { queue.clear(); }
    // Moves the first queued domain, which there must be, into a call.
    Call StartCall(TimePoint now);
    // Returns whether the thread goes on; otherwise it is to end.
    bool EndCall(int id, SampleResult result, TimePoint now);

    // From now on every round is over at once and every thread is to end.
    void Stop();
    bool IsStopping() const { return stopping; }

    std::size_t CountThreads() const { return threads; }
    bool AreAllThreadsInCalls() const { return threads == calls.size(); }

  private:
    struct RunningCall {
        SampledDomain domain;
        TimePoint begun;
        TimePoint deadline;
        bool late = false;
    };

    struct Unresponsive {
        std::string name;
        TimePoint begun;                                             // the first call
        std::optional<std::chrono::system_clock::time_point> since;  // that time, once the log has said it
    };

    template <class... Arguments>
    void Log(spdlog::level::level_enum level, fmt::format_string<Arguments...> format,
             Arguments&&... arguments);
    bool IsInCall(const std::string& uuid) const;
    void RemoveUnresponsiveExcept(const std::vector<SampledDomain>& domains);
    void MarkResponsive(const std::string& uuid);
    void LogUnresponsive(const std::string& uuid, TimePoint now);

    const SampleTimeouts timeouts;
    std::vector<LogLine> log;
    std::deque<SampledDomain> queue;
    std::map<int, RunningCall> calls;                  // by id
    std::map<std::string, Unresponsive> unresponsive;  // by UUID
    std::map<std::string, Statistics> samples;         // of this round, by UUID
    std::size_t threads = 0;
    std::size_t available = 0;
    int lastCall = 0;
    TimePoint lastProgress;  // when a call was last waited for, became late or ended
    bool shortage = false;   // no thread is available, and the log says so
    bool refused = false;    // no thread could be started, and the log says so
    bool stopping = false;
};

}  // namespace Vessad::Libvirt
