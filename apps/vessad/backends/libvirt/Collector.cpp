#include "apps/vessad/backends/libvirt/Collector.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <utility>

#include "apps/vessad/backends/libvirt/InventoryBuilder.h"
#include "apps/vessad/backends/libvirt/SignalFreeThread.h"
#include "apps/vessad/backends/libvirt/Text.h"

namespace Vessad::Libvirt {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* unreachable = "The host's libvirt cannot be reached";

// How often the collector's thread wakes up while it waits, in the time that it may go without progress.
constexpr int wakeUps = 6;

// Calls `function` at the end of a scope, however it is left.
template <class Function>
struct AtEnd {
    Function function;
    ~AtEnd() { function(); }
};
template <class Function>
AtEnd(Function) -> AtEnd<Function>;

}  // namespace

// What the collector shares with its callers and with posted tasks, which may outlive it.
struct Collector::Shared {
    std::mutex mutex;
    std::condition_variable changed;

    std::shared_ptr<const Inventory> newest = UnknownHost();
    std::shared_ptr<const Inventory> newestWithoutVms = newest;
    std::optional<Clock::time_point> publishedAt;  // unless `newest` was not collected
    std::optional<Clock::time_point> unreachableSince;

    std::vector<std::string> pools;  // the XML of the active ones, as last received
    bool poolsPending = false;       // a task is to fetch them

    std::optional<HostReading> reading;    // of the latest task, or
    std::optional<ApiError> readingError;  // why there is none
    bool readingPending = false;           // a task is to read the host

    std::optional<ApiError> failure;  // of the latest collection
    bool attempted = false;           // a collection has ended or failed
    bool collectNow = false;
    bool describesAnew = false;  // the next reading
    bool stopping = false;

    std::function<Clock::time_point()> now;
    Clock::duration progressInterval{};
    std::atomic<Clock::time_point> lastProgress = Clock::now();  // of the collector's thread

    void Progress() { lastProgress = Clock::now(); }

    // Waits for `condition` or until `end`, with the mutex locked; returns whether the condition holds.
    template <class Condition>
    bool Wait(std::unique_lock<std::mutex>& lock, Clock::time_point end, Condition condition) {
        for (;;) {
            Progress();
            const auto time = now();
            if (condition() || time >= end) {
                return condition();
            }
            changed.wait_for(lock, std::min<Clock::duration>(end - time, progressInterval), condition);
        }
    }
};

Collector::Collector(const std::shared_ptr<Api>& api, const std::string& uri, VmIds vmIds,
                     CollectorOptions options)
    : options(std::move(options)),
      shared(std::make_shared<Shared>()),
      vmIds(std::move(vmIds)),
      reader(std::make_shared<HostReader>(this->options.osinfoDirectories)),
      poolThread(api, uri),
      readingThread(api, uri),
      workers(api, uri, this->options.sampling) {
    shared->now = this->options.now;
    shared->progressInterval = this->options.progress / wakeUps;
    thread = SignalFreeThread([this] { Run(); });
}

Collector::~Collector() {
    {
        const std::lock_guard lock(shared->mutex);
        shared->stopping = true;
        shared->changed.notify_all();
    }
    workers.Stop();
    thread.join();
}

std::shared_ptr<const Inventory> Collector::Get() {
    const std::lock_guard lock(shared->mutex);
    const bool expired = shared->unreachableSince && options.now() - *shared->unreachableSince > options.keep;
    return expired ? shared->newestWithoutVms : shared->newest;
}

SourceStatus Collector::GetStatus() {
    SourceStatus status;
    const std::lock_guard lock(shared->mutex);
    status.connected = shared->publishedAt && !shared->unreachableSince;
    if (!status.connected && shared->failure) {
        status.lastError = shared->failure->what();
    }
    if (shared->publishedAt) {
        status.age = std::chrono::duration_cast<std::chrono::seconds>(options.now() - *shared->publishedAt);
    }
    return status;
}

bool Collector::IsMakingProgress() const {
    return Clock::now() - shared->lastProgress.load() < options.progress;
}

void Collector::CollectNow() {
    const std::lock_guard lock(shared->mutex);
    shared->collectNow = true;
    shared->describesAnew = true;
    shared->changed.notify_all();
}

std::optional<ApiError> Collector::WaitForFirst(std::chrono::milliseconds timeout) {
    std::unique_lock lock(shared->mutex);
    shared->changed.wait_for(lock, timeout, [this] { return shared->attempted; });
    return shared->failure;
}

void Collector::Run() {
    std::unique_lock lock(shared->mutex);
    while (!shared->stopping) {
        shared->collectNow = false;
        lock.unlock();
        TryToCollect();
        lock.lock();
        shared->attempted = true;
        shared->changed.notify_all();
        shared->Wait(lock, options.now() + options.interval,
                     [this] { return shared->stopping || shared->collectNow; });
    }
}

// A collection that fails for want of memory or of a thread counts like one of a host that cannot be reached.
void Collector::TryToCollect() {
    try {
        try {
            Collect();
        } catch (const std::exception& failure) {
            std::unique_lock lock(shared->mutex);
            ReportFailure(lock, "No inventory can be collected",
                          ApiError(failure.what(), ApiError::Kind::Temporary));
        }
    } catch (...) {
        // No memory for the log line either.
        const std::lock_guard lock(shared->mutex);
        MarkUnreachable();
    }
}

void Collector::Collect() {
    FetchPools();
    auto reading = FetchReading();
    if (reading && HaveFirstPoolsCome()) {
        reading = FetchReading();
    }
    if (!reading) {
        return;
    }
    std::vector<std::string> uuids;
    std::vector<SampleWorkers::Domain> running;
    for (const DescribedDomain& domain : reading->domains) {
        uuids.push_back(domain.uuid);
        // A crashed domain may still have a process, but shows as powered off and so has no statistics.
        if (PowerStateOf(domain.state, domain.active) != Hask::VirtualMachine::PowerState::poweredOff) {
            running.push_back({domain.uuid, WireText(domain.name)});
        }
    }
    vmIds.Admit(uuids);
    const auto samples = workers.Sample(running, [this] { shared->Progress(); });
    if (Publish(BuildInventory(*reading, vmIds, samples, *Get()))) {
        spdlog::info("The host's libvirt can be reached again: {} VMs", reading->domains.size());
    }
}

void Collector::FetchPools() {
    std::unique_lock lock(shared->mutex);
    const bool isStillLate = shared->poolsPending;
    if (!isStillLate) {
        poolThread.Post([shared = shared](Connection* connection, const ApiError*) {
            std::optional<std::vector<std::string>> pools;
            const AtEnd end{[&] {
                const std::lock_guard guard(shared->mutex);
                if (pools) {
                    shared->pools = std::move(*pools);
                }
                shared->poolsPending = false;
                shared->changed.notify_all();
            }};
            try {
                if (connection != nullptr) {
                    pools = connection->GetPools();
                }
            } catch (const std::exception& error) {
                spdlog::debug("No storage pools: {}", error.what());
            }
        });
        shared->poolsPending = true;
    }
    auto timeout = poolsKnown ? options.poolTimeout : options.firstPoolTimeout;
    if (isStillLate) {
        timeout = std::chrono::milliseconds(0);
    }
    const bool inTime = shared->Wait(lock, options.now() + timeout,
                                     [this] { return shared->stopping || !shared->poolsPending; });
    lock.unlock();
    if (!inTime && !poolsLate) {
        spdlog::warn("The list of storage pools is late, the last one serves until it arrives");
    }
    poolsLate = !inTime;
    poolsKnown = poolsKnown || inTime;
}

// A host that hung while the daemon started replies to both requests at the same time. Without its pools
// their disks would be in other datastores until the next collection.
bool Collector::HaveFirstPoolsCome() {
    std::unique_lock lock(shared->mutex);
    if (shared->publishedAt || !poolsLate) {
        return false;
    }
    const bool come = shared->Wait(lock, options.now() + options.poolTimeout,
                                   [this] { return shared->stopping || !shared->poolsPending; });
    poolsLate = !come;
    poolsKnown = poolsKnown || come;
    return come;
}

// A reading that is late is waited for all the same: a slow host is served, once it has replied.
std::optional<HostReading> Collector::FetchReading() {
    std::unique_lock lock(shared->mutex);
    shared->reading.reset();
    shared->readingError.reset();
    readingThread.Post(
        [shared = shared, reader = reader, pools = shared->pools, describesAnew = shared->describesAnew](
            Connection* connection, const ApiError* failure) {
            std::optional<HostReading> reading;
            std::optional<ApiError> readingError;
            const AtEnd end{[&] {
                const std::lock_guard guard(shared->mutex);
                shared->reading = std::move(reading);
                shared->readingError = std::move(readingError);
                shared->readingPending = false;
                shared->changed.notify_all();
            }};
            if (describesAnew) {
                reader->MarkOutdated();
            }
            if (failure != nullptr) {
                readingError = *failure;
                return;
            }
            try {
                reading = reader->Read(*connection, pools);
            } catch (const ApiError& error) {
                readingError = error;
            } catch (const std::exception& error) {
                readingError = ApiError(error.what(), ApiError::Kind::Temporary);
            }
        });
    shared->readingPending = true;
    shared->describesAnew = false;
    const auto ended = [this] { return shared->stopping || !shared->readingPending; };
    if (!shared->Wait(lock, options.now() + options.readingTimeout, ended)) {
        ReportFailure(lock, unreachable, {"no reply in time", ApiError::Kind::Temporary});
        shared->Wait(lock, Clock::time_point::max(), ended);
    }
    if (shared->stopping) {
        return std::nullopt;
    }
    if (shared->reading) {
        return std::exchange(shared->reading, std::nullopt);
    }
    const std::optional<ApiError> failure = std::exchange(shared->readingError, std::nullopt);
    ReportFailure(lock, unreachable,
                  failure ? *failure : ApiError("the host cannot be read", ApiError::Kind::Temporary));
    return std::nullopt;
}

bool Collector::Publish(std::shared_ptr<const Inventory> inventory) {
    auto withoutVms = WithoutVms(*inventory);
    const std::lock_guard lock(shared->mutex);
    shared->newest = std::move(inventory);
    shared->publishedAt = options.now();
    shared->failure.reset();
    shared->newestWithoutVms = std::move(withoutVms);
    return std::exchange(shared->unreachableSince, std::nullopt).has_value();
}

bool Collector::MarkUnreachable() {
    if (shared->unreachableSince) {
        return false;
    }
    shared->unreachableSince = options.now();
    return true;
}

void Collector::ReportFailure(std::unique_lock<std::mutex>& lock, const char* what, const ApiError& failure) {
    shared->failure = failure;
    if (MarkUnreachable()) {
        const bool published = shared->publishedAt.has_value();
        lock.unlock();
        if (published) {
            spdlog::warn("{}: {}; the last inventory serves for {} s", what, failure.what(),
                         std::chrono::duration_cast<std::chrono::seconds>(options.keep).count());
        } else {
            spdlog::warn("{}: {}; there is no inventory until this succeeds", what, failure.what());
        }
        lock.lock();
    }
    shared->attempted = true;
    shared->changed.notify_all();
}

}  // namespace Vessad::Libvirt
