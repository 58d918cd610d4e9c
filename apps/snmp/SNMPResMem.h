// The service console's memory and the table of the VMs' memory.
#pragma once

#include "apps/snmp/agent/NetSnmp.h"

extern "C" {

// Registers the group with the agent and logs that it did.
void init_SNMPResMem();

// Empties the table.
void deinit_SNMPResMem();

// Handles the scalars 1.3.6.1.4.1.32473.3.2.1 to .3, on the agent's request thread.
FindVarMethod SNMP_ResMem;

// Handles the columns of 1.3.6.1.4.1.32473.3.2.4, on the agent's request thread.
FindVarMethod SNMP_ResMemTable;

}  // extern "C"
