#include "apps/snmp/refresh/CacheFiller.h"

#include <cstdlib>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/collections/VMTables.h"
#include "apps/snmp/refresh/ListFiller.h"
#include "apps/snmp/refresh/ResourceExtraction.h"
#include "apps/snmp/refresh/VMExtraction.h"
#include "runtime/ordane/faults.h"

namespace SNMP {

namespace Device = Hask::Vm::Device;

namespace {

// Appends the rows of one VM after another.
class CacheFiller {
  public:
    CacheFiller(OrdaneClient* client, vmEntry* rows) : client(client), rows(rows) {}

    // The rows of the VM at position `index` of the array.
    void Fill(int index, Hask::VirtualMachine* vm, Hask::Vm::ConfigInfo* config) {
        auto nics = Tessim::MakeRef<Ordane::DataArray<Device::VirtualEthernetCard>>();
        auto scsiControllers = Tessim::MakeRef<Ordane::DataArray<Device::VirtualSCSIController>>();
        auto disks = Tessim::MakeRef<Ordane::DataArray<Device::VirtualDisk>>();
        auto ideControllers = Tessim::MakeRef<Ordane::DataArray<Device::VirtualIDEController>>();
        auto cdroms = Tessim::MakeRef<Ordane::DataArray<Device::VirtualCdrom>>();
        auto floppies = Tessim::MakeRef<Ordane::DataArray<Device::VirtualFloppy>>();
        const bool powered = SetVMInfo(index, vm, config, rows);
        FindVirtualDevices(config->GetHardware(), nics, scsiControllers, disks, ideControllers, cdroms,
                           floppies);
        net.Advance(SetNicInfo(index, nics.Get(), net.Get()));
        hba.Advance(SetStorageHBA(index, scsiControllers.Get(), hba.Get()));
        tgt.Advance(SetStorageTgt(index, disks.Get(), tgt.Get()));
        cdrom.Advance(SetCDRomInfo(index, ideControllers.Get(), cdroms.Get(), cdrom.Get()));
        floppy.Advance(SetFloppyInfo(index, floppies.Get(), floppy.Get()));
        if (powered) {
            resCPU.Advance(SetCPUResource(client, vm, config, resCPU.Get()));
            resMem.Advance(SetMemResource(client, vm, config, resMem.Get()));
            resDisk.Advance(SetDiskResource(client, vm, disks.Get(), resDisk.Get()));
            resNet.Advance(SetNetResource(client, vm, nics.Get(), resNet.Get()));
        }
    }

  private:
    OrdaneClient* client;
    vmEntry* rows;
    TailCursor<vmNetNode> net{&vmNetList};
    TailCursor<vmHBANode> hba{&vmHBAList};
    TailCursor<vmHBATgtNode> tgt{&vmHBATgtList};
    TailCursor<vmCDROMNode> cdrom{&vmCDROMList};
    TailCursor<vmFloppyNode> floppy{&vmFloppyList};
    TailCursor<resCPUNode> resCPU{&resCPUList};
    TailCursor<resMemNode> resMem{&resMemList};
    TailCursor<resDiskNode> resDisk{&resDiskList};
    TailCursor<resNetNode> resNet{&resNetList};
};

// Of every list.
void OrderRows() {
    vmNetOrder.Make();
    vmHBAOrder.Make();
    vmHBATgtOrder.Make();
    vmCDROMOrder.Make();
    vmFloppyOrder.Make();
    resCPUOrder.Make();
    resMemOrder.Make();
    resDiskOrder.Make();
    resNetOrder.Make();
}

}  // namespace

bool FillTables(OrdaneClient* client, Ordane::DataArray<Hask::VirtualMachine>* vms,
                Ordane::DataArray<Hask::Vm::ConfigInfo>* configs) {
    const int count = vms->GetLength();
    auto* const rows = static_cast<vmEntry*>(std::calloc(static_cast<std::size_t>(count), sizeof(vmEntry)));
    vmInfoTable = rows;
    if (rows == nullptr) {
        snmp_log(LOG_WARNING, "SNMPRaskRefreshCache: Out of memory?\n");
        return false;
    }
    if (configs->GetLength() != count) {
        static constexpr const char* bug = "SNMPRaskRefreshCache, BUG - vm & config count.\n";
        snmp_log(LOG_ERR, "%s", bug);
        throw Ordane::Fault::SystemError::Exception(bug);
    }
    SNMPVMInfoTable_SetNumEntries(count);
    snmp_log(LOG_INFO, "SNMPRaskRefreshCache: Examining %d VMs found.\n", count);
    client->CollectVMStats(vms);
    CacheFiller filler(client, rows);
    for (int index = 0; index < count; ++index) {
        filler.Fill(index, (*vms)[index], (*configs)[index]);
    }
    OrderRows();
    snmp_log(LOG_INFO, "SNMPRask: refreshing cache completed.\n");
    return true;
}

}  // namespace SNMP
