// The table of Ethernet cards: its rows, its handler, its registration.
//
// Everything here runs on the agent's one request thread.
#pragma once

#include "apps/snmp/NetSnmp.h"
#include "apps/snmp/Rows.h"

// The collection: the head of a list of `calloc`-ed rows, the number of rows handed out, the row to hand out
// next.
extern vmNetNode* vmNetList;
extern std::int32_t vmNetTableIndex;
extern vmNetNode* vmNetListTravPtr;

extern "C" {

// Registers the table with the agent and logs that it did.
void init_SNMPVMNet();

// Empties the table.
void deinit_SNMPVMNet();

// Answers the columns of 1.3.6.1.4.1.32473.2.4.
FindVarMethod SNMP_VMNetTable;

// Init starts again at the first row. GetNext stores the next row and answers its position in the list, or
// stores null and answers -1. Destroy releases the rows with their strings. GetPtr is the head variable,
// through which the refresh links rows in; the collection owns them.
void SNMPVMNetTable_Init();
int SNMPVMNetTable_GetNext(vmNetNode** row);
void SNMPVMNetTable_Destroy();
vmNetNode** SNMPVMNetTable_GetPtr();

}  // extern "C"
