#include "apps/vessad/backends/DescribedHost.h"

#include <fcntl.h>
#include <malloc.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <limits>
#include <mutex>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "apps/vessad/backends/BuiltInHost.h"
#include "apps/vessad/backends/YamlReader.h"
#include "runtime/tessim/file_descriptor.h"

namespace Vessad {

namespace {

using Hask::PerformanceManager;
using Yaml::Cursor;

constexpr std::size_t maxFileSize = 64UL * 1024 * 1024;
// Rates beyond this are mistakes, and would leave the range in which products with a time are exact enough.
constexpr double maxRate = 1e18;

std::vector<Tessim::Ref<PerformanceManager::CounterInfo>> ReadCounters(const Cursor& host) {
    const std::optional<Cursor> list = host.Find("counters");
    if (!list) {
        return StandardCounters();
    }
    constexpr std::array<std::string_view, 4> known{"key", "group", "name", "rollup"};
    std::vector<Tessim::Ref<PerformanceManager::CounterInfo>> counters;
    std::set<std::int32_t> keys;
    for (const Cursor& item : list->Items()) {
        item.CheckKeys(known);
        const Cursor keyAt = item.Require("key");
        const auto key = static_cast<std::int32_t>(keyAt.Whole(0, std::numeric_limits<std::int32_t>::max()));
        if (!keys.insert(key).second) {
            keyAt.Refuse("a key that no other counter has");
        }
        const std::optional<Cursor> rollup = item.Find("rollup");
        const int value =
            rollup ? Yaml::ReadEnum(*rollup, *Ordane::GetEnumType<PerformanceManager::RollupType>())
                   : static_cast<int>(PerformanceManager::RollupType::average);
        counters.push_back(MakeCounter(key, item.Require("group").Text(), item.Require("name").Text(),
                                       static_cast<PerformanceManager::RollupType>(value)));
    }
    return counters;
}

void ReadDatastores(const Cursor& host, Inventory& inventory) {
    const std::optional<Cursor> list = host.Find("datastores");
    if (!list) {
        return;
    }
    for (const Cursor& item : list->Items()) {
        auto info = Yaml::Read<Hask::Datastore::Info>(item, {"id"});
        const Cursor id = item.Require("id");
        if (!inventory.datastores.emplace(id.Text(), std::move(info)).second) {
            id.Refuse("an id that no other datastore has");
        }
    }
}

Series ReadSeries(const Cursor& value, std::int32_t counterKey, const std::string& instance) {
    constexpr std::int64_t low = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t high = std::numeric_limits<std::int64_t>::max();
    constexpr std::array<std::string_view, 2> known{"start", "perSecond"};
    Series series{counterKey, instance, 0, 0};
    if (!value.IsMap()) {
        series.start = value.Whole(low, high);
        return series;
    }
    value.CheckKeys(known);
    series.start = value.Require("start").Whole(low, high);
    const Cursor rate = value.Require("perSecond");
    series.perSecond = rate.Number();
    if (std::abs(series.perSecond) > maxRate) {
        rate.Refuse("a rate of at most 10^18");
    }
    return series;
}

std::vector<Series> ReadStats(const Cursor& vm, const CounterKeys& keys) {
    std::vector<Series> all;
    const std::optional<Cursor> stats = vm.Find("stats");
    if (!stats) {
        return all;
    }
    stats->ForEachMember([&](const std::string& name, const Cursor& instances) {
        const auto counter = keys.find(name);
        if (counter == keys.end()) {
            stats->RefuseKey(name, "a counter of the catalogue");
        }
        instances.ForEachMember([&](const std::string& instance, const Cursor& value) {
            all.push_back(ReadSeries(value, counter->second, instance));
        });
    });
    return all;
}

std::shared_ptr<const Vm> ReadVm(const Cursor& item, const CounterKeys& keys) {
    constexpr std::array<std::string_view, 5> known{"id", "config", "runtime", "guest", "stats"};
    item.CheckKeys(known);
    auto vm = std::make_shared<Vm>();
    vm->id = item.Require("id").Text();
    const Cursor config = item.Require("config");
    if (!config.IsNull()) {
        vm->config = Yaml::Read<Hask::Vm::ConfigInfo>(config);
    }
    vm->runtime = Yaml::ReadOptional<Hask::Vm::RuntimeInfo>(item, "runtime");
    vm->guest = Yaml::ReadOptional<Hask::Vm::GuestInfo>(item, "guest");
    vm->series = ReadStats(item, keys);
    return vm;
}

[[noreturn]] void FailToRead(const std::filesystem::path& file, const std::string& why) {
    throw std::runtime_error(file.string() + ": cannot read it: " + why);
}

std::string ReadFile(const std::filesystem::path& file) {
    // Does not block on a FIFO or device.
    const Tessim::FileDescriptor descriptor(
        ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!descriptor || ::fstat(descriptor.Get(), &status) != 0) {
        FailToRead(file, std::generic_category().message(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        FailToRead(file, "it is not a regular file");
    }
    std::string text;
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t count = ::read(descriptor.Get(), buffer.data(), buffer.size());
        if (count == 0) {
            return text;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            FailToRead(file, std::generic_category().message(errno));
        }
        text.append(buffer.data(), static_cast<std::size_t>(count));
        if (text.size() > maxFileSize) {
            FailToRead(file, "it is larger than " + std::to_string(maxFileSize) + " bytes");
        }
    }
}

class DescribedHost final : public Backend {
  public:
    explicit DescribedHost(std::filesystem::path given) : file(std::move(given)), newest(ReadNow()) {}

    std::shared_ptr<const Inventory> GetInventory() override {
        const std::lock_guard lock(mutex);
        return newest;
    }

    void Reload() override {
        try {
            std::shared_ptr<const Inventory> read = ReadNow();
            const std::lock_guard lock(mutex);
            newest.swap(read);
        } catch (const std::exception& failure) {
            spdlog::error("Reload failed, keeping the current host description: {}", failure.what());
        }
    }

  private:
    std::shared_ptr<const Inventory> ReadNow() const {
        std::shared_ptr<const Inventory> read = ReadHost(ReadFile(file), file.string());
        // The document took twice the memory of the host that it describes.
        ::malloc_trim(0);
        spdlog::info("Read {}: {} VMs, {} datastores", file.string(), read->vms.size(),
                     read->datastores.size());
        return read;
    }

    const std::filesystem::path file;
    std::mutex mutex;
    std::shared_ptr<const Inventory> newest;
};

class BuiltInHost final : public Backend {
  public:
    std::shared_ptr<const Inventory> GetInventory() override { return inventory; }
    void Reload() override { spdlog::info("Reload has no effect on the built-in sample host"); }

  private:
    const std::shared_ptr<const Inventory> inventory = ReadHost(builtInHost, "built-in host");
};

}  // namespace

std::shared_ptr<const Inventory> ReadHost(std::string_view text, const std::string& name) {
    constexpr std::array<std::string_view, 6> known{"about",      "hardware", "serviceConsole",
                                                    "datastores", "counters", "vms"};
    const Yaml::Document document(text, name);
    const Cursor host(document);
    host.CheckKeys(known);
    auto inventory = std::make_shared<Inventory>();
    inventory->about = Yaml::ReadOptional<Hask::AboutInfo>(host, "about");
    inventory->hardware = Yaml::ReadOptional<Hask::Host::HardwareInfo>(host, "hardware");
    inventory->serviceConsole =
        Yaml::ReadOptional<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo>(host,
                                                                                           "serviceConsole");
    ReadDatastores(host, *inventory);
    inventory->counters = ReadCounters(host);
    const CounterKeys keys = KeysOf(inventory->counters);
    for (const Cursor& item : host.Require("vms").Items()) {
        if (!inventory->Add(ReadVm(item, keys))) {
            item.Require("id").Refuse("an id that no other VM has");
        }
    }
    return inventory;
}

std::unique_ptr<Backend> MakeDescribedHost(std::filesystem::path file) {
    return std::make_unique<DescribedHost>(std::move(file));
}

std::unique_ptr<Backend> MakeBuiltInHost() {
    spdlog::info("Serving the built-in sample host");
    return std::make_unique<BuiltInHost>();
}

}  // namespace Vessad
