#include "tests/unit/snmp/rows.h"

#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResDisk.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPResNet.h"
#include "apps/snmp/SNMPVMDisk.h"
#include "apps/snmp/SNMPVMFloppyCD.h"
#include "apps/snmp/SNMPVMInfo.h"
#include "apps/snmp/SNMPVMNet.h"
#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/collections/VMTables.h"

vmEntry* MakeVmRows(int count) {
    auto* const rows = static_cast<vmEntry*>(std::calloc(static_cast<std::size_t>(count), sizeof(vmEntry)));
    *SNMPVMInfoTable_GetPtr() = rows;
    SNMPVMInfoTable_SetNumEntries(count);
    return rows;
}

void DestroyAllRows() {
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
