// Domain XML, its description and inventories as text, for tests.
#pragma once

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "apps/vessad/backends/Backend.h"
#include "apps/vessad/backends/libvirt/DomainXml.h"

namespace Vessad::Libvirt {

inline const std::string uuidA = "00000000-0000-4000-8000-00000000000a";
inline const std::string uuidB = "00000000-0000-4000-8000-00000000000b";
inline const std::string uuidC = "00000000-0000-4000-8000-00000000000c";

// A domain's XML around `devices` and other `elements`.
inline std::string DomainXmlWith(const std::string& devices, const std::string& elements = "") {
    return "<domain type='kvm'><name>web-1</name><memory unit='KiB'>524288</memory><vcpu>2</vcpu>"
           "<os><type arch='x86_64'>hvm</type></os>" +
           elements + "<devices>" + devices + "</devices></domain>";
}

// Describes domains on a host of two file systems: /dev/sda1, with the pool "default" in /pool, and an NFS
// server's on /nfs. It has the volumes "pool/block" and "pool/file".
struct Describer {
    DomainDescription operator()(const std::string& xml) {
        const auto findVolume = [](const std::string& pool,
                                   const std::string& name) -> std::optional<Volume> {
            if (pool + "/" + name == "pool/block") {
                return Volume{"/dev/vg/block", true};
            }
            return pool + "/" + name == "pool/file" ? std::optional(Volume{"/pool/file.img", false})
                                                    : std::nullopt;
        };
        return DescribeDomain(
            xml, {storage, guestNames, findVolume, [this] { return schedulerShares; }, configFile});
    }

    Storage storage{{{{"/dev/sda1", "/", "ext4"}, {"server:/x", "/nfs", "nfs4"}}},
                    {{"default", "dir", "/pool", ""}}};
    GuestNames guestNames{{}};
    std::optional<int> schedulerShares;
    std::optional<std::string> configFile;
};

// One line per device, "TYPE KEY | LABEL | SUMMARY" without the "Virtual" that types start with, and after
// further bars what the device has of: its bus number, its place "CONTROLLER:UNIT", its MAC address, its
// backing, its shares, whether it is connected.
inline std::vector<std::string> DeviceLines(const Hask::Vm::ConfigInfo& config) {
    namespace Device = Hask::Vm::Device;
    std::vector<std::string> lines;
    for (const auto& device : *config.GetHardware()->GetDevice()) {
        std::ostringstream line;
        const std::string type(device->GetDataObjectType()->name);
        line << type.substr(type.starts_with("Virtual") ? 7 : 0) << ' ' << device->GetKey() << " | "
             << device->GetDeviceInfo()->GetLabel() << " | " << device->GetDeviceInfo()->GetSummary();
        if (const auto* controller = Tessim::NarrowToType<Device::VirtualController>(device)) {
            line << " | bus " << controller->GetBusNumber();
        }
        if (const auto unit = device->GetUnitNumber()) {
            const auto controller = device->GetControllerKey();
            line << " | " << (controller ? std::to_string(*controller) : "none") << ':' << *unit;
        }
        if (const auto* card = Tessim::NarrowToType<Device::VirtualEthernetCard>(device)) {
            line << " | MAC " << card->GetMacAddress().value_or("none");
        }
        auto* const backing = device->GetBacking();
        if (const auto* named = Tessim::NarrowToType<Device::VirtualDevice::DeviceBackingInfo>(backing)) {
            line << " | device " << named->GetDeviceName();
        } else if (const auto* file = Tessim::NarrowToType<Device::VirtualDevice::FileBackingInfo>(backing)) {
            const auto* const datastore = file->GetDatastore();
            line << " | " << datastore->GetId() << ' ' << file->GetFileName()
                 << (datastore->GetType() == "Datastore" ? "" : " of the type " + datastore->GetType());
        }
        if (const auto* disk = Tessim::NarrowToType<Device::VirtualDisk>(device)) {
            line << " | " << disk->GetShares()->GetShares() << " shares";
        }
        if (const auto* connection = device->GetConnectable()) {
            line << (connection->IsConnected() ? " | connected" : " | disconnected");
        }
        lines.push_back(line.str());
    }
    return lines;
}

// "NAME | CPUS, SHARES | MEMORY, SHARES | GUEST | FILE".
inline std::string ConfigLine(const Hask::Vm::ConfigInfo& config) {
    std::ostringstream line;
    line << config.GetName() << " | " << config.GetHardware()->GetNumCPU() << " CPUs, "
         << config.GetCpuAllocation()->GetShares()->GetShares() << " shares | "
         << config.GetHardware()->GetMemoryMB() << " MB, "
         << config.GetMemoryAllocation()->GetShares()->GetShares() << " shares | "
         << config.GetGuestFullName() << " | " << config.GetFiles()->GetVmPathName().value_or("no file");
    return line.str();
}

// "GROUP.COUNTER INSTANCE=VALUE" for each series, in order and separated by commas.
inline std::string SeriesText(const std::vector<Series>& series) {
    std::vector<std::string> texts;
    for (const auto& [name, key] : KeysOf(StandardCounters())) {
        for (const Series& each : series) {
            if (each.counterKey == key) {
                texts.push_back(name + " " + each.instance + "=" + std::to_string(each.start) +
                                (each.perSecond == 0 ? "" : " and rises"));
            }
        }
    }
    std::sort(texts.begin(), texts.end());
    std::string joined;
    for (const std::string& text : texts) {
        joined += (joined.empty() ? "" : ", ") + text;
    }
    return joined;
}

// One line per VM, "ID NAME POWER GUEST SERIES".
inline std::vector<std::string> VmLines(const Inventory& inventory) {
    const auto* const powerStates = Ordane::GetEnumType<Hask::VirtualMachine::PowerState>();
    std::vector<std::string> lines;
    for (const auto& vm : inventory.vms) {
        std::ostringstream line;
        line << vm->id << ' ' << (vm->config ? vm->config->GetName() : "unconfigured") << ' '
             << powerStates->GetText(static_cast<int>(vm->runtime->GetPowerState())) << ' '
             << vm->guest->GetGuestState() << (vm->series.empty() ? "" : " ") << SeriesText(vm->series);
        lines.push_back(line.str());
    }
    return lines;
}

// "DRIVER VERSION, libvirt VERSION, CORES cores, BYTES bytes, RESERVED reserved, COUNTERS counters".
inline std::string HostLine(const Inventory& inventory) {
    std::ostringstream line;
    line << inventory.about->GetName() << ' ' << inventory.about->GetVersion() << ", libvirt "
         << inventory.about->GetBuild() << ", " << inventory.hardware->GetCpuInfo()->GetNumCpuCores()
         << " cores, " << inventory.serviceConsole->GetUnreserved() << " bytes, "
         << inventory.serviceConsole->GetServiceConsoleReserved() << " reserved, "
         << inventory.counters.size() << " counters";
    return line.str();
}

}  // namespace Vessad::Libvirt
