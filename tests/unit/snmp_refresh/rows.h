// Reads the row collections back.
#pragma once

#include <string>
#include <vector>

#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResDisk.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPResNet.h"
#include "apps/snmp/SNMPVMDisk.h"
#include "apps/snmp/SNMPVMFloppyCD.h"
#include "apps/snmp/SNMPVMInfo.h"
#include "apps/snmp/SNMPVMNet.h"
#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/collections/Rows.h"
#include "apps/snmp/collections/VMTables.h"
#include "apps/snmp/refresh/SNMPRaskHelper.h"

namespace TestRows {

// The rows of a list, in its order. They belong to the list.
template <class Row>
std::vector<const Row*> List(const Row* head) {
    std::vector<const Row*> rows;
    for (; head != nullptr; head = head->next) {
        rows.push_back(head);
    }
    return rows;
}

inline auto Vms() {
    std::vector<const vmEntry*> rows;
    rows.reserve(static_cast<std::size_t>(vmInfoTableNumEnt));
    for (int i = 0; i < vmInfoTableNumEnt; ++i) {
        rows.push_back(*SNMPVMInfoTable_GetPtr() + i);
    }
    return rows;
}
inline auto Nics() {
    return List<vmNetNode>(*SNMPVMNetTable_GetPtr());
}
inline auto Hbas() {
    return List<vmHBANode>(*SNMPVMHBATable_GetPtr());
}
inline auto Targets() {
    return List<vmHBATgtNode>(*SNMPVMHBATgtTable_GetPtr());
}
inline auto Cdroms() {
    return List<vmCDROMNode>(*SNMPVMCDROMTable_GetPtr());
}
inline auto Floppies() {
    return List<vmFloppyNode>(*SNMPVMFloppyTable_GetPtr());
}
inline auto Cpus() {
    return List<resCPUNode>(*SNMPResCPUTable_GetPtr());
}
inline auto Memories() {
    return List<resMemNode>(*SNMPResMemTable_GetPtr());
}
inline auto Disks() {
    return List<resDiskNode>(*SNMPResDiskTable_GetPtr());
}
inline auto Cards() {
    return List<resNetNode>(*SNMPResNetTable_GetPtr());
}

// How many rows each table has: VMs, network cards, adapters, targets, floppy drives, CD-ROM drives, then
// CPUs, memories, disks and network cards of the resource groups.
inline std::vector<std::size_t> Counts() {
    return {Vms().size(),    Nics().size(), Hbas().size(),     Targets().size(), Floppies().size(),
            Cdroms().size(), Cpus().size(), Memories().size(), Disks().size(),   Cards().size()};
}

}  // namespace TestRows
