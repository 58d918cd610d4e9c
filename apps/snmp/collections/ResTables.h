// The row collections of the four resource tables. All are lists; VMTables.h says what the operations do.
//
// Destroy releases the rows alone: the strings of disk and network rows are lasting strings.
#pragma once

#include "apps/snmp/collections/RowOrder.h"
#include "apps/snmp/collections/Rows.h"

extern resCPUNode* resCPUList;
extern std::int32_t resCPUTableIndex;
extern resCPUNode* resCPUListTravPtr;
extern SNMP::RowOrder<resCPUNode> resCPUOrder;

extern resMemNode* resMemList;
extern std::int32_t resMemTableIndex;
extern resMemNode* resMemListTravPtr;
extern SNMP::RowOrder<resMemNode> resMemOrder;

extern resDiskNode* resDiskList;
extern std::int32_t resDiskTableIndex;
extern resDiskNode* resDiskListTravPtr;
extern SNMP::RowOrder<resDiskNode> resDiskOrder;

extern resNetNode* resNetList;
extern std::int32_t resNetTableIndex;
extern resNetNode* resNetListTravPtr;
extern SNMP::RowOrder<resNetNode> resNetOrder;

extern "C" {

void SNMPResCPUTable_Init();
int SNMPResCPUTable_GetNext(resCPUNode** row);
void SNMPResCPUTable_Destroy();
resCPUNode** SNMPResCPUTable_GetPtr();

void SNMPResMemTable_Init();
int SNMPResMemTable_GetNext(resMemNode** row);
void SNMPResMemTable_Destroy();
resMemNode** SNMPResMemTable_GetPtr();

void SNMPResDiskTable_Init();
int SNMPResDiskTable_GetNext(resDiskNode** row);
void SNMPResDiskTable_Destroy();
resDiskNode** SNMPResDiskTable_GetPtr();

void SNMPResNetTable_Init();
int SNMPResNetTable_GetNext(resNetNode** row);
void SNMPResNetTable_Destroy();
resNetNode** SNMPResNetTable_GetPtr();

}  // extern "C"
