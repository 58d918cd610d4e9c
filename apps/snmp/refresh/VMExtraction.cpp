#include "apps/snmp/refresh/VMExtraction.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/collections/SNMPStrings.h"
#include "apps/snmp/refresh/ListFiller.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

using SNMP::ListFiller;
using Tessim::Ref;
namespace Device = Hask::Vm::Device;

namespace {

char* AllocString(const std::string& text) {
    return SNMPAllocString(text.c_str());
}

// Texts of enumerations are not NUL-terminated by contract.
char* AllocString(std::string_view text) {
    return AllocString(std::string(text));
}

// The id last reported as not a number, so that the VM's other rows do not report it again.
std::optional<std::string> reportedId;

const char* ToText(bool connected) {
    return connected ? "true" : "false";
}

// Appends the device to `array` when it is a T or a subtype of it.
template <class T>
bool Take(Device::VirtualDevice* device, Ordane::DataArray<T>& array) {
    if (!Ordane::GetDoType<T>().Includes(device->GetDataObjectType())) {
        return false;
    }
    array.Append(Tessim::NarrowToType<T>(device));
    return true;
}

std::string ConfigFilePath(Hask::VirtualMachine* vm, const Hask::Vm::ConfigInfo& config) {
    const Hask::Vm::FileInfo* files = config.GetFiles();
    if (files == nullptr || !files->GetVmPathName()) {
        return "Unknown config: " + vm->GetMoRef()->GetId();
    }
    std::string dsPath = *files->GetVmPathName();
    std::string path;
    GetPathFromDsPath(config.GetDatastoreUrl(), dsPath, path);
    return path;
}

}  // namespace

const char* GetDeviceLabel(const Device::VirtualDevice& device) {
    return device.GetDeviceInfo() != nullptr ? device.GetDeviceInfo()->GetLabel().c_str() : nullptr;
}

int GetVMID(Hask::VirtualMachine* vm) {
    try {
        return Tessim::StringUtil::ParseInt(vm->GetMoRef()->GetId());
    } catch (const Tessim::Exception&) {
        const std::string& id = vm->GetMoRef()->GetId();
        if (id != reportedId) {
            // The text names the first caller; log filters match it.
            snmp_log(LOG_WARNING, "SetVMInfo: invalid VM Id: %s\n",
                     Tessim::StringUtil::EscapeControls(id).c_str());
            reportedId = id;
        }
        return -1;
    }
}

void ClearReportedVMID() {
    reportedId.reset();
}

bool SetVMInfo(int index, Hask::VirtualMachine* vm, Hask::Vm::ConfigInfo* config, vmEntry* rows) {
    vmEntry& row = rows[index];
    row.vmIdx = index;
    row.vmDisplayName = AllocString(config->GetName());
    row.vmGuestOS = AllocString(config->GetGuestFullName());
    row.vmVMID = GetVMID(vm);
    row.vmConfigFile = AllocString(ConfigFilePath(vm, *config));

    Ref<Hask::Vm::RuntimeInfo> runtime;
    vm->GetRuntime(runtime);
    bool powered = false;
    if (runtime) {
        const int state = static_cast<int>(runtime->GetPowerState());
        powered = state != 0;
        row.vmState = AllocString(Ordane::GetEnumType<Hask::VirtualMachine::PowerState>()->GetText(state));
    } else {
        row.vmState = SNMPAllocString("unknown");
    }

    Ref<Hask::Vm::GuestInfo> guest;
    vm->GetGuest(guest);
    row.vmGuestState = guest ? AllocString(guest->GetGuestState()) : SNMPAllocString("unknown");

    if (config->GetHardware() != nullptr) {
        row.vmMemSize = config->GetHardware()->GetMemoryMB();
    }
    return powered;
}

void GetPathFromDsPath(Ordane::DataArray<Hask::Vm::ConfigInfo::DatastoreUrlPair>* pairs, std::string& dsPath,
                       std::string& result) {
    result = dsPath;
    const std::size_t open = dsPath.find('[');
    if (open == std::string::npos) {
        return;
    }
    dsPath.erase(0, open + 1);
    const std::size_t close = dsPath.find(']');
    if (close == std::string::npos) {
        return;
    }
    const std::string name = Tessim::StringUtil::Trim(dsPath.substr(0, close));
    dsPath = Tessim::StringUtil::Trim(dsPath.substr(close + 1));
    if (name.empty()) {
        result = dsPath;
        return;
    }
    if (pairs == nullptr) {
        return;
    }
    for (const auto& pair : *pairs) {
        if (pair->GetName() == name) {
            // No separator: the URL ends with one.
            result = pair->GetUrl() + dsPath;
            return;
        }
    }
}

void FindVirtualDevices(const Hask::Vm::VirtualHardware* hardware,
                        Ref<DeviceArray<Device::VirtualEthernetCard>>& nics,
                        Ref<DeviceArray<Device::VirtualSCSIController>>& scsiControllers,
                        Ref<DeviceArray<Device::VirtualDisk>>& disks,
                        Ref<DeviceArray<Device::VirtualIDEController>>& ideControllers,
                        Ref<DeviceArray<Device::VirtualCdrom>>& cdroms,
                        Ref<DeviceArray<Device::VirtualFloppy>>& floppies) {
    if (hardware == nullptr || hardware->GetDevice() == nullptr) {
        return;
    }
    for (const Ref<Device::VirtualDevice>& device : *hardware->GetDevice()) {
        // The first kind that matches takes the device.
        static_cast<void>(Take(device.Get(), *nics) || Take(device.Get(), *scsiControllers) ||
                          Take(device.Get(), *disks) || Take(device.Get(), *ideControllers) ||
                          Take(device.Get(), *cdroms) || Take(device.Get(), *floppies));
    }
}

vmNetNode* SetNicInfo(int index, DeviceArray<Device::VirtualEthernetCard>* nics, vmNetNode** cursor) {
    ListFiller<vmNetNode> list(cursor);
    std::int32_t ordinal = 0;
    for (const auto& nic : *nics) {
        auto* row = list.AppendNew();
        if (row == nullptr) {
            snmp_log(LOG_WARNING, "SetNicInfo: Out of memory?\n");
            break;
        }
        row->vmIdx = index;
        row->nicIdx = ordinal++;
        row->nicLabel = SNMPAllocString(GetDeviceLabel(*nic));
        const auto* backing =
            Tessim::NarrowToType<Device::VirtualDevice::DeviceBackingInfo>(nic->GetBacking());
        if (backing != nullptr) {
            row->nicNetwork = AllocString(backing->GetDeviceName());
        } else {
            snmp_log(LOG_WARNING, "SetNicInfo: Null device backing.\n");
            row->nicNetwork = SNMPAllocString("unknown");
        }
        row->nicDevice = SNMPAllocString("monitor_dev");
    }
    return list.Last();
}

vmHBANode* SetStorageHBA(int index, DeviceArray<Device::VirtualSCSIController>* controllers,
                         vmHBANode** cursor) {
    ListFiller<vmHBANode> list(cursor);
    for (const auto& controller : *controllers) {
        auto* row = list.AppendNew();
        if (row == nullptr) {
            snmp_log(LOG_WARNING, "SetStorageInfo: HBANode: Out of memory?\n");
            break;
        }
        row->vmIdx = index;
        row->hbaBus = controller->GetBusNumber();
        row->hbaLabel = SNMPAllocString(GetDeviceLabel(*controller));
        const Ordane::DataObjectType* type = controller->GetDataObjectType();
        const char* model = "unknown";
        if (type == Ordane::GetType<Device::VirtualLsiLogicController>()) {
            model = "lsilogic";
        } else if (type == Ordane::GetType<Device::VirtualBusLogicController>()) {
            model = "buslogic";
        }
        row->hbaType = SNMPAllocString(model);
    }
    return list.Last();
}

vmHBATgtNode* SetStorageTgt(int index, DeviceArray<Device::VirtualDisk>* disks, vmHBATgtNode** cursor) {
    ListFiller<vmHBATgtNode> list(cursor);
    for (const auto& disk : *disks) {
        auto* row = list.AppendNew();
        if (row == nullptr) {
            snmp_log(LOG_WARNING, "SetStorageInfo: HBATgt: Out of memory?\n");
            break;
        }
        row->vmIdx = index;
        const char* label = GetDeviceLabel(*disk);
        row->tgtLabel = SNMPAllocString(label);
        if (disk->GetUnitNumber()) {
            row->tgtUnit = *disk->GetUnitNumber();
        } else {
            snmp_log(LOG_WARNING, "SetStorageInfo: cannot find unit number for disk %s.\n",
                     Tessim::StringUtil::EscapeControls(label != nullptr ? label : "without label").c_str());
        }
    }
    return list.Last();
}

std::string GetDeviceBackingName(Device::VirtualDevice::BackingInfo* backing) {
    using Base = Device::VirtualDevice;
    if (const auto* device = Tessim::NarrowToType<Base::DeviceBackingInfo>(backing)) {
        return device->GetDeviceName();
    }
    if (const auto* file = Tessim::NarrowToType<Base::FileBackingInfo>(backing)) {
        return file->GetFileName();
    }
    if (const auto* remote = Tessim::NarrowToType<Base::RemoteDeviceBackingInfo>(backing)) {
        return remote->GetDeviceName().empty() ? "remote device backing" : remote->GetDeviceName();
    }
    return {};
}

vmCDROMNode* SetCDRomInfo(int index, DeviceArray<Device::VirtualIDEController>* ideControllers,
                          DeviceArray<Device::VirtualCdrom>* cdroms, vmCDROMNode** cursor) {
    constexpr std::int32_t devicesPerBus = 2;
    std::map<std::int32_t, std::int32_t> busOfController;
    for (const auto& controller : *ideControllers) {
        busOfController[controller->GetKey()] = controller->GetBusNumber();
    }
    ListFiller<vmCDROMNode> list(cursor);
    for (const auto& cdrom : *cdroms) {
        auto* row = list.AppendNew();
        if (row == nullptr) {
            snmp_log(LOG_WARNING, "SetCdromInfo: Out of memory?\n");
            break;
        }
        row->vmIdx = index;
        if (!cdrom->GetUnitNumber()) {
            snmp_log(LOG_WARNING, "SetCdromInfo:  No unit number for cdrom.\n");
        } else if (cdrom->GetControllerKey()) {
            const auto bus = busOfController.find(*cdrom->GetControllerKey());
            if (bus == busOfController.end()) {
                snmp_log(LOG_WARNING, "SetCdromInfo:  No IDE controller with key %d exists\n",
                         *cdrom->GetControllerKey());
            } else {
                row->cdIdeIndex = static_cast<std::int32_t>(std::int64_t{bus->second} * devicesPerBus +
                                                            *cdrom->GetUnitNumber());
            }
        } else {
            snmp_log(LOG_WARNING, "SetCdromInfo:  No controller key for cdrom.\n");
        }
        if (cdrom->GetConnectable() != nullptr) {
            row->cdConnected = SNMPAllocString(ToText(cdrom->GetConnectable()->IsConnected()));
        } else {
            snmp_log(LOG_WARNING, "SetCdromInfo:  No ConnectInfo found for cdrom %d\n", row->cdIdeIndex);
        }
        std::string name = GetDeviceBackingName(cdrom->GetBacking());
        if (name.empty()) {
            snmp_log(LOG_WARNING, "SetCdromInfo: Found cdrom of unknown backing.\n");
            name = "unknown";
        }
        row->cdBacking = AllocString(name);
    }
    return list.Last();
}

vmFloppyNode* SetFloppyInfo(int index, DeviceArray<Device::VirtualFloppy>* floppies, vmFloppyNode** cursor) {
    ListFiller<vmFloppyNode> list(cursor);
    for (const auto& floppy : *floppies) {
        auto* row = list.AppendNew();
        if (row == nullptr) {
            snmp_log(LOG_WARNING, "SetFloppyInfo: Out of memory?\n");
            break;
        }
        row->vmIdx = index;
        if (floppy->GetUnitNumber()) {
            row->fdUnit = *floppy->GetUnitNumber();
        } else {
            snmp_log(LOG_WARNING, "SetFloppyInfo: No unit number for floppy.\n");
        }
        if (floppy->GetConnectable() != nullptr) {
            row->fdConnected = SNMPAllocString(ToText(floppy->GetConnectable()->IsConnected()));
        } else {
            snmp_log(LOG_WARNING, "SetFloppyInfo:  Null ConnectInfo for floppy.\n");
        }
        std::string name = GetDeviceBackingName(floppy->GetBacking());
        if (name.empty()) {
            // The prefix is the CD-ROM filler's: log filters match it.
            snmp_log(LOG_WARNING, "SetCdromInfo: Found floppy of unknown backing.\n");
            name = "unknown";
        }
        row->fdBacking = AllocString(name);
    }
    return list.Last();
}
