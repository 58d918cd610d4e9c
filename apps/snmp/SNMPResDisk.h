// The table of the VMs' disk statistics.
#pragma once

#include "apps/snmp/agent/NetSnmp.h"

extern "C" {

// Registers the group with the agent and logs that it did.
void init_SNMPResDisk();

// Empties the table.
void deinit_SNMPResDisk();

// Handles the columns of 1.3.6.1.4.1.32473.3.3, on the agent's request thread.
FindVarMethod SNMP_ResDiskTable;

}  // extern "C"
