#include "apps/vessad/backends/libvirt/DeviceList.h"

#include "apps/vessad/backends/libvirt/Text.h"

namespace Vessad::Libvirt {

int DeviceList::Add(const Tessim::Ref<Hask::Vm::Device::VirtualDevice>& device, int key,
                    const std::string& label, const std::string& summary) {
    while (!keys.insert(key).second) {
        ++key;
    }
    auto info = Tessim::MakeRef<Hask::Description>();
    info->SetLabel(WireText(label));
    info->SetSummary(WireText(summary));
    device->SetKey(key);
    device->SetDeviceInfo(info);
    hardware.GetDevice()->Append(device);
    return key;
}

}  // namespace Vessad::Libvirt
