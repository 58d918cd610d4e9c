// Makes objects of the management API in one line each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "runtime/hask/api.h"
#include "tests/support/fake_host.h"

namespace ApiObjects {

using Tessim::Ref;
using PowerState = Hask::VirtualMachine::PowerState;
namespace Device = Hask::Vm::Device;

template <class T>
Ref<Ordane::DataArray<T>> Array(const std::vector<Ref<T>>& elements = {}) {
    auto array = Tessim::MakeRef<Ordane::DataArray<T>>();
    for (const Ref<T>& element : elements) {
        array->Append(element);
    }
    return array;
}

Ref<Ordane::MoRef> Reference(const std::string& type, const std::string& id);
Ref<Hask::Description> Description(const std::string& label, const std::string& summary = "");

using Backing = Ref<Device::VirtualDevice::BackingInfo>;
Backing DeviceBacking(const std::string& name);
Backing FileBacking(const std::string& name, const std::string& datastore = "");
Backing RemoteBacking(const std::string& name);
Backing PipeBacking();

// A device of class T with that key and label; an empty label is no device information.
template <class T>
Ref<T> MakeDevice(std::int32_t key, const std::string& label, const Backing& backing = nullptr) {
    auto device = Tessim::MakeRef<T>();
    device->SetKey(key);
    if (!label.empty()) {
        device->SetDeviceInfo(Description(label, label + " summary"));
    }
    device->SetBacking(backing);
    return device;
}
template <class T>
Ref<T> MakeController(std::int32_t key, std::int32_t bus, const std::string& label = "Controller") {
    auto controller = MakeDevice<T>(key, label);
    controller->SetBusNumber(bus);
    return controller;
}
Ref<Device::VirtualDisk> Disk(const std::string& label, std::int32_t unit, const Backing& backing = nullptr,
                              std::int32_t shares = 0);
Ref<Device::VirtualEthernetCard> Nic(std::int32_t key, const std::string& label,
                                     const std::string& network = "VM Network");
Ref<Device::VirtualCdrom> Cdrom(std::int32_t controllerKey, std::int32_t unit, const Backing& backing,
                                bool connected);
Ref<Device::VirtualFloppy> Floppy(std::int32_t unit, const Backing& backing, bool connected);
Ref<Device::VirtualDevice::ConnectInfo> Connection(bool connected);

Ref<Hask::ResourceAllocationInfo> Allocation(std::int32_t shares);
Ref<Hask::Vm::ConfigInfo> Config(const std::string& name, std::int32_t cpus = 1, std::int32_t memoryMB = 0,
                                 const std::vector<Ref<Device::VirtualDevice>>& devices = {});
Ref<Hask::Vm::RuntimeInfo> Runtime(PowerState state);
Ref<Hask::Vm::GuestInfo> Guest(const std::string& state);
TestSupport::FakeVm Vm(const std::string& id, Ref<Hask::Vm::ConfigInfo> config,
                       PowerState state = PowerState::poweredOn);

Ref<Ordane::DataArray<Hask::Vm::ConfigInfo::DatastoreUrlPair>> UrlPairs(
    const std::vector<std::pair<std::string, std::string>>& pairs);
// A datastore on the cluster file system whose volume lies on these disks.
Ref<Hask::Datastore::Info> DrellDatastore(const std::vector<std::string>& extents);

using Performance = Hask::PerformanceManager;
Ref<Performance::CounterInfo> Counter(std::int32_t key, const std::string& group, const std::string& name,
                                      Performance::RollupType rollup = Performance::RollupType::average);
// The counters that the module reads, with the ids 1 to 10 in the module's order.
Ref<Ordane::DataArray<Performance::CounterInfo>> AllCounters();
Ref<Performance::MetricSeries> Series(std::int32_t counterId, const std::string& instance,
                                      const std::vector<std::int64_t>& samples);
// The statistics of the entity with that id; without one, of no entity.
Ref<Performance::EntityMetric> Metric(const std::optional<std::string>& id,
                                      const std::vector<Ref<Performance::MetricSeries>>& series);

}  // namespace ApiObjects
