#include "apps/snmp/collections/VMTables.h"

#include <cstdlib>

#include "apps/snmp/collections/RowList.h"

vmEntry* vmInfoTable = nullptr;
std::int32_t vmInfoTableNumEnt = 0;
std::int32_t vmInfoTableIndex = 0;

void SNMPVMInfoTable_Init() {
    vmInfoTableIndex = 0;
}

int SNMPVMInfoTable_GetNext(vmEntry** row) {
    if (vmInfoTableIndex >= vmInfoTableNumEnt) {
        *row = nullptr;
        return -1;
    }
    *row = vmInfoTable + vmInfoTableIndex;
    return vmInfoTableIndex++;
}

void SNMPVMInfoTable_Destroy() {
    if (vmInfoTable != nullptr) {
        for (std::int32_t position = 0; position < vmInfoTableNumEnt; ++position) {
            SNMP::FreeStrings(vmInfoTable[position]);
        }
        std::free(vmInfoTable);
        vmInfoTable = nullptr;
    }
    vmInfoTableNumEnt = 0;
}

vmEntry** SNMPVMInfoTable_GetPtr() {
    return &vmInfoTable;
}

void SNMPVMInfoTable_SetNumEntries(int n) {
    vmInfoTableNumEnt = n;
}

vmHBANode* vmHBAList = nullptr;
std::int32_t vmHBATableIndex = 0;
vmHBANode* vmHBAListTravPtr = nullptr;
SNMP::RowOrder<vmHBANode> vmHBAOrder(vmHBAList);

void SNMPVMHBATable_Init() {
    SNMP::RewindRows(vmHBAList, vmHBATableIndex, vmHBAListTravPtr);
}

int SNMPVMHBATable_GetNext(vmHBANode** row) {
    return SNMP::NextRow(row, vmHBATableIndex, vmHBAListTravPtr);
}

void SNMPVMHBATable_Destroy() {
    SNMP::DestroyRows(vmHBAList, vmHBAOrder);
}

vmHBANode** SNMPVMHBATable_GetPtr() {
    vmHBAOrder.ShareHead();
    return &vmHBAList;
}

vmHBATgtNode* vmHBATgtList = nullptr;
std::int32_t vmHBATgtTableIndex = 0;
vmHBATgtNode* vmHBATgtListTravPtr = nullptr;
SNMP::RowOrder<vmHBATgtNode> vmHBATgtOrder(vmHBATgtList);

void SNMPVMHBATgtTable_Init() {
    SNMP::RewindRows(vmHBATgtList, vmHBATgtTableIndex, vmHBATgtListTravPtr);
}

int SNMPVMHBATgtTable_GetNext(vmHBATgtNode** row) {
    return SNMP::NextRow(row, vmHBATgtTableIndex, vmHBATgtListTravPtr);
}

void SNMPVMHBATgtTable_Destroy() {
    SNMP::DestroyRows(vmHBATgtList, vmHBATgtOrder);
}

vmHBATgtNode** SNMPVMHBATgtTable_GetPtr() {
    vmHBATgtOrder.ShareHead();
    return &vmHBATgtList;
}

vmNetNode* vmNetList = nullptr;
std::int32_t vmNetTableIndex = 0;
vmNetNode* vmNetListTravPtr = nullptr;
SNMP::RowOrder<vmNetNode> vmNetOrder(vmNetList);

void SNMPVMNetTable_Init() {
    SNMP::RewindRows(vmNetList, vmNetTableIndex, vmNetListTravPtr);
}

int SNMPVMNetTable_GetNext(vmNetNode** row) {
    return SNMP::NextRow(row, vmNetTableIndex, vmNetListTravPtr);
}

void SNMPVMNetTable_Destroy() {
    SNMP::DestroyRows(vmNetList, vmNetOrder);
}

vmNetNode** SNMPVMNetTable_GetPtr() {
    vmNetOrder.ShareHead();
    return &vmNetList;
}

vmFloppyNode* vmFloppyList = nullptr;
std::int32_t vmFloppyTableIndex = 0;
vmFloppyNode* vmFloppyListTravPtr = nullptr;
SNMP::RowOrder<vmFloppyNode> vmFloppyOrder(vmFloppyList);

void SNMPVMFloppyTable_Init() {
    SNMP::RewindRows(vmFloppyList, vmFloppyTableIndex, vmFloppyListTravPtr);
}

int SNMPVMFloppyTable_GetNext(vmFloppyNode** row) {
    return SNMP::NextRow(row, vmFloppyTableIndex, vmFloppyListTravPtr);
}

void SNMPVMFloppyTable_Destroy() {
    SNMP::DestroyRows(vmFloppyList, vmFloppyOrder);
}

vmFloppyNode** SNMPVMFloppyTable_GetPtr() {
    vmFloppyOrder.ShareHead();
    return &vmFloppyList;
}

vmCDROMNode* vmCDROMList = nullptr;
std::int32_t vmCDROMTableIndex = 0;
vmCDROMNode* vmCDROMListTravPtr = nullptr;
SNMP::RowOrder<vmCDROMNode> vmCDROMOrder(vmCDROMList);

void SNMPVMCDROMTable_Init() {
    SNMP::RewindRows(vmCDROMList, vmCDROMTableIndex, vmCDROMListTravPtr);
}

int SNMPVMCDROMTable_GetNext(vmCDROMNode** row) {
    return SNMP::NextRow(row, vmCDROMTableIndex, vmCDROMListTravPtr);
}

void SNMPVMCDROMTable_Destroy() {
    SNMP::DestroyRows(vmCDROMList, vmCDROMOrder);
}

vmCDROMNode** SNMPVMCDROMTable_GetPtr() {
    vmCDROMOrder.ShareHead();
    return &vmCDROMList;
}
