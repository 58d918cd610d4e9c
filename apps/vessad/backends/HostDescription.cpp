#include "apps/vessad/backends/HostDescription.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "apps/vessad/backends/DatastoreNames.h"
#include "apps/vessad/backends/YamlReader.h"
#include "runtime/tessim/file_descriptor.h"

namespace Vessad {

namespace {

using Hask::PerformanceManager;
using Yaml::Cursor;

constexpr std::size_t maxFileSize = 64UL * 1024 * 1024;
// Rates beyond this are mistakes, and would leave the range in which products with a time are exact enough.
constexpr double maxRate = 1e18;

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
    value.Attempt([&] { series.start = value.Require("start").Whole(low, high); });
    value.Attempt([&] {
        const Cursor rate = value.Require("perSecond");
        series.perSecond = rate.Number();
        if (std::abs(series.perSecond) > maxRate) {
            rate.Refuse("a rate of at most 10^18");
        }
    });
    return series;
}

// Reads the parts of a description, each as an attempt of its own.
class HostReader {
  public:
    explicit HostReader(const Cursor& host) : host(host) {}

    std::shared_ptr<const Inventory> Read() {
        constexpr std::array<std::string_view, 6> known{"about",      "hardware", "serviceConsole",
                                                        "datastores", "counters", "vms"};
        host.CheckKeys(known);
        ReadMember("about", inventory->about);
        ReadMember("hardware", inventory->hardware);
        ReadMember("serviceConsole", inventory->serviceConsole);
        host.Attempt([&] { ReadDatastores(); });
        host.Attempt([&] { ReadCatalogue(); });
        host.Attempt([&] { ForEachItem(host.Require("vms"), [&](const Cursor& vm) { ReadVm(vm); }); });
        CheckDatastoreNames(host);
        return inventory;
    }

  private:
    template <class T>
    void ReadMember(std::string_view key, Tessim::Ref<T>& member) const {
        host.Attempt([&] { member = Yaml::ReadOptional<T>(host, key); });
    }

    template <class Visit>
    static void ForEachItem(const Cursor& list, const Visit& visit) {
        for (const Cursor& item : list.Items()) {
            item.Attempt([&] { visit(item); });
        }
    }

    void ReadDatastores() {
        const std::optional<Cursor> list = host.Find("datastores");
        if (!list) {
            return;
        }
        ForEachItem(*list, [&](const Cursor& item) {
            auto info = Yaml::Read<Hask::Datastore::Info>(item, {"id"});
            const Cursor id = item.Require("id");
            if (!inventory->datastores.emplace(id.Text(), std::move(info)).second) {
                id.Refuse("an id that no other datastore has");
            }
        });
    }

    void ReadCatalogue() {
        const std::size_t mistakes = host.GetMistakes().GetCount();
        if (const std::optional<Cursor> list = host.Find("counters")) {
            std::set<std::int32_t> used;
            ForEachItem(*list, [&](const Cursor& item) { ReadCounter(item, used); });
        } else {
            inventory->counters = StandardCounters();
        }
        keys = KeysOf(inventory->counters);
        std::set<std::string_view> names;
        for (const auto& [name, key] : keys) {
            names.insert(name);
        }
        expectedCounter = "a counter of the catalogue" + Yaml::Choice(names);
        isCatalogueComplete = host.GetMistakes().GetCount() == mistakes;
    }

    void ReadCounter(const Cursor& item, std::set<std::int32_t>& used) const {
        constexpr std::array<std::string_view, 4> known{"key", "group", "name", "rollup"};
        item.CheckKeys(known);
        std::int32_t key = 0;
        item.Attempt([&] {
            const Cursor keyAt = item.Require("key");
            key = static_cast<std::int32_t>(keyAt.Whole(0, std::numeric_limits<std::int32_t>::max()));
            if (!used.insert(key).second) {
                keyAt.Refuse("a key that no other counter has");
            }
        });
        auto rollup = PerformanceManager::RollupType::average;
        item.Attempt([&] {
            if (const std::optional<Cursor> given = item.Find("rollup")) {
                rollup = static_cast<PerformanceManager::RollupType>(
                    Yaml::ReadEnum(*given, *Ordane::GetEnumType<PerformanceManager::RollupType>()));
            }
        });
        std::string group;
        item.Attempt([&] { group = item.Require("group").Text(); });
        std::string name;
        item.Attempt([&] { name = item.Require("name").Text(); });
        inventory->counters.push_back(MakeCounter(key, group, name, rollup));
    }

    void ReadVm(const Cursor& item) {
        constexpr std::array<std::string_view, 5> known{"id", "config", "runtime", "guest", "stats"};
        item.CheckKeys(known);
        auto vm = std::make_shared<Vm>();
        bool hasId = false;
        item.Attempt([&] {
            vm->id = item.Require("id").Text();
            hasId = true;
        });
        item.Attempt([&] {
            const Cursor config = item.Require("config");
            if (!config.IsNull()) {
                vm->config = Yaml::Read<Hask::Vm::ConfigInfo>(config);
            }
        });
        item.Attempt([&] { vm->runtime = Yaml::ReadOptional<Hask::Vm::RuntimeInfo>(item, "runtime"); });
        item.Attempt([&] { vm->guest = Yaml::ReadOptional<Hask::Vm::GuestInfo>(item, "guest"); });
        item.Attempt([&] { ReadStats(item, vm->series); });
        if (hasId && !inventory->Add(std::move(vm))) {
            item.Require("id").Refuse("an id that no other VM has");
        }
    }

    void ReadStats(const Cursor& vm, std::vector<Series>& all) const {
        const std::optional<Cursor> stats = vm.Find("stats");
        if (!stats) {
            return;
        }
        stats->ForEachMember([&](const std::string& name, const Cursor& instances) {
            const auto found = keys.find(name);
            if (found == keys.end() && isCatalogueComplete) {
                stats->Attempt([&] { stats->RefuseKey(name, expectedCounter); });
            }
            const std::int32_t key = found == keys.end() ? 0 : found->second;
            instances.ForEachMember([&](const std::string& instance, const Cursor& value) {
                all.push_back(ReadSeries(value, key, instance));
            });
        });
    }

    const Cursor host;
    const std::shared_ptr<Inventory> inventory = std::make_shared<Inventory>();
    CounterKeys keys;
    bool isCatalogueComplete = false;
    std::string expectedCounter;  // for messages
};

[[noreturn]] void FailToRead(const std::filesystem::path& file, const std::string& why) {
    throw std::runtime_error(file.string() + ": cannot read it: " + why);
}

}  // namespace

std::shared_ptr<const Inventory> ReadHost(std::string_view text, const std::string& name,
                                          Yaml::Mistakes& mistakes) {
    auto inventory = std::make_shared<const Inventory>();
    mistakes.Attempt([&] {
        const Yaml::Document document(text, name);
        inventory = HostReader(Cursor(document, mistakes)).Read();
    });
    return inventory;
}

std::shared_ptr<const Inventory> ReadHost(std::string_view text, const std::string& name) {
    Yaml::Mistakes mistakes(Yaml::Mistakes::Policy::Throw);
    return ReadHost(text, name, mistakes);
}

std::string ReadHostFile(const std::filesystem::path& file) {
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

}  // namespace Vessad
