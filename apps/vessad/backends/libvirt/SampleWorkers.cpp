#include "apps/vessad/backends/libvirt/SampleWorkers.h"

#include <spdlog/spdlog.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <utility>

#include "apps/vessad/backends/libvirt/SignalFreeThread.h"
#include "apps/vessad/backends/libvirt/SkipTeardown.h"

namespace Vessad::Libvirt {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds endTimeout{3};

}  // namespace

// What the threads share. An abandoned thread keeps it alive.
class SampleWorkers::State : public std::enable_shared_from_this<State> {
  public:
    State(std::shared_ptr<Api> api, std::string uri, Timeouts timeouts)
        : api(std::move(api)), uri(std::move(uri)), tracker(timeouts) {}

    std::map<std::string, Statistics> Sample(const std::vector<Domain>& domains,
                                             const std::function<void()>& progress) {
        std::unique_lock lock(mutex);
        ++rounds;
        tracker.StartRound(domains, Clock::now());
        for (bool refused = false;;) {
            progress();
            tracker.MarkLateCalls(Clock::now());
            while (!refused && tracker.AddThread()) {
                try {
                    SignalFreeThread([self = shared_from_this()] { self->Run(); }).detach();
                } catch (const std::exception& failure) {
                    refused = true;
                    tracker.CancelThread(failure.what());
                }
            }
            WriteLog(lock);
            const auto next = tracker.NextCheck(Clock::now());
            if (!next) {
                auto samples = tracker.EndRound();
                WriteLog(lock);
                return samples;
            }
            changed.notify_all();
            changed.wait_until(lock, *next);
        }
    }

    void Stop() {
        const std::lock_guard lock(mutex);
        tracker.Stop();
        changed.notify_all();
    }

    // To be called after Stop.
    void AwaitThreads() {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, endTimeout, [this] { return tracker.AreAllThreadsInCalls(); });
        if (tracker.CountThreads() > 0) {
            SkipTeardownAtExit();
        }
    }

  private:
    void Run() {
        std::unique_ptr<Connection> connection;
        std::unique_lock lock(mutex);
        for (bool goesOn = true; goesOn;) {
            changed.wait(lock, [this] { return tracker.IsStopping() || tracker.HasQueued(); });
            if (tracker.IsStopping()) {
                break;
            }
            try {
                goesOn = SampleNext(lock, connection);
                changed.notify_all();
                WriteLog(lock);
            } catch (...) {
                // Out of memory: no further domain is sampled in this round.
                if (!lock) {
                    lock.lock();
                }
                tracker.DropQueued();
                changed.notify_all();
            }
        }
        lock.unlock();
        connection.reset();
        lock.lock();
        tracker.RemoveThread();
        changed.notify_all();
    }

    // Unlocks while the log is written.
    void WriteLog(std::unique_lock<std::mutex>& lock) {
        const auto lines = tracker.TakeLog();
        if (lines.empty()) {
            return;
        }
        lock.unlock();
        for (const SampleTracker::LogLine& line : lines) {
            spdlog::log(line.level, line.text);
        }
        lock.lock();
    }

    // Returns whether the thread goes on. Unlocks for calls to the host; an exception leaves the tracker
    // without this thread's call, and `lock` in either state.
    bool SampleNext(std::unique_lock<std::mutex>& lock, std::unique_ptr<Connection>& connection) {
        const int before = rounds;
        lock.unlock();
        // One that broke since its last call costs no sample.
        if (connection && !connection->IsAlive()) {
            connection.reset();
        }
        if (!connection) {
            connection = TryToOpen();
        }
        lock.lock();
        // What was found in the previous round need not hold in this one: the connection may have broken
        // since, or the host be back.
        if (rounds != before) {
            return true;
        }
        if (!connection) {
            tracker.DropQueued();
        }
        if (!tracker.HasQueued()) {
            return true;
        }
        const SampleTracker::Call call = tracker.StartCall(Clock::now());
        lock.unlock();
        SampleResult result;
        try {
            result = SampleOne(connection, call.uuid);
        } catch (...) {
            // Out of memory. The connection is in an unknown state.
            connection.reset();
            result.connectionBroke = true;
        }
        lock.lock();
        return tracker.EndCall(call.id, std::move(result), Clock::now());
    }

    std::unique_ptr<Connection> TryToOpen() const {
        try {
            return api->Open(uri);
        } catch (const std::exception& error) {
            spdlog::debug("No connection for statistics: {}", error.what());
            return nullptr;
        }
    }

    // Closes the connection when it broke.
    static SampleResult SampleOne(std::unique_ptr<Connection>& connection, const std::string& uuid) {
        SampleResult result;
        try {
            result.statistics = connection->GetStatistics(uuid);
        } catch (const ApiError& error) {
            result.error = error.what();
            if (!connection->IsAlive()) {
                connection.reset();
                result.connectionBroke = true;
            }
        }
        return result;
    }

    const std::shared_ptr<Api> api;
    const std::string uri;

    std::mutex mutex;
    std::condition_variable changed;
    SampleTracker tracker;
    int rounds = 0;
};

SampleWorkers::SampleWorkers(std::shared_ptr<Api> api, std::string uri, Timeouts timeouts)
    : state(std::make_shared<State>(std::move(api), std::move(uri), timeouts)) {}

SampleWorkers::~SampleWorkers() {
    state->Stop();
    state->AwaitThreads();
}

void SampleWorkers::Stop() {
    state->Stop();
}

std::map<std::string, Statistics> SampleWorkers::Sample(const std::vector<Domain>& domains,
                                                        const std::function<void()>& progress) {
    return state->Sample(domains, progress);
}

}  // namespace Vessad::Libvirt
