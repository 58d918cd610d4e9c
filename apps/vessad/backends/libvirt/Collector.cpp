#include "apps/vessad/backends/libvirt/Collector.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "apps/vessad/backends/libvirt/InventoryBuilder.h"
#include "apps/vessad/backends/libvirt/SignalFreeThread.h"

namespace Vessad::Libvirt {
namespace {

using Clock = std::chrono::steady_clock;

// For how long a reading is waited for before the silence is reported.
constexpr std::chrono::seconds readingWait{10};

// The collector rests at least this many times as long as it works.
constexpr int restPerWork = 4;

}  // namespace

// What the collector shares with its callers and with tasks, which may outlive it.
struct Collector::Shared {
    std::mutex mutex;
    std::condition_variable changed;

    std::shared_ptr<const Inventory> newest = UnknownHost();
    std::shared_ptr<const Inventory> emptied = newest;
    Clock::time_point published = Clock::now();

    std::vector<std::string> pools;  // the XML of the active ones, as last heard
    bool askingPools = false;

    bool readingHost = false;
    std::optional<HostReading> reading;  // of the latest task, or
    std::optional<ApiError> refusal;     // why there is none

    std::optional<ApiError> failure;  // of the latest collection
    bool attempted = false;
    bool woken = false;
    bool stopping = false;
};

Collector::Collector(const std::shared_ptr<Api>& api, const std::string& uri, Identities identities,
                     CollectorOptions options)
    : options(std::move(options)),
      shared(std::make_shared<Shared>()),
      identities(std::move(identities)),
      reader(std::make_shared<HostReader>(this->options.osinfoDirectories)),
      poolThread(api, uri),
      readingThread(api, uri),
      workers(api, uri, this->options.figures) {
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
    return Clock::now() - shared->published > options.keep ? shared->emptied : shared->newest;
}

void Collector::Wake() {
    const std::lock_guard lock(shared->mutex);
    shared->woken = true;
    shared->changed.notify_all();
}

std::optional<ApiError> Collector::WaitForFirst(std::chrono::milliseconds longest) {
    std::unique_lock lock(shared->mutex);
    shared->changed.wait_for(lock, longest, [this] { return shared->attempted; });
    return shared->failure;
}

void Collector::Run() {
    std::unique_lock lock(shared->mutex);
    while (!shared->stopping) {
        shared->woken = false;
        lock.unlock();
        const auto begun = Clock::now();
        Collect();
        const auto worked = Clock::now() - begun;
        lock.lock();
        shared->attempted = true;
        shared->changed.notify_all();
        const auto next = begun + std::max<Clock::duration>(options.interval, worked * (1 + restPerWork));
        shared->changed.wait_until(lock, next, [this] { return shared->stopping || shared->woken; });
    }
}

void Collector::Collect() {
    FetchPools();
    const auto reading = FetchReading();
    if (!reading) {
        return;
    }
    std::vector<std::string> uuids;
    std::vector<FigureWorkers::Domain> active;
    for (const DescribedDomain& domain : reading->domains) {
        uuids.push_back(domain.uuid);
        if (domain.active) {
            active.push_back({domain.uuid, domain.name});
        }
    }
    identities.Admit(uuids);
    const auto figures = workers.Ask(active);
    Publish(BuildInventory(*reading, identities, figures, *Get()));
    if (!reachable) {
        spdlog::info("libvirt answers again: {} machines", reading->domains.size());
    }
    reachable = true;
}

// Asks for the pools, and waits for them a little.
void Collector::FetchPools() {
    std::unique_lock lock(shared->mutex);
    if (!shared->askingPools) {
        shared->askingPools = true;
        poolThread.Post([shared = shared](Connection* connection, const ApiError*) {
            std::optional<std::vector<std::string>> pools;
            try {
                if (connection != nullptr) {
                    pools = connection->GetPools();
                }
            } catch (const ApiError& error) {
                spdlog::debug("no storage pools: {}", error.what());
            }
            const std::lock_guard guard(shared->mutex);
            if (pools) {
                shared->pools = std::move(*pools);
            }
            shared->askingPools = false;
            shared->changed.notify_all();
        });
    }
    const auto patience = poolsKnown ? options.poolWait : options.firstPoolWait;
    const auto wait = poolsLate ? std::chrono::milliseconds(0) : patience;
    const bool answered =
        shared->changed.wait_for(lock, wait, [this] { return shared->stopping || !shared->askingPools; });
    if (!answered && !poolsLate) {
        spdlog::warn("the list of storage pools does not come; the last one serves until it does");
    }
    poolsLate = !answered;
    poolsKnown = poolsKnown || answered;
}

// The host as it is now, or nothing when it does not tell; a reading that comes late serves the next call.
std::optional<HostReading> Collector::FetchReading() {
    std::unique_lock lock(shared->mutex);
    if (!shared->readingHost) {
        shared->readingHost = true;
        shared->reading.reset();
        shared->refusal.reset();
        readingThread.Post([shared = shared, reader = reader, pools = shared->pools](
                               Connection* connection, const ApiError* failure) {
            std::optional<HostReading> reading;
            std::optional<ApiError> refusal;
            if (failure != nullptr) {
                refusal = *failure;
            } else {
                try {
                    reading = reader->Read(*connection, pools);
                } catch (const ApiError& error) {
                    refusal = error;
                }
            }
            const std::lock_guard guard(shared->mutex);
            shared->reading = std::move(reading);
            shared->refusal = std::move(refusal);
            shared->readingHost = false;
            shared->changed.notify_all();
        });
    }
    const bool answered = shared->changed.wait_for(
        lock, readingWait, [this] { return shared->stopping || !shared->readingHost; });
    if (shared->stopping) {
        return std::nullopt;
    }
    auto reading = answered ? std::exchange(shared->reading, std::nullopt) : std::nullopt;
    shared->failure.reset();
    if (!answered) {
        shared->failure.emplace("it does not answer", false, false);
    } else if (!reading) {
        shared->failure = shared->refusal;
    }
    const auto failure = shared->failure;
    lock.unlock();
    if (failure) {
        Report(*failure);
    }
    return reading;
}

void Collector::Publish(std::shared_ptr<const Inventory> inventory) {
    auto empty = WithoutMachines(*inventory);
    const std::lock_guard lock(shared->mutex);
    shared->newest = std::move(inventory);
    shared->emptied = std::move(empty);
    shared->published = Clock::now();
}

void Collector::Report(const ApiError& failure) {
    if (reachable) {
        spdlog::warn("libvirt cannot be reached: {}; the last inventory serves for {} seconds",
                     failure.what(), std::chrono::duration_cast<std::chrono::seconds>(options.keep).count());
    }
    reachable = false;
}

}  // namespace Vessad::Libvirt
