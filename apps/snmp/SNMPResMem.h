// The table of the memory of running virtual machines, and the host's memory figures: rows, handlers,
// registration.
//
// Everything here runs on the agent's one request thread.
#pragma once

#include "apps/snmp/NetSnmp.h"
#include "apps/snmp/Rows.h"

// The collection: the head of a list of `calloc`-ed rows, the number of rows handed out, the row to hand out
// next.
extern resMemNode* resMemList;
extern std::int32_t resMemTableIndex;
extern resMemNode* resMemListTravPtr;

extern "C" {

// Registers the group with the agent and logs that it did.
void init_SNMPResMem();

// Empties the table.
void deinit_SNMPResMem();

// Answers the scalars 1.3.6.1.4.1.32473.3.2.1 to .3.
FindVarMethod SNMP_ResMem;

// Answers the columns of 1.3.6.1.4.1.32473.3.2.4.
FindVarMethod SNMP_ResMemTable;

// Init starts again at the first row. GetNext stores the next row and answers its position in the list, or
// stores null and answers -1. Destroy releases the rows. GetPtr is the head variable, through which the
// refresh links rows in; the collection owns them.
void SNMPResMemTable_Init();
int SNMPResMemTable_GetNext(resMemNode** row);
void SNMPResMemTable_Destroy();
resMemNode** SNMPResMemTable_GetPtr();

}  // extern "C"
