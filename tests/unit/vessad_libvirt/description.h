// Domain XML and its description, for tests.
#pragma once

#include <optional>
#include <sstream>
#include <string>
#include <vector>

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

// One line per device, "TYPE KEY | LABEL | SUMMARY", and after further bars what the device has of: its bus
// number, its place "CONTROLLER:UNIT", its MAC address, its backing, whether it is connected.
inline std::vector<std::string> DeviceLines(const Hask::Vm::ConfigInfo& config) {
    namespace Device = Hask::Vm::Device;
    std::vector<std::string> lines;
    for (const auto& device : *config.GetHardware()->GetDevice()) {
        std::ostringstream line;
        line << device->GetDataObjectType()->name << ' ' << device->GetKey() << " | "
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
            line << " | " << file->GetDatastore()->GetType() << ' ' << file->GetDatastore()->GetId() << ' '
                 << file->GetFileName();
        }
        if (const auto* connection = device->GetConnectable()) {
            line << (connection->IsConnected() ? " | connected" : " | disconnected");
        }
        lines.push_back(line.str());
    }
    return lines;
}

}  // namespace Vessad::Libvirt
