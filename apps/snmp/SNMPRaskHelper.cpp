// When the row cache is rebuilt, and the rebuild.
#include "apps/snmp/SNMPRaskHelper.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <exception>

#include "apps/snmp/Backtrace.h"
#include "apps/snmp/ExaminedVMs.h"
#include "apps/snmp/Guard.h"
#include "apps/snmp/ListFiller.h"
#include "apps/snmp/NetSnmp.h"
#include "apps/snmp/OrdaneClient.h"
#include "apps/snmp/ResourceExtraction.h"
#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResDisk.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPResNet.h"
#include "apps/snmp/SNMPVMDisk.h"
#include "apps/snmp/SNMPVMFloppyCD.h"
#include "apps/snmp/SNMPVMInfo.h"
#include "apps/snmp/SNMPVMNet.h"
#include "apps/snmp/VMExtraction.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/assertion.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/time_budget.h"

// The agent's own: 0 once a signal has told it to end. No header of net-snmp declares it.
extern "C" int netsnmp_running;

using SNMP::OrdaneClient;
using SNMP::TailCursor;
using Tessim::Ref;
namespace Device = Hask::Vm::Device;

namespace {

constexpr double refreshInterval = 20.0;  // seconds
// The agent answers nobody while the cache is rebuilt.
constexpr std::chrono::seconds rebuildLimit{5};

// When the last rebuild was started, in wall-clock seconds; 0: none, or the last one failed.
std::time_t lastRefresh = 0;

// Half a cache must not be served: unless the rebuild comes to its end, the tables are emptied and the next
// request tries again.
class RebuildGuard {
  public:
    RebuildGuard() = default;
    RebuildGuard(const RebuildGuard&) = delete;
    RebuildGuard& operator=(const RebuildGuard&) = delete;
    ~RebuildGuard() {
        if (!complete) {
            SNMPRaskTable_Destroy();
            lastRefresh = 0;
        }
    }
    void Complete() { complete = true; }

  private:
    bool complete = false;
};

// Fills every table, VM by VM.
class CacheFiller {
  public:
    CacheFiller(OrdaneClient* client, vmEntry* rows) : client(client), rows(rows) {}

    // The rows of the VM at position `index` among the examined ones.
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
    TailCursor<vmNetNode> net{SNMPVMNetTable_GetPtr()};
    TailCursor<vmHBANode> hba{SNMPVMHBATable_GetPtr()};
    TailCursor<vmHBATgtNode> tgt{SNMPVMHBATgtTable_GetPtr()};
    TailCursor<vmCDROMNode> cdrom{SNMPVMCDROMTable_GetPtr()};
    TailCursor<vmFloppyNode> floppy{SNMPVMFloppyTable_GetPtr()};
    TailCursor<resCPUNode> resCPU{SNMPResCPUTable_GetPtr()};
    TailCursor<resMemNode> resMem{SNMPResMemTable_GetPtr()};
    TailCursor<resDiskNode> resDisk{SNMPResDiskTable_GetPtr()};
    TailCursor<resNetNode> resNet{SNMPResNetTable_GetPtr()};
};

}  // namespace

int SNMPRaskHelper_Init() {
    // Touches the C++ runtime's per-thread exception data now: its first use allocates, and the C library
    // ends the process when that fails. (Volatile, as the compiler takes the call for one without effects.)
    [[maybe_unused]] const volatile int exceptions = std::uncaught_exceptions();
    Tessim::TimeBudget::EndWaitsWhen([] { return netsnmp_running == 0; });
    // The pointer's low half could be 0 for a client that exists.
    return SNMP::Guard(__func__, [] { return SNMP::GetOrdaneClient() != nullptr ? 1 : 0; });
}

void SNMPRaskTable_Destroy() {
    SNMPVMInfoTable_Destroy();
    SNMPVMNetTable_Destroy();
    SNMPVMHBATable_Destroy();
    SNMPVMHBATgtTable_Destroy();
    SNMPVMFloppyTable_Destroy();
    SNMPVMCDROMTable_Destroy();
    SNMPResCPUTable_Destroy();
    SNMPResMemTable_Destroy();
    SNMPResDiskTable_Destroy();
    SNMPResNetTable_Destroy();
}

void SNMPRaskTable_Expire() {
    lastRefresh = 0;
}

void SNMPRaskTable_Init() {
    const std::time_t now = std::time(nullptr);
    if (refreshInterval >= std::difftime(now, lastRefresh)) {
        return;
    }
    lastRefresh = now;
    const Tessim::TimeBudget budget(rebuildLimit);
    RebuildGuard guard;
    try {
        SNMPRaskRefreshCache();
        guard.Complete();
    } catch (const Tessim::Exception& failure) {
        snmp_log(LOG_WARNING, "SNMPRaskRefreshCache exception:%s\n", failure.what());
        SNMP::LogBacktrace(failure, LOG_WARNING);
    }
}

void SNMPRaskRefreshCache() {
    SNMPRaskTable_Destroy();
    ForgetReportedVMID();
    OrdaneClient* const client = SNMP::GetOrdaneClient();
    if (client == nullptr) {
        snmp_log(LOG_WARNING, "SNMPRAskRefreshCache: Could not acquire ordane client to tovric-vessad.\n");
        return;
    }
    Ref<Ordane::DataArray<Hask::VirtualMachine>> allVms;
    client->GetAllVM(allVms);
    if (!allVms || allVms->GetLength() == 0) {
        snmp_log(LOG_INFO, "SNMPRaskRefreshCache: no VM found.\n");
        return;
    }
    snmp_log(LOG_INFO, "SNMPRask: start refreshing cache...\n");
    const SNMP::ExaminedVMs examined = SNMP::Examine(*allVms);
    allVms->Clear();

    const int count = examined.vms->GetLength();
    auto* const rows = static_cast<vmEntry*>(std::calloc(static_cast<std::size_t>(count), sizeof(vmEntry)));
    *SNMPVMInfoTable_GetPtr() = rows;
    if (rows == nullptr) {
        snmp_log(LOG_WARNING, "SNMPRaskRefreshCache: Out of memory?\n");
        return;
    }
    if (examined.configs->GetLength() != count) {
        static constexpr const char* bug = "SNMPRaskRefreshCache, BUG - vm & config count.\n";
        snmp_log(LOG_ERR, "%s", bug);
        throw Ordane::Fault::SystemError::Exception(bug);
    }
    SNMPVMInfoTable_SetNumEntries(count);
    snmp_log(LOG_INFO, "SNMPRaskRefreshCache: Examining %d VMs found.\n", count);
    client->CollectVMStats(examined.vms.Get());
    CacheFiller filler(client, rows);
    for (int index = 0; index < count; ++index) {
        filler.Fill(index, (*examined.vms)[index], (*examined.configs)[index]);
    }
    snmp_log(LOG_INFO, "SNMPRask: refreshing cache completed.\n");
}

int GetNumCpu() {
    OrdaneClient* const client = SNMP::GetOrdaneClient();
    if (client == nullptr) {
        snmp_log(LOG_WARNING, "GetNumCPu: Could not acquire ordane client to tovric-vessad.\n");
        return 0;
    }
    return client->GetNumCpuCores();
}

void GetMemory(long* reserved, long* total) {
    Tessim::Assert(reserved != nullptr && total != nullptr, "reserved && total");
    *reserved = 0;
    *total = 0;
    OrdaneClient* const client = SNMP::GetOrdaneClient();
    if (client == nullptr) {
        snmp_log(LOG_WARNING, "GetMemory: Could not acquire ordane client to tovric-vessad.\n");
        return;
    }
    std::int64_t reservedFigure = 0;
    *total = static_cast<std::int32_t>(client->GetMemoryReservation(reservedFigure));
    *reserved = static_cast<std::int32_t>(reservedFigure);
}
