#include "apps/vessad/backends/Backend.h"

#include <array>
#include <string_view>
#include <utility>

namespace Vessad {

using CounterInfo = Hask::PerformanceManager::CounterInfo;
using RollupType = Hask::PerformanceManager::RollupType;

bool Inventory::Add(std::shared_ptr<const Vm> vm) {
    if (!vmsById.emplace(vm->id, vm).second) {
        return false;
    }
    vms.push_back(std::move(vm));
    return true;
}

Tessim::Ref<CounterInfo> MakeCounter(std::int32_t key, const std::string& group, const std::string& name,
                                     RollupType rollup) {
    const auto describe = [](const std::string& text) {
        auto description = Tessim::MakeRef<Hask::ElementDescription>();
        description->SetKey(text);
        description->SetLabel(text);
        description->SetSummary(text);
        return description;
    };
    auto counter = Tessim::MakeRef<CounterInfo>();
    counter->SetKey(key);
    counter->SetGroupInfo(describe(group));
    counter->SetNameInfo(describe(name));
    counter->SetRollupType(rollup);
    return counter;
}

std::vector<Tessim::Ref<CounterInfo>> StandardCounters() {
    struct Entry {
        const char* group;
        const char* name;
        RollupType rollup;
    };
    constexpr std::array<Entry, 10> entries{{
        {"disk", "numberRead", RollupType::summation},
        {"disk", "numberWrite", RollupType::summation},
        {"disk", "read", RollupType::summation},
        {"disk", "write", RollupType::summation},
        {"net", "received", RollupType::summation},
        {"net", "transmitted", RollupType::summation},
        {"net", "packetsTx", RollupType::summation},
        {"net", "packetsRx", RollupType::summation},
        {"mem", "active", RollupType::latest},
        {"cpu", "used", RollupType::summation},
    }};
    std::vector<Tessim::Ref<CounterInfo>> counters;
    counters.reserve(entries.size());
    std::int32_t key = 0;
    for (const Entry& entry : entries) {
        counters.push_back(MakeCounter(++key, entry.group, entry.name, entry.rollup));
    }
    return counters;
}

}  // namespace Vessad
