// Keeps the newest inventory of a libvirt host.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "apps/vessad/backends/Backend.h"
#include "apps/vessad/backends/libvirt/ConnectionThread.h"
#include "apps/vessad/backends/libvirt/FigureWorkers.h"
#include "apps/vessad/backends/libvirt/HostReader.h"
#include "apps/vessad/backends/libvirt/Identities.h"

namespace Vessad::Libvirt {

struct CollectorOptions {
    std::chrono::milliseconds interval{5000};       // between the starts of two collections
    FigureWorkers::Waits figures;                   // for a machine's figures
    std::chrono::milliseconds poolWait{1000};       // for the storage pools; the last ones serve meanwhile
    std::chrono::milliseconds firstPoolWait{5000};  // for the first time, when there are none
    std::chrono::milliseconds readingWait{10000};   // for the domains, before the host counts as silent
    std::chrono::milliseconds keep{60000};          // for how long a silent host's last inventory serves
    std::vector<std::filesystem::path> osinfoDirectories = OsinfoDirectories();
};

// Collects in a thread of its own, which never calls the host itself: every call is made in a thread that may
// be left waiting. All operations may be called from any thread and never wait for the host.
class Collector {
  public:
    Collector(const std::shared_ptr<Api>& api, const std::string& uri, Identities identities,
              CollectorOptions options);
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;
    ~Collector();

    // The newest inventory; without machines when the host has been silent for too long. Never null.
    std::shared_ptr<const Inventory> Get();

    // Begins the next collection now.
    void Wake();

    // Waits until the first collection has ended or the time is up; answers why it failed, if it did.
    std::optional<ApiError> WaitForFirst(std::chrono::milliseconds longest);

  private:
    struct Shared;

    void Run();
    void Collect();
    void FetchPools();
    std::optional<HostReading> FetchReading();
    // Whether the host was silent until now.
    bool Publish(std::shared_ptr<const Inventory> inventory);
    // Takes in that the host is silent; with the shared mutex held.
    void Lose(const ApiError& failure);

    const CollectorOptions options;
    const std::shared_ptr<Shared> shared;
    Identities identities;
    std::shared_ptr<HostReader> reader;
    ConnectionThread poolThread;
    ConnectionThread readingThread;
    FigureWorkers workers;
    bool poolsKnown = false;
    bool poolsLate = false;  // as the log says
    std::thread thread;
};

}  // namespace Vessad::Libvirt
