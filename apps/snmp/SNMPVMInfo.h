// The virtual-machine table: its rows, its handler, its registration.
//
// Everything here runs on the agent's one request thread.
#pragma once

#include "apps/snmp/NetSnmp.h"
#include "apps/snmp/Rows.h"

// The collection: a `calloc`-ed block of rows or null, the number of rows, and the position of the row to
// hand out next.
extern vmEntry* vmInfoTable;
extern std::int32_t vmInfoTableNumEnt;
extern std::int32_t vmInfoTableIndex;

extern "C" {

// Registers the table with the agent and logs that it did.
void init_SNMPVMInfo();

// Empties the table.
void deinit_SNMPVMInfo();

// Answers the columns of 1.3.6.1.4.1.32473.2.1.
FindVarMethod SNMP_VMInfoTable;

// Starts again at the first row.
void SNMPVMInfoTable_Init();

// Stores the next row and answers its position; stores null and answers -1 at the end.
int SNMPVMInfoTable_GetNext(vmEntry** row);

// Releases the rows with their strings and leaves the table empty.
void SNMPVMInfoTable_Destroy();

// The variable through which the refresh stores a block of rows; the collection owns the block.
vmEntry** SNMPVMInfoTable_GetPtr();

// Says how many rows the block has.
void SNMPVMInfoTable_SetNumEntries(int n);

}  // extern "C"
