// The devices of one VM, while its description is made.
#pragma once

#include <set>
#include <string>

#include "runtime/hask/api.h"

namespace Vessad::Libvirt {

// Appends devices to a VM's hardware, each with a key of its own.
class DeviceList {
  public:
    // Borrows `hardware`, whose device array must be set.
    explicit DeviceList(Hask::Vm::VirtualHardware& hardware) : hardware(hardware) {}

    // Appends the device with `key`, or the next free key when that is taken. Returns the key.
    int Add(const Tessim::Ref<Hask::Vm::Device::VirtualDevice>& device, int key, const std::string& label,
            const std::string& summary);

  private:
    Hask::Vm::VirtualHardware& hardware;
    std::set<int> keys;
};

}  // namespace Vessad::Libvirt
