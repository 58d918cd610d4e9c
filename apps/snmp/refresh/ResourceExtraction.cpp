#include "apps/snmp/refresh/ResourceExtraction.h"

#include <algorithm>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/client/WrappingSum.h"
#include "apps/snmp/collections/SNMPStrings.h"
#include "apps/snmp/refresh/ListFiller.h"
#include "apps/snmp/refresh/VMExtraction.h"
#include "runtime/tessim/string_util.h"

using SNMP::ListFiller;
using SNMP::OrdaneClient;
using Tessim::Ref;
using Tessim::StringUtil::EscapeControls;
namespace Device = Hask::Vm::Device;

namespace {

constexpr double millisecondsPerSecond = 1000.0;
// More than any VM has: a daemon that claims more must not exhaust the agent's memory.
constexpr std::int32_t maxVirtualCpus = 65536;
constexpr unsigned kilobytesPerMegabyteShift = 10;

std::int32_t SharesOf(const Hask::SharesInfo* info) {
    return info != nullptr ? info->GetShares() : 0;
}

std::int32_t SharesOf(const Hask::ResourceAllocationInfo* allocation) {
    return allocation != nullptr ? SharesOf(allocation->GetShares()) : 0;
}

// Returns the low 32 bits.
std::int32_t ToKilobytes(std::int32_t megabytes) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(megabytes) << kilobytesPerMegabyteShift);
}

// Returns the disk name of the first extent; null when the volume has none.
const char* FirstExtentName(const Hask::Host::DrellDatastoreInfo& info) {
    const Hask::Host::DrellVolume* volume = info.GetDrell();
    if (volume == nullptr || volume->GetExtent() == nullptr || volume->GetExtent()->GetLength() == 0) {
        return nullptr;
    }
    return (*volume->GetExtent())[0]->GetDiskName().c_str();
}

// A disk's name according to its backing.
struct DiskName {
    const char* text = nullptr;  // a lasting string; null: unknown
    bool skip = false;           // its datastore's disks have no row
};

DiskName NameDisk(OrdaneClient* client, const Device::VirtualDisk& disk) {
    const char* label = GetDeviceLabel(disk);
    if (label == nullptr) {
        label = "disk without label";
    }
    const auto* device = Tessim::NarrowToType<Device::VirtualDevice::DeviceBackingInfo>(disk.GetBacking());
    if (device != nullptr) {
        return {SNMPLastingString(device->GetDeviceName().c_str())};
    }
    const auto* file = Tessim::NarrowToType<Device::VirtualDevice::FileBackingInfo>(disk.GetBacking());
    if (file == nullptr) {
        snmp_log(LOG_WARNING, "SetDiskResource: found vdisk of unknown backing.\n");
        return {};
    }
    Ref<Hask::Datastore::Info> info;
    if (file->GetDatastore() != nullptr) {
        client->GetDatastoreInfo(file->GetDatastore()->GetId(), info);
    }
    if (!info) {
        snmp_log(LOG_WARNING, "SetDiskResource: no datastore info for %s.\n", EscapeControls(label).c_str());
        return {};
    }
    const auto* drell = Tessim::NarrowToType<Hask::Host::DrellDatastoreInfo>(info);
    if (drell == nullptr) {
        snmp_log(LOG_INFO, "SetDiskResource: skipped disk not backed by drell %s.\n",
                 EscapeControls(label).c_str());
        return {nullptr, true};
    }
    const char* name = FirstExtentName(*drell);
    return {name != nullptr ? SNMPLastingString(name) : nullptr};
}

}  // namespace

resCPUNode* SetCPUResource(OrdaneClient* client, Hask::VirtualMachine* vm, Hask::Vm::ConfigInfo* config,
                           resCPUNode** cursor) {
    ListFiller<resCPUNode> list(cursor);
    const Hask::Vm::VirtualHardware* hardware = config->GetHardware();
    const std::int32_t count = std::min(hardware != nullptr ? hardware->GetNumCPU() : 0, maxVirtualCpus);
    const std::int32_t vmId = GetVMID(vm);
    for (std::int32_t cpu = 0; cpu < count; ++cpu) {
        SNMP::Connection::CheckTimeLeft();
        auto* row = list.AppendNew();
        if (row == nullptr) {
            snmp_log(LOG_WARNING, "SetCPUResource: Out of memory?\n");
            break;
        }
        row->cpuVMID = SNMP::WrappingSum(vmId, cpu);
        row->cpuShares = cpu == 0 ? SharesOf(config->GetCpuAllocation()) : 0;
        const std::int32_t used = client->RetrieveStats(vm->GetMoRef(), OrdaneClient::sCPU_STATS_GRP,
                                                        OrdaneClient::sCPU_COUNTER_USED, cpu);
        row->cpuUsedSec = static_cast<float>(static_cast<float>(used) / millisecondsPerSecond);
    }
    return list.Last();
}

resMemNode* SetMemResource(OrdaneClient* client, Hask::VirtualMachine* vm, Hask::Vm::ConfigInfo* config,
                           resMemNode** cursor) {
    ListFiller<resMemNode> list(cursor);
    auto* row = list.AppendNew();
    if (row == nullptr) {
        snmp_log(LOG_WARNING, "SetMemResource: Out of memory?\n");
        return list.Last();
    }
    row->memVMID = GetVMID(vm);
    row->memShares = SharesOf(config->GetMemoryAllocation());
    if (config->GetHardware() != nullptr) {
        row->memConfiguredKB = ToKilobytes(config->GetHardware()->GetMemoryMB());
    }
    row->memActive = client->RetrieveStats(vm->GetMoRef(), OrdaneClient::sMEM_STATS_GRP,
                                           OrdaneClient::sMEM_COUNTER_ACTIVE, nullptr);
    return list.Last();
}

resDiskNode* SetDiskResource(OrdaneClient* client, Hask::VirtualMachine* vm,
                             Ordane::DataArray<Device::VirtualDisk>* disks, resDiskNode** cursor) {
    ListFiller<resDiskNode> list(cursor);
    std::int32_t nextIndex = list.Last() != nullptr ? list.Last()->diskIdx + 1 : 1;
    const std::int32_t vmId = GetVMID(vm);
    for (const auto& disk : *disks) {
        SNMP::Connection::CheckTimeLeft();
        SNMP::RowPtr<resDiskNode> row = SNMP::AllocateRow<resDiskNode>();
        if (!row) {
            snmp_log(LOG_WARNING, "SetDiskResource: Out of memory?\n");
            break;
        }
        const DiskName name = NameDisk(client, *disk);
        if (name.skip) {
            continue;
        }
        row->diskIdx = nextIndex++;
        row->diskName = name.text != nullptr ? name.text : SNMPLastingString("unknown");
        row->diskVMID = vmId;
        row->diskShares = SharesOf(disk->GetShares());
        const auto statistic = [&](const std::string& counter) {
            // A null instance would match any: without memory for its name the disk has no statistics.
            return row->diskName != nullptr
                       ? client->RetrieveStats(vm->GetMoRef(), OrdaneClient::sDISK_STATS_GRP, counter,
                                               row->diskName)
                       : OrdaneClient::unknownStatistic;
        };
        row->diskNumRead = statistic(OrdaneClient::sDISK_COUNTER_NUMREAD);
        row->diskRead = statistic(OrdaneClient::sDISK_COUNTER_READ);
        row->diskNumWrite = statistic(OrdaneClient::sDISK_COUNTER_NUMWRITE);
        row->diskWrite = statistic(OrdaneClient::sDISK_COUNTER_WRITE);
        list.Append(std::move(row));
    }
    return list.Last();
}

resNetNode* SetNetResource(OrdaneClient* client, Hask::VirtualMachine* vm,
                           Ordane::DataArray<Device::VirtualEthernetCard>* nics, resNetNode** cursor) {
    ListFiller<resNetNode> list(cursor);
    std::int32_t nextIndex = list.Last() != nullptr ? list.Last()->netIdx + 1 : 1;
    const std::int32_t vmId = GetVMID(vm);
    for (const auto& nic : *nics) {
        SNMP::Connection::CheckTimeLeft();
        auto* row = list.AppendNew();
        if (row == nullptr) {
            snmp_log(LOG_WARNING, "SetNetResource: Out of memory?\n");
            break;
        }
        row->netIdx = nextIndex++;
        const Hask::Description* info = nic->GetDeviceInfo();
        row->netName = SNMPLastingString(info != nullptr ? info->GetSummary().c_str() : "unknown");
        row->netVMID = vmId;
        row->netMac = SNMPLastingString(nic->GetMacAddress() ? nic->GetMacAddress()->c_str() : nullptr);
        row->netSpare = 0;
        const std::int32_t instance = nic->GetKey();
        const auto statistic = [&](const std::string& counter) {
            return client->RetrieveStats(vm->GetMoRef(), OrdaneClient::sNET_STATS_GRP, counter, instance);
        };
        const auto wideStatistic = [&](const std::string& counter) {
            return static_cast<std::uint64_t>(
                client->RetrieveHCStats(vm->GetMoRef(), OrdaneClient::sNET_STATS_GRP, counter, instance));
        };
        row->netPktTx = statistic(OrdaneClient::sNET_COUNTER_PKTTX);
        row->netTx = statistic(OrdaneClient::sNET_COUNTER_TX);
        row->netPktRx = statistic(OrdaneClient::sNET_COUNTER_PKTRX);
        row->netRx = statistic(OrdaneClient::sNET_COUNTER_RX);
        row->netHCPktTx = wideStatistic(OrdaneClient::sNET_COUNTER_PKTTX);
        row->netHCTx = wideStatistic(OrdaneClient::sNET_COUNTER_TX);
        row->netHCPktRx = wideStatistic(OrdaneClient::sNET_COUNTER_PKTRX);
        row->netHCRx = wideStatistic(OrdaneClient::sNET_COUNTER_RX);
    }
    return list.Last();
}
