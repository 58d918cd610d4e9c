// Keeps the newest inventory of a libvirt host.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "apps/vessad/backends/Backend.h"
#include "apps/vessad/backends/libvirt/ConnectionThread.h"
#include "apps/vessad/backends/libvirt/HostReader.h"
#include "apps/vessad/backends/libvirt/SampleWorkers.h"
#include "apps/vessad/backends/libvirt/VmIds.h"

namespace Vessad::Libvirt {

struct CollectorOptions {
    std::chrono::milliseconds interval{
        5000};  // from the end of a collection to the next, however long it took
    SampleWorkers::Timeouts sampling;
    std::chrono::milliseconds poolTimeout{1000};       // for the storage pools; then the last ones serve
    std::chrono::milliseconds firstPoolTimeout{5000};  // while there are no last ones
    std::chrono::milliseconds readingTimeout{10000};   // for the domains; then the host counts as unreachable
    std::chrono::milliseconds keep{60000};      // how long the last inventory of an unreachable host serves
    std::chrono::milliseconds progress{30000};  // how long the collector's thread may take for a step
    std::vector<std::filesystem::path> osinfoDirectories = OsinfoDirectories();
    // The clock of all these times but `sampling` and `progress`. Thread-safe.
    std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;
};

// Collects in a thread of its own, which never calls the host itself: every call is made in a thread that may
// be abandoned. All operations may be called from any thread; none waits for the host but WaitForFirst.
class Collector {
  public:
    Collector(const std::shared_ptr<Api>& api, const std::string& uri, VmIds vmIds, CollectorOptions options);
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;
    ~Collector();

    // Returns the newest inventory, without VMs when the host has been unreachable for longer than `keep`.
    // Never null.
    std::shared_ptr<const Inventory> Get();

    // The status of the host, without the name of the source.
    SourceStatus GetStatus();

    // Starts the next collection now, or as soon as the running one ends. It, or the first one after it that
    // reaches the host, describes every VM anew, with the names that the osinfo database has by then.
    void CollectNow();

    // Returns whether the collector's thread has run within the time that `options.progress` is.
    bool IsMakingProgress() const;

    // Waits until the first collection has ended or `timeout` is over; returns why the latest one failed, if
    // it did.
    std::optional<ApiError> WaitForFirst(std::chrono::milliseconds timeout);

  private:
    struct Shared;

    void Run();
    void TryToCollect();
    void Collect();
    void FetchPools();
    // Waits for pools that were late for the first inventory; returns whether they have come now.
    bool HaveFirstPoolsCome();
    // Returns nothing when the host cannot be reached or the collector is ending.
    std::optional<HostReading> FetchReading();
    // Returns whether the host was unreachable until now.
    bool Publish(std::shared_ptr<const Inventory> inventory);
    // Returns whether the host was reachable until now. To be called with the shared mutex held.
    bool MarkUnreachable();
    // `lock` holds the shared mutex, which is unlocked while the log is written.
    void ReportFailure(std::unique_lock<std::mutex>& lock, const char* what, const ApiError& failure);

    const CollectorOptions options;
    const std::shared_ptr<Shared> shared;
    VmIds vmIds;
    std::shared_ptr<HostReader> reader;
    ConnectionThread poolThread;
    ConnectionThread readingThread;
    SampleWorkers workers;
    bool poolsKnown = false;
    bool poolsLate = false;  // and the log says so
    std::thread thread;
};

}  // namespace Vessad::Libvirt
