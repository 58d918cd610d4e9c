#include "apps/vessad/backends/libvirt/InventoryBuilder.h"

#include <cstdint>
#include <utility>

#include "apps/vessad/backends/libvirt/SeriesBuilder.h"
#include "apps/vessad/backends/libvirt/Text.h"

namespace Vessad::Libvirt {
namespace {

using Tessim::MakeRef;

std::string VersionText(unsigned long version) {
    constexpr unsigned long thousand = 1000;
    return std::to_string(version / thousand / thousand) + "." +
           std::to_string(version / thousand % thousand) + "." + std::to_string(version % thousand);
}

void DescribeHost(const Host& host, Inventory& inventory) {
    auto about = MakeRef<Hask::AboutInfo>();
    about->SetName(WireText(host.driver));
    about->SetVersion(VersionText(host.version));
    about->SetBuild(VersionText(host.libvirtVersion));
    inventory.about = about;

    auto cpu = MakeRef<Hask::Host::CpuInfo>();
    cpu->SetNumCpuCores(host.cores);
    auto hardware = MakeRef<Hask::Host::HardwareInfo>();
    hardware->SetCpuInfo(cpu);
    inventory.hardware = hardware;

    // libvirt reserves nothing for the host itself.
    constexpr std::uint64_t bytesPerKib = 1024;
    auto memory = MakeRef<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo>();
    memory->SetServiceConsoleReserved(0);
    memory->SetUnreserved(static_cast<std::int64_t>(host.memoryKiB * bytesPerKib));
    inventory.serviceConsole = memory;
}

std::shared_ptr<Vm> MakeVm(const DescribedDomain& domain, std::int32_t id) {
    auto runtime = MakeRef<Hask::Vm::RuntimeInfo>();
    runtime->SetPowerState(PowerStateOf(domain.state, domain.active));
    auto guest = MakeRef<Hask::Vm::GuestInfo>();
    guest->SetGuestState(GuestStateOf(domain.state, domain.active));
    auto vm = std::make_shared<Vm>();
    vm->id = std::to_string(id);
    vm->runtime = runtime;
    vm->guest = guest;
    if (domain.description) {
        vm->config = domain.description->config;
    }
    return vm;
}

}  // namespace

Hask::VirtualMachine::PowerState PowerStateOf(DomainState state, bool active) {
    using PowerState = Hask::VirtualMachine::PowerState;
    switch (state) {
        case DomainState::Running:
        case DomainState::Blocked:
        case DomainState::ShuttingDown:
            return PowerState::poweredOn;
        case DomainState::Paused:
        case DomainState::PmSuspended:
            return PowerState::suspended;
        case DomainState::ShutOff:
        case DomainState::Crashed:
            return PowerState::poweredOff;
        case DomainState::None:
            break;
    }
    return active ? PowerState::poweredOn : PowerState::poweredOff;
}

std::string GuestStateOf(DomainState state, bool active) {
    switch (state) {
        case DomainState::Running:
        case DomainState::Blocked:
            return "running";
        case DomainState::ShuttingDown:
            return "shuttingDown";
        case DomainState::PmSuspended:
            return "standby";
        case DomainState::Paused:
        case DomainState::ShutOff:
        case DomainState::Crashed:
            return "notRunning";
        case DomainState::None:
            break;
    }
    return active ? "unknown" : "notRunning";
}

std::shared_ptr<const Inventory> UnknownHost() {
    auto inventory = std::make_shared<Inventory>();
    inventory->counters = StandardCounters();
    return inventory;
}

std::shared_ptr<const Inventory> WithoutVms(const Inventory& inventory) {
    auto empty = std::make_shared<Inventory>();
    empty->about = inventory.about;
    empty->hardware = inventory.hardware;
    empty->serviceConsole = inventory.serviceConsole;
    empty->counters = inventory.counters;
    return empty;
}

std::shared_ptr<const Inventory> BuildInventory(const HostReading& reading, const VmIds& vmIds,
                                                const std::map<std::string, Statistics>& samples,
                                                const Inventory& before) {
    auto inventory = std::make_shared<Inventory>();
    DescribeHost(reading.host, *inventory);
    inventory->counters = StandardCounters();
    const CounterKeys keys = KeysOf(inventory->counters);

    std::map<std::int32_t, std::shared_ptr<Vm>> byId;
    for (const DescribedDomain& domain : reading.domains) {
        const std::int32_t id = vmIds.Find(domain.uuid);
        if (id == 0) {
            continue;
        }
        auto vm = MakeVm(domain, id);
        if (domain.description) {
            if (const auto found = samples.find(domain.uuid); found != samples.end()) {
                vm->series = BuildSeries(found->second, *domain.description, keys);
            }
            inventory->datastores.insert(domain.description->datastores.begin(),
                                         domain.description->datastores.end());
        }
        byId.emplace(id, std::move(vm));
    }
    for (auto& [id, vm] : byId) {
        inventory->Add(std::move(vm));
    }
    for (const auto& vm : before.vms) {
        inventory->vmsById.emplace(vm->id, vm);
    }
    return inventory;
}

}  // namespace Vessad::Libvirt
