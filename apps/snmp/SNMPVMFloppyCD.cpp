#include "apps/snmp/SNMPVMFloppyCD.h"

#include "apps/snmp/AnswerBuffers.h"
#include "apps/snmp/Guard.h"
#include "apps/snmp/Registration.h"
#include "apps/snmp/RowList.h"
#include "apps/snmp/SNMPRaskHelper.h"
#include "apps/snmp/TableWalk.h"

// Rows.

vmFloppyNode* vmFloppyList = nullptr;
std::int32_t vmFloppyTableIndex = 0;
vmFloppyNode* vmFloppyListTravPtr = nullptr;

void SNMPVMFloppyTable_Init() {
    SNMP::RewindRows(vmFloppyList, vmFloppyTableIndex, vmFloppyListTravPtr);
}

int SNMPVMFloppyTable_GetNext(vmFloppyNode** row) {
    return SNMP::NextRow(row, vmFloppyTableIndex, vmFloppyListTravPtr);
}

void SNMPVMFloppyTable_Destroy() {
    SNMP::DestroyRows(vmFloppyList, &vmFloppyNode::fdBacking, &vmFloppyNode::fdConnected);
}

vmFloppyNode** SNMPVMFloppyTable_GetPtr() {
    return &vmFloppyList;
}

vmCDROMNode* vmCDROMList = nullptr;
std::int32_t vmCDROMTableIndex = 0;
vmCDROMNode* vmCDROMListTravPtr = nullptr;

void SNMPVMCDROMTable_Init() {
    SNMP::RewindRows(vmCDROMList, vmCDROMTableIndex, vmCDROMListTravPtr);
}

int SNMPVMCDROMTable_GetNext(vmCDROMNode** row) {
    return SNMP::NextRow(row, vmCDROMTableIndex, vmCDROMListTravPtr);
}

void SNMPVMCDROMTable_Destroy() {
    SNMP::DestroyRows(vmCDROMList, &vmCDROMNode::cdBacking, &vmCDROMNode::cdConnected);
}

vmCDROMNode** SNMPVMCDROMTable_GetPtr() {
    return &vmCDROMList;
}

// Columns.

namespace {

enum FloppyColumn : u_char { fdVmIdx = 3, fdUnit, fdBacking, fdConnected };

const variable2 floppyTable_variables[] = {
    {fdVmIdx, ASN_INTEGER, RONLY, SNMP_VMFloppyTable, 2, {1, 1}},
    {fdUnit, ASN_INTEGER, RONLY, SNMP_VMFloppyTable, 2, {1, 2}},
    {fdBacking, ASN_OCTET_STR, RONLY, SNMP_VMFloppyTable, 2, {1, 3}},
    {fdConnected, ASN_OCTET_STR, RONLY, SNMP_VMFloppyTable, 2, {1, 4}},
};
const oid floppyTable_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 5};

enum CdromColumn : u_char { cdVmIdx = 3, cdIdeIndex, cdBacking, cdConnected };

const variable2 CDROMTable_variables[] = {
    {cdVmIdx, ASN_INTEGER, RONLY, SNMP_VMCDROMTable, 2, {1, 1}},
    {cdIdeIndex, ASN_INTEGER, RONLY, SNMP_VMCDROMTable, 2, {1, 2}},
    {cdBacking, ASN_OCTET_STR, RONLY, SNMP_VMCDROMTable, 2, {1, 3}},
    {cdConnected, ASN_OCTET_STR, RONLY, SNMP_VMCDROMTable, 2, {1, 4}},
};
const oid CDROMTable_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 6};

// Handlers. A drive without connection information answers an empty text for it.

SNMP::IntegerAnswer floppyInteger;
SNMP::StringAnswer floppyString;
SNMP::IntegerAnswer cdromInteger;
SNMP::StringAnswer cdromString;

}  // namespace

u_char* SNMP_VMFloppyTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                           WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_VMFloppyTable", [&]() -> u_char* {
        SNMPRaskTable_Init();
        const SNMP::Request request{vp, name, length, exact, varLen, writeMethod};
        const vmFloppyNode* const row =
            SNMP::FindListRow(request, SNMPVMFloppyTable_Init, SNMPVMFloppyTable_GetNext,
                              &vmFloppyNode::vmIdx, &vmFloppyNode::fdUnit);
        if (row == nullptr) {
            return nullptr;
        }
        switch (vp->magic) {
            case fdVmIdx:
                return floppyInteger.Set(row->vmIdx, varLen);
            case fdUnit:
                return floppyInteger.Set(row->fdUnit, varLen);
            case fdBacking:
                return floppyString.Set(row->fdBacking, varLen);
            case fdConnected:
                return floppyString.Set(row->fdConnected, varLen);
            default:
                snmp_set_detail("SNMP_VMFloppyTable: Unknown variable requested.\n");
                return nullptr;
        }
    });
}

u_char* SNMP_VMCDROMTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                          WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_VMCDROMTable", [&]() -> u_char* {
        SNMPRaskTable_Init();
        const SNMP::Request request{vp, name, length, exact, varLen, writeMethod};
        const vmCDROMNode* const row =
            SNMP::FindListRow(request, SNMPVMCDROMTable_Init, SNMPVMCDROMTable_GetNext, &vmCDROMNode::vmIdx,
                              &vmCDROMNode::cdIdeIndex);
        if (row == nullptr) {
            return nullptr;
        }
        switch (vp->magic) {
            case cdVmIdx:
                return cdromInteger.Set(row->vmIdx, varLen);
            case cdIdeIndex:
                return cdromInteger.Set(row->cdIdeIndex, varLen);
            case cdBacking:
                return cdromString.Set(row->cdBacking, varLen);
            case cdConnected:
                return cdromString.Set(row->cdConnected, varLen);
            default:
                snmp_set_detail("SNMP_VMCDROMTable: Unknown variable requested.\n");
                return nullptr;
        }
    });
}

// Registration.

namespace {
SNMP::Registration floppyRegistration("floppyTable", floppyTable_variables, floppyTable_variables_oid,
                                      "init_SNMPVMFloppyCD", __FILE__, 79);
SNMP::Registration cdromRegistration("CDROMTable", CDROMTable_variables, CDROMTable_variables_oid,
                                     "init_SNMPVMFloppyCD", __FILE__, 81);
}  // namespace

void init_SNMPVMFloppyCD() {
    floppyRegistration.Register();
    cdromRegistration.Register();
    snmp_log(LOG_INFO, "SNMPVMFloppyCD: Initialized.\n");
}

void deinit_SNMPVMFloppyCD() {
    SNMPVMFloppyTable_Destroy();
    SNMPVMCDROMTable_Destroy();
}
