// The host's number of CPU cores and the table of the VMs' virtual CPUs.
#pragma once

#include "apps/snmp/agent/NetSnmp.h"

extern "C" {

// Registers the group with the agent and logs that it did.
void init_SNMPResCPU();

// Empties the table.
void deinit_SNMPResCPU();

// Handles the scalar 1.3.6.1.4.1.32473.3.1.1, on the agent's request thread.
FindVarMethod SNMP_ResCPU;

// Handles the columns of 1.3.6.1.4.1.32473.3.1.2, on the agent's request thread. A row's index is the VM's id
// plus the CPU's number, so that rows of VMs with close ids collide: of rows with one index, only the first
// is ever returned.
FindVarMethod SNMP_ResCPUTable;

}  // extern "C"
