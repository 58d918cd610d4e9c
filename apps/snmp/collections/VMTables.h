// The row collections of the six VM tables.
//
// Used on the agent's one request thread; a walk must not be interleaved with another walk of the same table
// or with a refresh. The operations of a list collection:
//   Init     rewinds to the first row.
//   GetNext  stores the next row, which is for reading, and returns its position in the list; stores null
//            and returns -1 at the end.
//   Destroy  releases the rows and the strings that they own, and leaves the list empty. Rows returned
//            before are invalid then; the cursor stays as it is until the next Init.
//   GetPtr   returns the address of the head variable, through which its caller may link, unlink and release
//            rows at any time; every later request walks the list. Rows are `calloc`-ed, and the collection
//            owns them while they are linked. The rebuild uses the head variable itself.
#pragma once

#include "apps/snmp/collections/RowOrder.h"
#include "apps/snmp/collections/Rows.h"

// An array: the block of rows or null, the number of rows, and the position that GetNext returns next.
extern vmEntry* vmInfoTable;
extern std::int32_t vmInfoTableNumEnt;
extern std::int32_t vmInfoTableIndex;

// A list: its head, the number of rows returned since the last Init, the row that GetNext returns next, and
// the order of its rows.
extern vmHBANode* vmHBAList;
extern std::int32_t vmHBATableIndex;
extern vmHBANode* vmHBAListTravPtr;
extern SNMP::RowOrder<vmHBANode> vmHBAOrder;

extern vmHBATgtNode* vmHBATgtList;
extern std::int32_t vmHBATgtTableIndex;
extern vmHBATgtNode* vmHBATgtListTravPtr;
extern SNMP::RowOrder<vmHBATgtNode> vmHBATgtOrder;

extern vmNetNode* vmNetList;
extern std::int32_t vmNetTableIndex;
extern vmNetNode* vmNetListTravPtr;
extern SNMP::RowOrder<vmNetNode> vmNetOrder;

extern vmFloppyNode* vmFloppyList;
extern std::int32_t vmFloppyTableIndex;
extern vmFloppyNode* vmFloppyListTravPtr;
extern SNMP::RowOrder<vmFloppyNode> vmFloppyOrder;

extern vmCDROMNode* vmCDROMList;
extern std::int32_t vmCDROMTableIndex;
extern vmCDROMNode* vmCDROMListTravPtr;
extern SNMP::RowOrder<vmCDROMNode> vmCDROMOrder;

extern "C" {

// The array's operations differ from a list's in two: GetPtr returns the address of the block's pointer, and
// SetNumEntries stores the number of rows, after the block.
void SNMPVMInfoTable_Init();
int SNMPVMInfoTable_GetNext(vmEntry** row);
void SNMPVMInfoTable_Destroy();
vmEntry** SNMPVMInfoTable_GetPtr();
void SNMPVMInfoTable_SetNumEntries(int n);

void SNMPVMHBATable_Init();
int SNMPVMHBATable_GetNext(vmHBANode** row);
void SNMPVMHBATable_Destroy();
vmHBANode** SNMPVMHBATable_GetPtr();

void SNMPVMHBATgtTable_Init();
int SNMPVMHBATgtTable_GetNext(vmHBATgtNode** row);
void SNMPVMHBATgtTable_Destroy();
vmHBATgtNode** SNMPVMHBATgtTable_GetPtr();

void SNMPVMNetTable_Init();
int SNMPVMNetTable_GetNext(vmNetNode** row);
void SNMPVMNetTable_Destroy();
vmNetNode** SNMPVMNetTable_GetPtr();

void SNMPVMFloppyTable_Init();
int SNMPVMFloppyTable_GetNext(vmFloppyNode** row);
void SNMPVMFloppyTable_Destroy();
vmFloppyNode** SNMPVMFloppyTable_GetPtr();

void SNMPVMCDROMTable_Init();
int SNMPVMCDROMTable_GetNext(vmCDROMNode** row);
void SNMPVMCDROMTable_Destroy();
vmCDROMNode** SNMPVMCDROMTable_GetPtr();

}  // extern "C"
