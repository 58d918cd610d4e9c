// The tables of storage adapters and of virtual disks: their rows, their handlers, their registrations.
//
// Everything here runs on the agent's one request thread.
#pragma once

#include "apps/snmp/NetSnmp.h"
#include "apps/snmp/Rows.h"

// Each collection: the head of a list of `calloc`-ed rows, the number of rows handed out, the row to hand out
// next.
extern vmHBANode* vmHBAList;
extern std::int32_t vmHBATableIndex;
extern vmHBANode* vmHBAListTravPtr;
extern vmHBATgtNode* vmHBATgtList;
extern std::int32_t vmHBATgtTableIndex;
extern vmHBATgtNode* vmHBATgtListTravPtr;

extern "C" {

// Registers both tables with the agent and logs that it did.
void init_SNMPVMDisk();

// Empties both tables.
void deinit_SNMPVMDisk();

// Answers the columns of 1.3.6.1.4.1.32473.2.2.
FindVarMethod SNMP_VMHBATable;

// Answers the columns of 1.3.6.1.4.1.32473.2.3.
FindVarMethod SNMP_VMHBATgtTable;

// Init starts again at the first row. GetNext stores the next row and answers its position in the list, or
// stores null and answers -1. Destroy releases the rows with their strings. GetPtr is the head variable,
// through which the refresh links rows in; the collection owns them.
void SNMPVMHBATable_Init();
int SNMPVMHBATable_GetNext(vmHBANode** row);
void SNMPVMHBATable_Destroy();
vmHBANode** SNMPVMHBATable_GetPtr();

void SNMPVMHBATgtTable_Init();
int SNMPVMHBATgtTable_GetNext(vmHBATgtNode** row);
void SNMPVMHBATgtTable_Destroy();
vmHBATgtNode** SNMPVMHBATgtTable_GetPtr();

}  // extern "C"
