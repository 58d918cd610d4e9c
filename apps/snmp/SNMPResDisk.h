// The table of the disks of running virtual machines: its rows, its handler, its registration.
//
// Everything here runs on the agent's one request thread.
#pragma once

#include "apps/snmp/NetSnmp.h"
#include "apps/snmp/Rows.h"

// The collection: the head of a list of `calloc`-ed rows, the number of rows handed out, the row to hand out
// next.
extern resDiskNode* resDiskList;
extern std::int32_t resDiskTableIndex;
extern resDiskNode* resDiskListTravPtr;

extern "C" {

// Registers the group with the agent and logs that it did.
void init_SNMPResDisk();

// Empties the table.
void deinit_SNMPResDisk();

// Answers the columns of 1.3.6.1.4.1.32473.3.3.
FindVarMethod SNMP_ResDiskTable;

// Init starts again at the first row. GetNext stores the next row and answers its position in the list, or
// stores null and answers -1. Destroy releases the rows but not their strings, which outlive them. GetPtr is
// the head variable, through which the refresh links rows in; the collection owns them.
void SNMPResDiskTable_Init();
int SNMPResDiskTable_GetNext(resDiskNode** row);
void SNMPResDiskTable_Destroy();
resDiskNode** SNMPResDiskTable_GetPtr();

}  // extern "C"
