#include "apps/vessad/backends/DescribedHost.h"

#include <malloc.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <exception>
#include <mutex>
#include <utility>

#include "apps/vessad/backends/BuiltInHost.h"
#include "apps/vessad/backends/HostDescription.h"

namespace Vessad {

namespace {

using Clock = std::chrono::steady_clock;

std::chrono::seconds SecondsSince(Clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - time);
}

class DescribedHost final : public Backend {
  public:
    explicit DescribedHost(std::filesystem::path given) : file(std::move(given)), newest(ReadNow()) {}

    std::shared_ptr<const Inventory> GetInventory() override {
        const std::lock_guard lock(mutex);
        return newest;
    }

    SourceStatus GetStatus() override {
        const std::lock_guard lock(mutex);
        SourceStatus status{"described host " + file.string(), true, {}, SecondsSince(readAt)};
        if (lastFailure) {
            status.connected = false;
            try {
                std::rethrow_exception(lastFailure);
            } catch (const std::exception& failure) {
                status.lastError = failure.what();
            }
        }
        return status;
    }

    void Reload() override {
        try {
            std::shared_ptr<const Inventory> read = ReadNow();
            const std::lock_guard lock(mutex);
            newest.swap(read);
            lastFailure = nullptr;
            readAt = Clock::now();
        } catch (const std::exception& failure) {
            spdlog::error("Reload failed, keeping the current host description: {}", failure.what());
            const std::lock_guard lock(mutex);
            lastFailure = std::current_exception();
        }
    }

  private:
    std::shared_ptr<const Inventory> ReadNow() const {
        Yaml::Mistakes mistakes(Yaml::Mistakes::Policy::Throw);
        std::shared_ptr<const Inventory> read = ReadHost(ReadHostFile(file), file.string(), mistakes);
        // The document took twice the memory of the host that it describes.
        ::malloc_trim(0);
        for (const std::string& mistake : mistakes.List()) {
            spdlog::warn("Unknown datastore in the host description: {}", mistake);
        }
        spdlog::info("Read {}: {} VMs, {} datastores", file.string(), read->vms.size(),
                     read->datastores.size());
        return read;
    }

    const std::filesystem::path file;
    std::mutex mutex;  // guards all below
    std::shared_ptr<const Inventory> newest;
    Clock::time_point readAt = Clock::now();  // of `newest`
    std::exception_ptr lastFailure;           // of the latest attempt
};

class BuiltInHost final : public Backend {
  public:
    std::shared_ptr<const Inventory> GetInventory() override { return inventory; }
    SourceStatus GetStatus() override { return {"built-in sample host", true, {}, SecondsSince(readAt)}; }
    void Reload() override { spdlog::info("Reload has no effect on the built-in sample host"); }

  private:
    const std::shared_ptr<const Inventory> inventory = ReadHost(builtInHost, "built-in host");
    const Clock::time_point readAt = Clock::now();
};

}  // namespace

std::unique_ptr<Backend> MakeDescribedHost(std::filesystem::path file) {
    return std::make_unique<DescribedHost>(std::move(file));
}

std::unique_ptr<Backend> MakeBuiltInHost() {
    spdlog::info("Serving the built-in sample host");
    return std::make_unique<BuiltInHost>();
}

}  // namespace Vessad
