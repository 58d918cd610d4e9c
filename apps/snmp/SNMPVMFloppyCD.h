// The tables of the VMs' floppy and CD-ROM drives.
#pragma once

#include "apps/snmp/agent/NetSnmp.h"

extern "C" {

// Registers both tables with the agent and logs that it did.
void init_SNMPVMFloppyCD();

// Empties both tables.
void deinit_SNMPVMFloppyCD();

// Handles the columns of 1.3.6.1.4.1.32473.2.5, on the agent's request thread. Here and below, a drive
// without connection information returns an empty text for it.
FindVarMethod SNMP_VMFloppyTable;

// Handles the columns of 1.3.6.1.4.1.32473.2.6, on the agent's request thread.
FindVarMethod SNMP_VMCDROMTable;

}  // extern "C"
