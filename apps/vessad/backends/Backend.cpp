#include "apps/vessad/backends/Backend.h"

#include <utility>

#include "runtime/hask/performance_counters.h"

namespace Vessad {

using CounterInfo = Hask::PerformanceManager::CounterInfo;
using RollupType = Hask::PerformanceManager::RollupType;

std::shared_ptr<const Vm> Inventory::FindVm(const Ordane::MoRef& reference) const {
    if (reference.GetType() != Hask::VirtualMachine::staticType.name) {
        return nullptr;
    }
    const auto found = vmsById.find(reference.GetId());
    return found == vmsById.end() ? nullptr : found->second;
}

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
    std::vector<Tessim::Ref<CounterInfo>> counters;
    counters.reserve(Hask::Counters::standard.size());
    std::int32_t key = 0;
    for (const auto& [group, name, rollup] : Hask::Counters::standard) {
        counters.push_back(MakeCounter(++key, group, name, rollup));
    }
    return counters;
}

CounterKeys KeysOf(const std::vector<Tessim::Ref<CounterInfo>>& catalogue) {
    CounterKeys keys;
    for (const auto& counter : catalogue) {
        keys.emplace(
            Hask::Counters::FullName(counter->GetGroupInfo()->GetKey(), counter->GetNameInfo()->GetKey()),
            counter->GetKey());
    }
    return keys;
}

}  // namespace Vessad
