// The table of VMs.
#pragma once

#include "apps/snmp/agent/NetSnmp.h"

extern "C" {

// Registers the group with the agent and logs that it did.
void init_SNMPVMInfo();

// Empties the table.
void deinit_SNMPVMInfo();

// Handles the columns of 1.3.6.1.4.1.32473.2.1, on the agent's request thread.
FindVarMethod SNMP_VMInfoTable;

}  // extern "C"
