#include "apps/snmp/collections/ResTables.h"

#include "apps/snmp/collections/RowList.h"

resCPUNode* resCPUList = nullptr;
std::int32_t resCPUTableIndex = 0;
resCPUNode* resCPUListTravPtr = nullptr;
SNMP::RowOrder<resCPUNode> resCPUOrder(resCPUList);

void SNMPResCPUTable_Init() {
    SNMP::RewindRows(resCPUList, resCPUTableIndex, resCPUListTravPtr);
}

int SNMPResCPUTable_GetNext(resCPUNode** row) {
    return SNMP::NextRow(row, resCPUTableIndex, resCPUListTravPtr);
}

void SNMPResCPUTable_Destroy() {
    SNMP::DestroyRows(resCPUList, resCPUOrder);
}

resCPUNode** SNMPResCPUTable_GetPtr() {
    resCPUOrder.ShareHead();
    return &resCPUList;
}

resMemNode* resMemList = nullptr;
std::int32_t resMemTableIndex = 0;
resMemNode* resMemListTravPtr = nullptr;
SNMP::RowOrder<resMemNode> resMemOrder(resMemList);

void SNMPResMemTable_Init() {
    SNMP::RewindRows(resMemList, resMemTableIndex, resMemListTravPtr);
}

int SNMPResMemTable_GetNext(resMemNode** row) {
    return SNMP::NextRow(row, resMemTableIndex, resMemListTravPtr);
}

void SNMPResMemTable_Destroy() {
    SNMP::DestroyRows(resMemList, resMemOrder);
}

resMemNode** SNMPResMemTable_GetPtr() {
    resMemOrder.ShareHead();
    return &resMemList;
}

resDiskNode* resDiskList = nullptr;
std::int32_t resDiskTableIndex = 0;
resDiskNode* resDiskListTravPtr = nullptr;
SNMP::RowOrder<resDiskNode> resDiskOrder(resDiskList);

void SNMPResDiskTable_Init() {
    SNMP::RewindRows(resDiskList, resDiskTableIndex, resDiskListTravPtr);
}

int SNMPResDiskTable_GetNext(resDiskNode** row) {
    return SNMP::NextRow(row, resDiskTableIndex, resDiskListTravPtr);
}

void SNMPResDiskTable_Destroy() {
    SNMP::DestroyRows(resDiskList, resDiskOrder);
}

resDiskNode** SNMPResDiskTable_GetPtr() {
    resDiskOrder.ShareHead();
    return &resDiskList;
}

resNetNode* resNetList = nullptr;
std::int32_t resNetTableIndex = 0;
resNetNode* resNetListTravPtr = nullptr;
SNMP::RowOrder<resNetNode> resNetOrder(resNetList);

void SNMPResNetTable_Init() {
    SNMP::RewindRows(resNetList, resNetTableIndex, resNetListTravPtr);
}

int SNMPResNetTable_GetNext(resNetNode** row) {
    return SNMP::NextRow(row, resNetTableIndex, resNetListTravPtr);
}

void SNMPResNetTable_Destroy() {
    SNMP::DestroyRows(resNetList, resNetOrder);
}

resNetNode** SNMPResNetTable_GetPtr() {
    resNetOrder.ShareHead();
    return &resNetList;
}
