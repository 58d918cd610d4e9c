// The buses that drives are attached to by a controller.
#pragma once

#include <array>
#include <optional>
#include <pugixml.hpp>
#include <string_view>

#include "runtime/hask/api.h"

namespace Vessad::Libvirt {

// <address type='drive'>
struct DriveAddress {
    int controller = 0;
    int bus = 0;
    int target = 0;
    int unit = 0;
};

// Return the unit number that the API shows. Some SCSI controllers number targets, others logical units of
// target 0; where both are in use, the number has both.
int UnitOfAddress(const DriveAddress& address);
int ScsiUnitOfAddress(const DriveAddress& address);

using ControllerRef = Tessim::Ref<Hask::Vm::Device::VirtualController>;

template <class Controller>
ControllerRef MakeController(std::string_view /*model*/) {
    return Tessim::MakeRef<Controller>();
}
ControllerRef MakeScsiController(std::string_view model);

struct Bus {
    std::string_view name;     // libvirt's, of controllers and drives
    int firstKey;              // of the API's controllers, which are consecutive
    int channels;              // of one libvirt controller, each a controller of the API
    std::string_view label;    // of a controller, before its number
    std::string_view summary;  // of a controller
    bool modelIsSummary;       // where the controller has a model
    ControllerRef (*make)(std::string_view model);
    int (*unit)(const DriveAddress& address);
};

// In the order of the API's controllers.
inline constexpr std::array<Bus, 4> buses{{
    {"scsi", 1000, 1, "SCSI controller", "SCSI", true, MakeScsiController, ScsiUnitOfAddress},
    {"ide", 200, 2, "IDE", "IDE", false, MakeController<Hask::Vm::Device::VirtualIDEController>,
     UnitOfAddress},
    {"sata", 15000, 1, "SATA controller", "SATA", false,
     MakeController<Hask::Vm::Device::VirtualSATAController>, UnitOfAddress},
    {"fdc", 400, 1, "Floppy controller", "Floppy", false,
     MakeController<Hask::Vm::Device::VirtualSIOController>, UnitOfAddress},
}};

// A drive's place on a bus.
struct DrivePlace {
    const Bus& bus;
    DriveAddress address;

    // The key of the API's controller; a channel beyond the controller's last counts as the last.
    int ControllerKey() const;
    // The unit number on that controller, not negative.
    int Unit() const { return bus.unit(address); }
};

// Returns the place of a <disk> element, or nothing for a drive without a controller.
std::optional<DrivePlace> PlaceOnController(pugi::xml_node drive);

}  // namespace Vessad::Libvirt
