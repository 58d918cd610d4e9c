// The tables of the VMs' SCSI controllers and disks.
#pragma once

#include "apps/snmp/agent/NetSnmp.h"

extern "C" {

// Registers both tables with the agent and logs that it did.
void init_SNMPVMDisk();

// Empties both tables.
void deinit_SNMPVMDisk();

// Handles the columns of 1.3.6.1.4.1.32473.2.2, on the agent's request thread.
FindVarMethod SNMP_VMHBATable;

// Handles the columns of 1.3.6.1.4.1.32473.2.3, on the agent's request thread. Disks are indexed by their
// unit number alone, not by their controller: of two with one number, only the first is ever returned.
FindVarMethod SNMP_VMHBATgtTable;

}  // extern "C"
