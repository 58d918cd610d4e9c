// The table of the processors of running virtual machines, and the host's number of processors: rows,
// handlers, registration.
//
// Everything here runs on the agent's one request thread.
#pragma once

#include "apps/snmp/NetSnmp.h"
#include "apps/snmp/Rows.h"

// The collection: the head of a list of `calloc`-ed rows, the number of rows handed out, the row to hand out
// next.
extern resCPUNode* resCPUList;
extern std::int32_t resCPUTableIndex;
extern resCPUNode* resCPUListTravPtr;

extern "C" {

// Registers the group with the agent and logs that it did.
void init_SNMPResCPU();

// Empties the table.
void deinit_SNMPResCPU();

// Answers the scalar 1.3.6.1.4.1.32473.3.1.1.
FindVarMethod SNMP_ResCPU;

// Answers the columns of 1.3.6.1.4.1.32473.3.1.2.
FindVarMethod SNMP_ResCPUTable;

// Init starts again at the first row. GetNext stores the next row and answers its position in the list, or
// stores null and answers -1. Destroy releases the rows. GetPtr is the head variable, through which the
// refresh links rows in; the collection owns them.
void SNMPResCPUTable_Init();
int SNMPResCPUTable_GetNext(resCPUNode** row);
void SNMPResCPUTable_Destroy();
resCPUNode** SNMPResCPUTable_GetPtr();

}  // extern "C"
