// The product group: name, version and build of the hypervisor. Everything here runs on the agent's request
// thread.
#pragma once

#include "apps/snmp/agent/NetSnmp.h"

extern "C" {

// Registers the group with the agent and logs that it did.
void init_SNMPSystem();

// Handles the scalars 1.3.6.1.4.1.32473.1.1 to .4. Until the daemon was reached, texts are empty and the
// version identifier ends in 0.0.0.
FindVarMethod SNMP_System;

}  // extern "C"

// Does nothing: the group holds nothing. The one function of the module with its mangled name.
void deinit_SNMPSystem();
