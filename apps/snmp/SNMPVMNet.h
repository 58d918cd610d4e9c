// The table of the VMs' network cards.
#pragma once

#include "apps/snmp/agent/NetSnmp.h"

extern "C" {

// Registers the group with the agent and logs that it did.
void init_SNMPVMNet();

// Empties the table.
void deinit_SNMPVMNet();

// Handles the columns of 1.3.6.1.4.1.32473.2.4, on the agent's request thread.
FindVarMethod SNMP_VMNetTable;

}  // extern "C"
