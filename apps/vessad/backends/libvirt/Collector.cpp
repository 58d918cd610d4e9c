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

// The collector rests at least this many times as long as it works.
constexpr int restPerWork = 4;

}  // namespace

// What the collector shares with its callers and with tasks, which may outlive it.
struct Collector::Shared {
    std::mutex mutex;
    std::condition_variable changed;

    std::shared_ptr<const Inventory> newest = UnknownHost();
    std::shared_ptr<const Inventory> emptied = newest;
    std::optional<Clock::time_point> lost;  // since when the host is known to be silent

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
    return shared->lost && Clock::now() - *shared->lost > options.keep ? shared->emptied : shared->newest;
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
    std::vector<FigureWorkers::Domain> running;
    for (const DescribedDomain& domain : reading->domains) {
        uuids.push_back(domain.uuid);
        // One that crashed may still have a process, but shows as powered off: it has no figures.
        if (PowerStateOf(domain.state, domain.active) != Hask::VirtualMachine::PowerState::poweredOff) {
            running.push_back({domain.uuid, domain.name});
        }
    }
    identities.Admit(uuids);
    const auto figures = workers.Ask(running);
    if (Publish(BuildInventory(*reading, identities, figures, *Get()))) {
        spdlog::info("libvirt answers again: {} machines", reading->domains.size());
    }
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

// The host as it is now; nothing when it cannot be reached, or at the end. A host that takes long is
// reported, and waited for all the same: the answer of a slow one is worth no less.
std::optional<HostReading> Collector::FetchReading() {
    std::unique_lock lock(shared->mutex);
    shared->readingHost = true;
    readingThread.Post([shared = shared, reader = reader, pools = shared->pools](Connection* connection,
                                                                                 const ApiError* failure) {
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
    const auto ended = [this] { return shared->stopping || !shared->readingHost; };
    if (!shared->changed.wait_for(lock, options.readingWait, ended)) {
        Lose({"it does not answer", false, false});
        shared->changed.wait(lock, ended);
    }
    if (shared->stopping) {
        return std::nullopt;
    }
    if (shared->refusal) {
        Lose(*shared->refusal);
    } else {
        shared->failure.reset();
    }
    return std::exchange(shared->reading, std::nullopt);
}

bool Collector::Publish(std::shared_ptr<const Inventory> inventory) {
    auto empty = WithoutMachines(*inventory);
    const std::lock_guard lock(shared->mutex);
    shared->newest = std::move(inventory);
    shared->emptied = std::move(empty);
    return std::exchange(shared->lost, std::nullopt).has_value();
}

void Collector::Lose(const ApiError& failure) {
    if (!shared->lost) {
        spdlog::warn("libvirt cannot be reached: {}; the last inventory serves for {} seconds",
                     failure.what(), std::chrono::duration_cast<std::chrono::seconds>(options.keep).count());
        shared->lost = Clock::now();
    }
    shared->failure = failure;
    shared->attempted = true;
    shared->changed.notify_all();
}

}  // namespace Vessad::Libvirt
