// Reads the row collections back.
#pragma once

#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>
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
inline std::string Counts() {
    std::string text = std::to_string(Vms().size());
    for (const std::size_t count :
         {Nics().size(), Hbas().size(), Targets().size(), Floppies().size(), Cdroms().size(), Cpus().size(),
          Memories().size(), Disks().size(), Cards().size()}) {
        text += ' ' + std::to_string(count);
    }
    return text;
}

// A line of text: the name of the table and the values of a row, strings quoted.
template <class... Values>
std::string Line(const char* table, const Values&... values) {
    std::ostringstream line;
    line << std::setprecision(std::numeric_limits<float>::max_digits10) << table;
    const auto put = [&](const auto& value) {
        if constexpr (!std::is_pointer_v<std::decay_t<decltype(value)>>) {
            line << ' ' << value;
        } else if (value != nullptr) {
            line << ' ' << std::quoted(value);
        } else {
            line << " null";
        }
    };
    (put(values), ...);
    line << '\n';
    return line.str();
}

// One line per row, whose values are in the order of the row's members.
inline std::string VmText() {
    std::string text;
    for (const auto* row : Vms()) {
        text += Line("vm", row->vmIdx, row->vmDisplayName, row->vmConfigFile, row->vmGuestOS, row->vmMemSize,
                     row->vmState, row->vmVMID, row->vmGuestState);
    }
    return text;
}

inline std::string DeviceText() {
    std::string text;
    for (const auto* row : Nics()) {
        text += Line("nic", row->vmIdx, row->nicIdx, row->nicLabel, row->nicNetwork, row->nicDevice);
    }
    for (const auto* row : Hbas()) {
        text += Line("hba", row->vmIdx, row->hbaBus, row->hbaLabel, row->hbaType);
    }
    for (const auto* row : Targets()) {
        text += Line("target", row->vmIdx, row->tgtUnit, row->tgtLabel);
    }
    for (const auto* row : Floppies()) {
        text += Line("floppy", row->vmIdx, row->fdUnit, row->fdBacking, row->fdConnected);
    }
    for (const auto* row : Cdroms()) {
        text += Line("cdrom", row->vmIdx, row->cdIdeIndex, row->cdBacking, row->cdConnected);
    }
    return text;
}

inline std::string ResourceText() {
    std::string text;
    for (const auto* row : Cpus()) {
        text += Line("cpu", row->cpuVMID, row->cpuShares, row->cpuUsedSec);
    }
    for (const auto* row : Memories()) {
        text += Line("memory", row->memVMID, row->memShares, row->memConfiguredKB, row->memActive);
    }
    for (const auto* row : Disks()) {
        text += Line("disk", row->diskIdx, row->diskName, row->diskVMID, row->diskShares, row->diskNumRead,
                     row->diskRead, row->diskNumWrite, row->diskWrite);
    }
    for (const auto* row : Cards()) {
        text += Line("card", row->netIdx, row->netName, row->netVMID, row->netMac, row->netSpare,
                     row->netPktTx, row->netTx, row->netPktRx, row->netRx, row->netHCPktTx, row->netHCTx,
                     row->netHCPktRx, row->netHCRx);
    }
    return text;
}

}  // namespace TestRows
