// The entry of the module, and the kernel group.
#pragma once

#include "apps/snmp/agent/NetSnmp.h"

extern "C" {

// The agent calls this after loading the module: registers every group, then starts the management client.
// A refused registration or an unreachable daemon is never fatal. May be called again at any time.
void init_SNMPKelv();

// The agent calls this before unloading the module: empties every table and, when it matches the last
// init_SNMPKelv, unregisters every variable. The management client stays.
void deinit_SNMPKelv();

// Registers the kernel group with the agent and logs that it did.
void init_SNMPKelvTbl();

// Does nothing: the group has no rows.
void deinit_SNMPKelvTbl();

// Handles the scalar 1.3.6.1.4.1.32473.4.1.1.1: "yes" while the kernel's process directory exists, else "no".
FindVarMethod SNMP_KelvNorv;

}  // extern "C"
