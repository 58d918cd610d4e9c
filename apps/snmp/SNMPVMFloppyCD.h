// The tables of floppy and of CD-ROM drives: their rows, their handlers, their registrations.
//
// Everything here runs on the agent's one request thread.
#pragma once

#include "apps/snmp/NetSnmp.h"
#include "apps/snmp/Rows.h"

// Each collection: the head of a list of `calloc`-ed rows, the number of rows handed out, the row to hand out
// next.
extern vmFloppyNode* vmFloppyList;
extern std::int32_t vmFloppyTableIndex;
extern vmFloppyNode* vmFloppyListTravPtr;
extern vmCDROMNode* vmCDROMList;
extern std::int32_t vmCDROMTableIndex;
extern vmCDROMNode* vmCDROMListTravPtr;

extern "C" {

// Registers both tables with the agent and logs that it did.
void init_SNMPVMFloppyCD();

// Empties both tables.
void deinit_SNMPVMFloppyCD();

// Answers the columns of 1.3.6.1.4.1.32473.2.5.
FindVarMethod SNMP_VMFloppyTable;

// Answers the columns of 1.3.6.1.4.1.32473.2.6.
FindVarMethod SNMP_VMCDROMTable;

// Init starts again at the first row. GetNext stores the next row and answers its position in the list, or
// stores null and answers -1. Destroy releases the rows with their strings. GetPtr is the head variable,
// through which the refresh links rows in; the collection owns them.
void SNMPVMFloppyTable_Init();
int SNMPVMFloppyTable_GetNext(vmFloppyNode** row);
void SNMPVMFloppyTable_Destroy();
vmFloppyNode** SNMPVMFloppyTable_GetPtr();

void SNMPVMCDROMTable_Init();
int SNMPVMCDROMTable_GetNext(vmCDROMNode** row);
void SNMPVMCDROMTable_Destroy();
vmCDROMNode** SNMPVMCDROMTable_GetPtr();

}  // extern "C"
