#include "apps/vessad/backends/libvirt/Drives.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "apps/vessad/backends/libvirt/Buses.h"
#include "apps/vessad/backends/libvirt/DriveBackings.h"

namespace Vessad::Libvirt {
namespace {

namespace Device = Hask::Vm::Device;
using Tessim::MakeRef;
using Tessim::Ref;

constexpr int firstDiskKey = 2000;
constexpr int firstCdromKey = 3000;
constexpr int firstFloppyKey = 8000;
// The IDE controllers that CD-ROM drives on other buses are shown on, two drives on each.
constexpr int firstExtraIdeKey = 500;
constexpr int firstExtraIdeBus = 50;
constexpr int drivesPerIdeBus = 2;
// The kernel's default for a control group.
constexpr int defaultDiskShares = 100;

std::string TargetOf(pugi::xml_node drive) {
    return drive.child("target").attribute("dev").value();
}

// Returns the number that the letters of a target name stand for: vda 0, vdb 1, … vdz 25, vdaa 26; -1 for
// another name.
int TargetNumber(std::string_view target) {
    constexpr int letters = 26;
    constexpr std::size_t maxLetters = 5;
    target.remove_prefix(
        std::min<std::size_t>(target.starts_with("xvd") || target.starts_with("ubd") ? 3 : 2, target.size()));
    if (target.empty() || target.size() > maxLetters) {
        return -1;
    }
    int number = 0;
    for (const char letter : target) {
        if (letter < 'a' || letter > 'z') {
            return -1;
        }
        number = number * letters + (letter - 'a' + 1);
    }
    return number - 1;
}

// Names of different kinds have separate ranges, because one VM may have hda, sda and vda.
int KeyOf(int firstKey, std::string_view target) {
    constexpr int keysPerPrefix = 100;
    constexpr std::array<std::string_view, 3> prefixes{"sd", "vd", "xvd"};
    int range = 0;
    for (std::size_t at = 0; at < prefixes.size(); ++at) {
        if (target.starts_with(prefixes[at])) {
            range = static_cast<int>(at) + 1;
        }
    }
    return firstKey + range * keysPerPrefix + std::clamp(TargetNumber(target), 0, keysPerPrefix - 1);
}

// Returns the weight of the device, else of the domain.
int DiskShares(pugi::xml_node domain, const std::string& device) {
    const pugi::xml_node tune = domain.child("blkiotune");
    for (const pugi::xml_node node : tune.children("device")) {
        if (device == node.child_value("path") && node.child("weight")) {
            return node.child("weight").text().as_int();
        }
    }
    return tune.child("weight").text().as_int(defaultDiskShares);
}

class Builder {
  public:
    Builder(pugi::xml_node domain, const DescribeContext& context, DeviceList& devices,
            DomainDescription& description)
        : domain(domain), devices(devices), description(description), backings(context, description) {}

    void Build() {
        const auto drives = domain.child("devices").children("disk");
        for (const pugi::xml_node drive : drives) {
            if (const auto place = PlaceOnController(drive)) {
                takenUnits.insert(place->Unit());
            }
        }
        int disks = 0;
        int cdroms = 0;
        int floppies = 0;
        for (const pugi::xml_node drive : drives) {
            const std::string_view kind = drive.attribute("device").as_string("disk");
            if (kind == "cdrom") {
                AddCdrom(drive, "CD/DVD drive " + std::to_string(++cdroms));
            } else if (kind == "floppy") {
                auto floppy = MakeRef<Device::VirtualFloppy>();
                SetPlace(*floppy, drive);
                AddRemovable(drive, floppy, firstFloppyKey, "Floppy drive " + std::to_string(++floppies));
            } else {
                AddDisk(drive, "Hard disk " + std::to_string(++disks));
            }
        }
        backings.SetDatastoreUrls();
    }

  private:
    void AddDisk(pugi::xml_node drive, const std::string& label) {
        const std::string target = TargetOf(drive);
        const DriveSource source = backings.SourceOf(drive);
        const auto [info, instance] = backings.Make(source);
        auto shares = MakeRef<Hask::SharesInfo>();
        shares->SetShares(DiskShares(domain, source.name));
        auto disk = MakeRef<Device::VirtualDisk>();
        disk->SetShares(shares);
        disk->SetBacking(info);
        SetPlace(*disk, drive);
        devices.Add(disk, KeyOf(firstDiskKey, target), label + (target.empty() ? "" : " (" + target + ")"),
                    source.name);
        if (instance) {
            description.disks.push_back({target, *instance});
        }
    }

    // The agent tells CD-ROM drives apart by their place on the IDE buses. One on another bus is shown on a
    // further IDE bus, by its key, so that it keeps the place when others are attached and detached.
    void AddCdrom(pugi::xml_node drive, const std::string& label) {
        auto cdrom = MakeRef<Device::VirtualCdrom>();
        const auto place = PlaceOnController(drive);
        if (place && place->bus.name == "ide") {
            SetPlace(*cdrom, drive);
            AddRemovable(drive, cdrom, firstCdromKey, label);
            return;
        }
        const int number = AddRemovable(drive, cdrom, firstCdromKey, label) - firstCdromKey;
        cdrom->SetControllerKey(ExtraIdeController(number / drivesPerIdeBus));
        cdrom->SetUnitNumber(number % drivesPerIdeBus);
    }

    // Returns the key of a controller of its own kind, which is added for its first drive.
    int ExtraIdeController(int number) {
        const auto [entry, isNew] = extraIdeControllers.try_emplace(number);
        if (isNew) {
            const int bus = firstExtraIdeBus + number;
            auto controller = MakeRef<Device::VirtualIDEController>();
            controller->SetBusNumber(bus);
            entry->second = devices.Add(controller, firstExtraIdeKey + number, "IDE " + std::to_string(bus),
                                        "CD/DVD drives of other buses");
        }
        return entry->second;
    }

    // Returns the device's key.
    int AddRemovable(pugi::xml_node drive, const Ref<Device::VirtualDevice>& device, int firstKey,
                     const std::string& label) {
        const DriveSource source = backings.SourceOf(drive);
        auto connection = MakeRef<Device::VirtualDevice::ConnectInfo>();
        connection->SetConnected(source.kind != DriveSource::Kind::None);
        auto backing = backings.Make(source).info;
        if (!backing) {
            auto empty = MakeRef<Device::VirtualDevice::DeviceBackingInfo>();
            empty->SetDeviceName("no medium");
            backing = empty;
        }
        device->SetBacking(backing);
        device->SetConnectable(connection);
        return devices.Add(device, KeyOf(firstKey, TargetOf(drive)), label, source.name);
    }

    // A drive without a controller gets the unit of its target's letters, or the next free one, because the
    // agent's target table tells rows apart by the unit alone.
    void SetPlace(Device::VirtualDevice& device, pugi::xml_node drive) {
        if (const auto place = PlaceOnController(drive)) {
            device.SetControllerKey(place->ControllerKey());
            device.SetUnitNumber(place->Unit());
            return;
        }
        int unit = std::max(0, TargetNumber(TargetOf(drive)));
        while (!takenUnits.insert(unit).second) {
            ++unit;
        }
        device.SetUnitNumber(unit);
    }

    pugi::xml_node domain;
    DeviceList& devices;
    DomainDescription& description;
    DriveBackings backings;
    std::set<int> takenUnits;
    std::map<int, int> extraIdeControllers;  // keys by number
};

}  // namespace

void AddDrives(pugi::xml_node domain, const DescribeContext& context, DeviceList& devices,
               DomainDescription& description) {
    Builder(domain, context, devices, description).Build();
}

}  // namespace Vessad::Libvirt
