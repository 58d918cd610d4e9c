#include "apps/vessad/backends/libvirt/FigureWorkers.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <iomanip>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

#include "apps/vessad/backends/libvirt/LeftBehind.h"
#include "apps/vessad/backends/libvirt/SignalFreeThread.h"
#include "apps/vessad/backends/libvirt/Text.h"

namespace Vessad::Libvirt {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t workersWanted = 4;
// Every call that waits for a domain holds one of the host's own threads too, of which libvirtd has 20.
constexpr std::size_t mostThreads = 12;
// For threads that wait for no domain but open a connection: the program's end must not overtake them.
constexpr std::chrono::seconds farewell{3};

std::string LocalTime(std::chrono::system_clock::time_point moment) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(moment);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    std::ostringstream text;
    text << std::put_time(&parts, "%Y-%m-%d %H:%M:%S");
    return text.str();
}

// A machine's name as a log line carries it.
std::string Shown(const std::string& name) {
    std::string shown = WireText(name);
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return c == '\n' || c == '\r' || c == '\t'; }, ' ');
    return shown;
}

}  // namespace

// What the threads share. A thread that is left behind keeps it alive.
class FigureWorkers::State : public std::enable_shared_from_this<State> {
  public:
    State(std::shared_ptr<Api> api, std::string uri, Waits waits)
        : api(std::move(api)), uri(std::move(uri)), waits(waits) {}

    std::map<std::string, Statistics> Ask(const std::vector<Domain>& domains) {
        std::unique_lock lock(mutex);
        ++round;
        progress = Clock::now();
        results.clear();
        Forget(domains);
        for (const Domain& domain : domains) {
            if (!IsBeingAsked(domain.uuid)) {
                queue.push_back(domain);
            }
        }
        for (;;) {
            const auto late = WriteOffTheLate();
            Replace();
            if (stopping) {
                break;
            }
            if (IsAnyoneAwaited()) {
                progress = Clock::now();
            } else if (queue.empty() || healthy == 0 || Clock::now() >= progress + waits.openWait) {
                // The last is a host that accepts no connection: it is not the machines that are silent.
                break;
            }
            changed.notify_all();
            changed.wait_until(lock, std::min<Clock::time_point>(late, progress + waits.openWait));
        }
        if (healthy > 0) {
            shortage = false;
        } else if (!queue.empty() && !stopping) {
            ReportShortage();
        }
        queue.clear();
        return std::exchange(results, {});
    }

    void Stop() {
        const std::lock_guard lock(mutex);
        stopping = true;
        queue.clear();
        changed.notify_all();
    }

    // After Stop().
    void AwaitThreads() {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, farewell, [this] { return threads == calls.size(); });
        if (threads > 0) {
            LeaveThreadBehind();
        }
    }

  private:
    // A call that has not come back.
    struct Call {
        Domain domain;
        Clock::time_point begun;
        int round = 0;
        bool writtenOff = false;
    };

    struct Silence {
        std::string name;
        std::chrono::system_clock::time_point since;
    };

    bool IsBeingAsked(const std::string& uuid) const {
        return std::any_of(calls.begin(), calls.end(),
                           [&](const auto& call) { return call.second.domain.uuid == uuid; });
    }

    bool IsAnyoneAwaited() const {
        return std::any_of(calls.begin(), calls.end(),
                           [](const auto& call) { return !call.second.writtenOff; });
    }

    // Machines that are not asked any more are silent no longer.
    void Forget(const std::vector<Domain>& domains) {
        std::set<std::string> asked;
        for (const Domain& domain : domains) {
            asked.insert(domain.uuid);
        }
        std::erase_if(silent, [&](const auto& entry) {
            const auto& [uuid, silence] = entry;
            if (asked.contains(uuid) || IsBeingAsked(uuid)) {
                return false;
            }
            spdlog::info("machine {} ({}), which did not answer since {}, does not run any more",
                         Shown(silence.name), uuid, LocalTime(silence.since));
            return true;
        });
    }

    // Gives up on calls that took too long; answers when the next one will have.
    Clock::time_point WriteOffTheLate() {
        const auto now = Clock::now();
        auto next = now + waits.patience;
        for (auto& [id, call] : calls) {
            if (call.writtenOff) {
                continue;
            }
            // One that is silent already need not prove it again.
            const auto end = silent.contains(call.domain.uuid) ? now : call.begun + waits.patience;
            if (end > now) {
                next = std::min(next, end);
                continue;
            }
            call.writtenOff = true;
            progress = now;
            --healthy;
            if (!silent.contains(call.domain.uuid)) {
                const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(now - call.begun);
                const auto since = std::chrono::system_clock::now() - waited;
                silent[call.domain.uuid] = {call.domain.name, since};
                spdlog::warn("machine {} ({}) does not answer since {}; it has no figures until it does",
                             Shown(call.domain.name), call.domain.uuid, LocalTime(since));
            }
        }
        return next;
    }

    // Starts threads for those that were written off.
    void Replace() {
        while (!stopping && healthy < workersWanted && threads < mostThreads) {
            ++healthy;
            ++threads;
            SignalFreeThread([self = shared_from_this()] { self->Run(); }).detach();
        }
    }

    void ReportShortage() {
        if (!shortage) {
            spdlog::error("{} machines do not answer; no more can be asked until one of them does",
                          silent.size());
        }
        shortage = true;
    }

    void Run() {
        std::unique_ptr<Connection> connection;
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [this] { return stopping || !queue.empty(); });
            if (stopping) {
                break;
            }
            if (!connection) {
                lock.unlock();
                connection = TryToOpen();
                lock.lock();
                if (!connection) {
                    queue.clear();
                    changed.notify_all();
                }
                continue;
            }
            const int id = ++lastCall;
            calls[id] = {std::move(queue.front()), Clock::now(), round, false};
            queue.pop_front();
            const std::string uuid = calls[id].domain.uuid;
            lock.unlock();
            Answer answer = AskOne(connection, uuid);
            lock.lock();
            const bool needed = Finish(id, std::move(answer));
            changed.notify_all();
            if (!needed) {
                break;
            }
        }
        lock.unlock();
        connection.reset();
        lock.lock();
        --threads;
        changed.notify_all();
    }

    std::unique_ptr<Connection> TryToOpen() const {
        try {
            return api->Open(uri);
        } catch (const ApiError& error) {
            spdlog::debug("no connection for figures: {}", error.what());
            return nullptr;
        }
    }

    struct Answer {
        std::optional<Statistics> statistics;
        bool unreachable = false;  // the host, not the machine
        std::string error;
    };

    // Gives the connection up when it broke.
    static Answer AskOne(std::unique_ptr<Connection>& connection, const std::string& uuid) {
        Answer answer;
        try {
            answer.statistics = connection->GetStatistics(uuid);
        } catch (const ApiError& error) {
            answer.error = error.what();
            if (!connection->IsAlive()) {
                connection.reset();
                answer.unreachable = true;
            }
        }
        return answer;
    }

    // Takes the answer in; false when the thread is not needed any more.
    bool Finish(int id, Answer answer) {
        const Call call = calls[id];
        calls.erase(id);
        if (stopping) {
            return false;
        }
        progress = Clock::now();
        if (answer.statistics) {
            Recovered(call.domain.uuid);
            if (call.round == round && !call.writtenOff) {
                results[call.domain.uuid] = std::move(*answer.statistics);
            }
        } else if (answer.unreachable) {
            queue.clear();
        } else {
            spdlog::debug("no figures of machine {}: {}", Shown(call.domain.name), answer.error);
        }
        if (call.writtenOff) {
            if (healthy >= workersWanted) {
                return false;
            }
            ++healthy;
        }
        return true;
    }

    void Recovered(const std::string& uuid) {
        if (const auto found = silent.find(uuid); found != silent.end()) {
            spdlog::info("machine {} ({}) answers again; it did not since {}", Shown(found->second.name),
                         uuid, LocalTime(found->second.since));
            silent.erase(found);
        }
    }

    const std::shared_ptr<Api> api;
    const std::string uri;
    const Waits waits;

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Domain> queue;   // to be asked in this round
    std::map<int, Call> calls;  // under way
    std::map<std::string, Silence> silent;
    std::map<std::string, Statistics> results;
    std::size_t threads = 0;  // all of them
    std::size_t healthy = 0;  // those not written off
    int round = 0;
    int lastCall = 0;
    Clock::time_point progress;  // when a call last began to be waited for, or ended
    bool shortage = false;
    bool stopping = false;
};

FigureWorkers::FigureWorkers(std::shared_ptr<Api> api, std::string uri, Waits waits)
    : state(std::make_shared<State>(std::move(api), std::move(uri), waits)) {}

FigureWorkers::~FigureWorkers() {
    state->Stop();
    state->AwaitThreads();
}

void FigureWorkers::Stop() {
    state->Stop();
}

std::map<std::string, Statistics> FigureWorkers::Ask(const std::vector<Domain>& domains) {
    return state->Ask(domains);
}

}  // namespace Vessad::Libvirt
