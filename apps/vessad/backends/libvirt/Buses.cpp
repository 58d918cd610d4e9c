#include "apps/vessad/backends/libvirt/Buses.h"

#include <algorithm>

#include "apps/vessad/backends/libvirt/XmlAttributes.h"

namespace Vessad::Libvirt {
namespace {

namespace Device = Hask::Vm::Device;
using Tessim::MakeRef;

constexpr int unitsPerTarget = 1 << 14;

}  // namespace

int UnitOfAddress(const DriveAddress& address) {
    return address.unit;
}

int ScsiUnitOfAddress(const DriveAddress& address) {
    if (address.unit == 0) {
        return address.target;
    }
    return address.target == 0 ? address.unit : address.target * unitsPerTarget + address.unit;
}

ControllerRef MakeScsiController(std::string_view model) {
    if (model == "lsilogic") {
        return MakeRef<Device::VirtualLsiLogicController>();
    }
    if (model == "buslogic") {
        return MakeRef<Device::VirtualBusLogicController>();
    }
    if (model.starts_with("lsisas")) {
        return MakeRef<Device::VirtualLsiLogicSASController>();
    }
    if (model.starts_with("virtio")) {
        return MakeRef<Device::ParaVirtualSCSIController>();
    }
    return MakeRef<Device::VirtualSCSIController>();
}

int DrivePlace::ControllerKey() const {
    const int channel = std::min(address.bus, bus.channels - 1);
    return bus.firstKey + address.controller * bus.channels + channel;
}

std::optional<DrivePlace> PlaceOnController(pugi::xml_node drive) {
    const pugi::xml_node address = drive.child("address");
    const std::string_view name = drive.child("target").attribute("bus").value();
    const auto* const bus =
        std::find_if(buses.begin(), buses.end(), [&](const Bus& b) { return b.name == name; });
    if (bus == buses.end() || std::string_view(address.attribute("type").value()) != "drive") {
        return std::nullopt;
    }
    return DrivePlace{*bus,
                      {AddressNumber(address, "controller"), AddressNumber(address, "bus"),
                       AddressNumber(address, "target"), AddressNumber(address, "unit")}};
}

}  // namespace Vessad::Libvirt
