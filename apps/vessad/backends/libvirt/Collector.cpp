#include "apps/vessad/backends/libvirt/Collector.h"

#include <spdlog/spdlog.h>

#include <condition_variable>
#include <mutex>
#include <utility>

#include "apps/vessad/backends/libvirt/InventoryBuilder.h"
#include "apps/vessad/backends/libvirt/SignalFreeThread.h"
#include "apps/vessad/backends/libvirt/Text.h"

namespace Vessad::Libvirt {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

// What the collector shares with its callers and with posted tasks, which may outlive it.
struct Collector::Shared {
    std::mutex mutex;
    std::condition_variable changed;

    std::shared_ptr<const Inventory> newest = UnknownHost();
    std::shared_ptr<const Inventory> newestWithoutVms = newest;
    bool published = false;  // whether `newest` was collected
    std::optional<Clock::time_point> unreachableSince;

    std::vector<std::string> pools;  // the XML of the active ones, as last received
    bool poolsPending = false;       // a task is to fetch them

    std::optional<HostReading> reading;    // of the latest task, or
    std::optional<ApiError> readingError;  // why there is none
    bool readingPending = false;           // a task is to read the host

    std::optional<ApiError> failure;  // of the latest collection
    bool attempted = false;           // a collection has ended or failed
    bool collectNow = false;
    bool stopping = false;
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

void Collector::CollectNow() {
    const std::lock_guard lock(shared->mutex);
    shared->collectNow = true;
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
        Collect();
        lock.lock();
        shared->attempted = true;
        shared->changed.notify_all();
        shared->changed.wait_for(lock, options.interval,
                                 [this] { return shared->stopping || shared->collectNow; });
    }
}

void Collector::Collect() {
    FetchPools();
    const auto reading = FetchReading();
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
    const auto samples = workers.Sample(running);
    if (Publish(BuildInventory(*reading, vmIds, samples, *Get()))) {
        spdlog::info("The host's libvirt can be reached again: {} VMs", reading->domains.size());
    }
}

void Collector::FetchPools() {
    std::unique_lock lock(shared->mutex);
    const bool isStillLate = shared->poolsPending;
    if (!isStillLate) {
        shared->poolsPending = true;
        poolThread.Post([shared = shared](Connection* connection, const ApiError*) {
            std::optional<std::vector<std::string>> pools;
            try {
                if (connection != nullptr) {
                    pools = connection->GetPools();
                }
            } catch (const ApiError& error) {
                spdlog::debug("No storage pools: {}", error.what());
            }
            const std::lock_guard guard(shared->mutex);
            if (pools) {
                shared->pools = std::move(*pools);
            }
            shared->poolsPending = false;
            shared->changed.notify_all();
        });
    }
    auto timeout = poolsKnown ? options.poolTimeout : options.firstPoolTimeout;
    if (isStillLate) {
        timeout = std::chrono::milliseconds(0);
    }
    const bool inTime =
        shared->changed.wait_for(lock, timeout, [this] { return shared->stopping || !shared->poolsPending; });
    if (!inTime && !poolsLate) {
        spdlog::warn("The list of storage pools is late, the last one serves until it arrives");
    }
    poolsLate = !inTime;
    poolsKnown = poolsKnown || inTime;
}

// A reading that is late is waited for all the same: a slow host is served, once it has replied.
std::optional<HostReading> Collector::FetchReading() {
    std::unique_lock lock(shared->mutex);
    shared->readingPending = true;
    readingThread.Post([shared = shared, reader = reader, pools = shared->pools](Connection* connection,
                                                                                 const ApiError* failure) {
        std::optional<HostReading> reading;
        std::optional<ApiError> readingError;
        if (failure != nullptr) {
            readingError = *failure;
        } else {
            try {
                reading = reader->Read(*connection, pools);
            } catch (const ApiError& error) {
                readingError = error;
            }
        }
        const std::lock_guard guard(shared->mutex);
        shared->reading = std::move(reading);
        shared->readingError = std::move(readingError);
        shared->readingPending = false;
        shared->changed.notify_all();
    });
    const auto ended = [this] { return shared->stopping || !shared->readingPending; };
    if (!shared->changed.wait_for(lock, options.readingTimeout, ended)) {
        ReportUnreachable({"no reply in time", ApiError::Kind::Temporary});
        shared->changed.wait(lock, ended);
    }
    if (shared->stopping) {
        return std::nullopt;
    }
    if (shared->readingError) {
        ReportUnreachable(*shared->readingError);
    } else {
        shared->failure.reset();
    }
    return std::exchange(shared->reading, std::nullopt);
}

bool Collector::Publish(std::shared_ptr<const Inventory> inventory) {
    auto withoutVms = WithoutVms(*inventory);
    const std::lock_guard lock(shared->mutex);
    shared->newest = std::move(inventory);
    shared->published = true;
    shared->newestWithoutVms = std::move(withoutVms);
    return std::exchange(shared->unreachableSince, std::nullopt).has_value();
}

void Collector::ReportUnreachable(const ApiError& failure) {
    if (!shared->unreachableSince) {
        if (shared->published) {
            spdlog::warn("The host's libvirt cannot be reached: {}; the last inventory serves for {} s",
                         failure.what(),
                         std::chrono::duration_cast<std::chrono::seconds>(options.keep).count());
        } else {
            spdlog::warn("The host's libvirt cannot be reached: {}; there is no inventory until it can",
                         failure.what());
        }
        shared->unreachableSince = options.now();
    }
    shared->failure = failure;
    shared->attempted = true;
    shared->changed.notify_all();
}

}  // namespace Vessad::Libvirt
