#include "tests/support/api_objects.h"

#include <utility>

#include "runtime/hask/performance_counters.h"

namespace ApiObjects {

using Tessim::MakeRef;

Ref<Ordane::MoRef> Reference(const std::string& type, const std::string& id) {
    return MakeRef<Ordane::MoRef>(type, id);
}

Ref<Hask::Description> Description(const std::string& label, const std::string& summary) {
    auto description = MakeRef<Hask::Description>();
    description->SetLabel(label);
    description->SetSummary(summary);
    return description;
}

Backing DeviceBacking(const std::string& name) {
    auto backing = MakeRef<Device::VirtualDevice::DeviceBackingInfo>();
    backing->SetDeviceName(name);
    return backing;
}

Backing FileBacking(const std::string& name, const std::string& datastore) {
    auto backing = MakeRef<Device::VirtualDevice::FileBackingInfo>();
    backing->SetFileName(name);
    if (!datastore.empty()) {
        backing->SetDatastore(Reference("Datastore", datastore));
    }
    return backing;
}

Backing RemoteBacking(const std::string& name) {
    auto backing = MakeRef<Device::VirtualDevice::RemoteDeviceBackingInfo>();
    backing->SetDeviceName(name);
    return backing;
}

Backing PipeBacking() {
    return MakeRef<Device::VirtualDevice::PipeBackingInfo>();
}

Ref<Device::VirtualDisk> Disk(const std::string& label, std::int32_t unit, const Backing& backing,
                              std::int32_t shares) {
    auto disk = MakeDevice<Device::VirtualDisk>(2000 + unit, label, backing);
    disk->SetUnitNumber(unit);
    auto info = MakeRef<Hask::SharesInfo>();
    info->SetShares(shares);
    disk->SetShares(info);
    return disk;
}

Ref<Device::VirtualEthernetCard> Nic(std::int32_t key, const std::string& label, const std::string& network) {
    return MakeDevice<Device::VirtualEthernetCard>(key, label, DeviceBacking(network));
}

Ref<Device::VirtualDevice::ConnectInfo> Connection(bool connected) {
    auto info = MakeRef<Device::VirtualDevice::ConnectInfo>();
    info->SetConnected(connected);
    return info;
}

Ref<Device::VirtualCdrom> Cdrom(std::int32_t controllerKey, std::int32_t unit, const Backing& backing,
                                bool connected) {
    auto cdrom = MakeDevice<Device::VirtualCdrom>(3000, "CD", backing);
    cdrom->SetControllerKey(controllerKey);
    cdrom->SetUnitNumber(unit);
    cdrom->SetConnectable(Connection(connected));
    return cdrom;
}

Ref<Device::VirtualFloppy> Floppy(std::int32_t unit, const Backing& backing, bool connected) {
    auto floppy = MakeDevice<Device::VirtualFloppy>(8000, "Floppy", backing);
    floppy->SetUnitNumber(unit);
    floppy->SetConnectable(Connection(connected));
    return floppy;
}

Ref<Hask::ResourceAllocationInfo> Allocation(std::int32_t shares) {
    auto info = MakeRef<Hask::SharesInfo>();
    info->SetShares(shares);
    auto allocation = MakeRef<Hask::ResourceAllocationInfo>();
    allocation->SetShares(info);
    return allocation;
}

Ref<Hask::Vm::ConfigInfo> Config(const std::string& name, std::int32_t cpus, std::int32_t memoryMB,
                                 const std::vector<Ref<Device::VirtualDevice>>& devices) {
    auto hardware = MakeRef<Hask::Vm::VirtualHardware>();
    hardware->SetNumCPU(cpus);
    hardware->SetMemoryMB(memoryMB);
    hardware->SetDevice(Array(devices));
    auto config = MakeRef<Hask::Vm::ConfigInfo>();
    config->SetName(name);
    config->SetGuestFullName("Guest of " + name);
    config->SetHardware(hardware);
    return config;
}

Ref<Hask::Vm::RuntimeInfo> Runtime(PowerState state) {
    auto runtime = MakeRef<Hask::Vm::RuntimeInfo>();
    runtime->SetPowerState(state);
    return runtime;
}

Ref<Hask::Vm::GuestInfo> Guest(const std::string& state) {
    auto guest = MakeRef<Hask::Vm::GuestInfo>();
    guest->SetGuestState(state);
    return guest;
}

TestSupport::FakeVm Vm(const std::string& id, Ref<Hask::Vm::ConfigInfo> config, PowerState state) {
    return {id, std::move(config), Runtime(state), Guest("running")};
}

Ref<Ordane::DataArray<Hask::Vm::ConfigInfo::DatastoreUrlPair>> UrlPairs(
    const std::vector<std::pair<std::string, std::string>>& pairs) {
    auto array = Array<Hask::Vm::ConfigInfo::DatastoreUrlPair>();
    for (const auto& [name, url] : pairs) {
        auto pair = MakeRef<Hask::Vm::ConfigInfo::DatastoreUrlPair>();
        pair->SetName(name);
        pair->SetUrl(url);
        array->Append(pair);
    }
    return array;
}

Ref<Hask::Datastore::Info> DrellDatastore(const std::vector<std::string>& extents) {
    auto partitions = Array<Hask::Host::ScsiDisk::Partition>();
    for (const std::string& name : extents) {
        auto partition = MakeRef<Hask::Host::ScsiDisk::Partition>();
        partition->SetDiskName(name);
        partitions->Append(partition);
    }
    auto volume = MakeRef<Hask::Host::DrellVolume>();
    volume->SetExtent(partitions);
    auto info = MakeRef<Hask::Host::DrellDatastoreInfo>();
    info->SetDrell(volume);
    return info;
}

Ref<Performance::CounterInfo> Counter(std::int32_t key, const std::string& group, const std::string& name,
                                      Performance::RollupType rollup) {
    const auto describe = [](const std::string& keyText) {
        auto description = MakeRef<Hask::ElementDescription>();
        description->SetKey(keyText);
        return description;
    };
    auto counter = MakeRef<Performance::CounterInfo>();
    counter->SetKey(key);
    counter->SetGroupInfo(describe(group));
    counter->SetNameInfo(describe(name));
    counter->SetRollupType(rollup);
    return counter;
}

Ref<Ordane::DataArray<Performance::CounterInfo>> AllCounters() {
    auto counters = Array<Performance::CounterInfo>();
    std::int32_t key = 0;
    for (const Hask::Counters::Counter& counter : Hask::Counters::standard) {
        counters->Append(Counter(++key, counter.group, counter.name));
    }
    return counters;
}

Ref<Performance::MetricSeries> Series(std::int32_t counterId, const std::string& instance,
                                      const std::vector<std::int64_t>& samples) {
    auto id = MakeRef<Performance::MetricId>();
    id->SetCounterId(counterId);
    id->SetInstance(instance);
    auto series = MakeRef<Performance::IntSeries>();
    series->SetId(id);
    series->SetValue(samples);
    return series;
}

Ref<Performance::EntityMetric> Metric(const std::optional<std::string>& id,
                                      const std::vector<Ref<Performance::MetricSeries>>& series) {
    auto metric = MakeRef<Performance::EntityMetric>();
    if (id) {
        metric->SetEntity(Reference("VirtualMachine", *id));
    }
    metric->SetValue(Array(series));
    return metric;
}

}  // namespace ApiObjects
