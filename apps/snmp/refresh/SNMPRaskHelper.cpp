// When the row cache is rebuilt, and the rebuild.
#include "apps/snmp/refresh/SNMPRaskHelper.h"

#include <chrono>
#include <ctime>
#include <exception>

#include "apps/snmp/agent/Backtrace.h"
#include "apps/snmp/agent/Guard.h"
#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/client/OrdaneClient.h"
#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/collections/VMTables.h"
#include "apps/snmp/refresh/CacheFiller.h"
#include "apps/snmp/refresh/Outage.h"
#include "apps/snmp/refresh/VMExtraction.h"
#include "runtime/tessim/assertion.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/time_budget.h"

// The agent's: 0 once a signal asked it to terminate. No header of net-snmp declares it.
extern "C" int netsnmp_running;

using SNMP::OrdaneClient;
using Tessim::Ref;

namespace {

constexpr double refreshInterval = 20.0;  // seconds
// The agent serves no other request while the cache is rebuilt.
constexpr std::chrono::seconds rebuildLimit{5};

// When the last rebuild was started, in wall-clock seconds; 0: none, or the last one failed.
std::time_t lastRefresh = 0;

SNMP::Outage outage;

// A partial cache must not be served: unless the rebuild completes, the tables are emptied and the next
// request retries.
class RebuildGuard {
  public:
    RebuildGuard() = default;
    RebuildGuard(const RebuildGuard&) = delete;
    RebuildGuard& operator=(const RebuildGuard&) = delete;
    ~RebuildGuard() {
        if (!complete) {
            SNMPRaskTable_Destroy();
            lastRefresh = 0;
            outage.Continue(Tessim::Clock::now());
        }
    }
    void Complete() { complete = true; }

  private:
    bool complete = false;
};

}  // namespace

int SNMPRaskHelper_Init() {
    // Allocates the C++ runtime's per-thread exception data now: the C library ends the process when that
    // fails at the first exception. (Volatile, because the compiler takes the call for one without effects.)
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
    ClearReportedVMID();
    OrdaneClient* client = SNMP::GetOrdaneClient();
    if (client != nullptr && client->DropUselessConnection()) {
        client = SNMP::GetOrdaneClient();
    }
    if (client == nullptr) {
        snmp_log(LOG_WARNING, "SNMPRAskRefreshCache: Could not acquire ordane client to tovric-vessad.\n");
        outage.Continue(Tessim::Clock::now());
        return;
    }
    Ref<Ordane::DataArray<Hask::VirtualMachine>> allVms;
    client->GetAllVM(allVms);
    if (!allVms || allVms->GetLength() == 0) {
        snmp_log(LOG_INFO, "SNMPRaskRefreshCache: no VM found.\n");
        if (allVms) {
            outage.End(Tessim::Clock::now());
        } else {
            outage.Continue(Tessim::Clock::now());
        }
        return;
    }
    snmp_log(LOG_INFO, "SNMPRask: start refreshing cache...\n");
    // VMs without a configuration are skipped.
    const auto vms = Tessim::MakeRef<Ordane::DataArray<Hask::VirtualMachine>>();
    const auto configs = Tessim::MakeRef<Ordane::DataArray<Hask::Vm::ConfigInfo>>();
    for (const Ref<Hask::VirtualMachine>& vm : *allVms) {
        Ref<Hask::Vm::ConfigInfo> config;
        vm->GetConfig(config);
        if (config) {
            vms->Append(vm);
            configs->Append(config);
        }
    }
    allVms->Clear();
    if (SNMP::FillTables(client, vms.Get(), configs.Get())) {
        outage.End(Tessim::Clock::now());
    } else {
        outage.Continue(Tessim::Clock::now());
    }
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
    std::int64_t reserved64 = 0;
    *total = static_cast<std::int32_t>(client->GetMemoryReservation(reserved64));
    *reserved = static_cast<std::int32_t>(reserved64);
}
