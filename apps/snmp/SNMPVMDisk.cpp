#include "apps/snmp/SNMPVMDisk.h"

#include "apps/snmp/AnswerBuffers.h"
#include "apps/snmp/Guard.h"
#include "apps/snmp/Registration.h"
#include "apps/snmp/RowList.h"
#include "apps/snmp/SNMPRaskHelper.h"
#include "apps/snmp/TableWalk.h"

// Rows.

vmHBANode* vmHBAList = nullptr;
std::int32_t vmHBATableIndex = 0;
vmHBANode* vmHBAListTravPtr = nullptr;

void SNMPVMHBATable_Init() {
    SNMP::RewindRows(vmHBAList, vmHBATableIndex, vmHBAListTravPtr);
}

int SNMPVMHBATable_GetNext(vmHBANode** row) {
    return SNMP::NextRow(row, vmHBATableIndex, vmHBAListTravPtr);
}

void SNMPVMHBATable_Destroy() {
    SNMP::DestroyRows(vmHBAList, &vmHBANode::hbaLabel, &vmHBANode::hbaType);
}

vmHBANode** SNMPVMHBATable_GetPtr() {
    return &vmHBAList;
}

vmHBATgtNode* vmHBATgtList = nullptr;
std::int32_t vmHBATgtTableIndex = 0;
vmHBATgtNode* vmHBATgtListTravPtr = nullptr;

void SNMPVMHBATgtTable_Init() {
    SNMP::RewindRows(vmHBATgtList, vmHBATgtTableIndex, vmHBATgtListTravPtr);
}

int SNMPVMHBATgtTable_GetNext(vmHBATgtNode** row) {
    return SNMP::NextRow(row, vmHBATgtTableIndex, vmHBATgtListTravPtr);
}

void SNMPVMHBATgtTable_Destroy() {
    SNMP::DestroyRows(vmHBATgtList, &vmHBATgtNode::tgtLabel);
}

vmHBATgtNode** SNMPVMHBATgtTable_GetPtr() {
    return &vmHBATgtList;
}

// Columns.

namespace {

enum HbaColumn : u_char { hbaVmIdx = 3, hbaBus, hbaLabel, hbaType };

const variable2 SNMPVMHBA_variables[] = {
    {hbaVmIdx, ASN_INTEGER, RONLY, SNMP_VMHBATable, 2, {1, 1}},
    {hbaBus, ASN_INTEGER, RONLY, SNMP_VMHBATable, 2, {1, 2}},
    {hbaLabel, ASN_OCTET_STR, RONLY, SNMP_VMHBATable, 2, {1, 3}},
    {hbaType, ASN_OCTET_STR, RONLY, SNMP_VMHBATable, 2, {1, 4}},
};
const oid SNMPVMHBA_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 2};

enum TgtColumn : u_char { tgtVmIdx = 9, tgtUnit, tgtLabel };

const variable2 SNMPVMTgt_variables[] = {
    {tgtVmIdx, ASN_INTEGER, RONLY, SNMP_VMHBATgtTable, 2, {1, 1}},
    {tgtUnit, ASN_INTEGER, RONLY, SNMP_VMHBATgtTable, 2, {1, 2}},
    {tgtLabel, ASN_OCTET_STR, RONLY, SNMP_VMHBATgtTable, 2, {1, 3}},
};
const oid SNMPVMTgt_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 3};

// Handlers.

SNMP::IntegerAnswer hbaInteger;
SNMP::StringAnswer hbaString;
SNMP::IntegerAnswer tgtInteger;
SNMP::StringAnswer tgtString;

}  // namespace

u_char* SNMP_VMHBATable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                        WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_VMHBATable", [&]() -> u_char* {
        SNMPRaskTable_Init();
        const SNMP::Request request{vp, name, length, exact, varLen, writeMethod};
        const vmHBANode* const row = SNMP::FindListRow(request, SNMPVMHBATable_Init, SNMPVMHBATable_GetNext,
                                                       &vmHBANode::vmIdx, &vmHBANode::hbaBus);
        if (row == nullptr) {
            return nullptr;
        }
        switch (vp->magic) {
            case hbaVmIdx:
                return hbaInteger.Set(row->vmIdx, varLen);
            case hbaBus:
                return hbaInteger.Set(row->hbaBus, varLen);
            case hbaLabel:
                return hbaString.Set(row->hbaLabel, varLen);
            case hbaType:
                return hbaString.Set(row->hbaType, varLen);
            default:
                snmp_set_detail("SNMP_VMHBATable: Unknown variable requested.\n");
                return nullptr;
        }
    });
}

// Disks are indexed by their unit number alone, not by their controller: of two with one number, only the
// first is ever answered.
u_char* SNMP_VMHBATgtTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                           WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_VMHBATgtTable", [&]() -> u_char* {
        SNMPRaskTable_Init();
        const SNMP::Request request{vp, name, length, exact, varLen, writeMethod};
        const vmHBATgtNode* const row =
            SNMP::FindListRow(request, SNMPVMHBATgtTable_Init, SNMPVMHBATgtTable_GetNext,
                              &vmHBATgtNode::vmIdx, &vmHBATgtNode::tgtUnit);
        if (row == nullptr) {
            return nullptr;
        }
        switch (vp->magic) {
            case tgtVmIdx:
                return tgtInteger.Set(row->vmIdx, varLen);
            case tgtUnit:
                return tgtInteger.Set(row->tgtUnit, varLen);
            case tgtLabel:
                return tgtString.Set(row->tgtLabel, varLen);
            default:
                snmp_set_detail("SNMP_VMHBATgtTable: Unknown variable requested.\n");
                return nullptr;
        }
    });
}

// Registration.

namespace {
SNMP::Registration hbaRegistration("SNMPVMHBA", SNMPVMHBA_variables, SNMPVMHBA_variables_oid,
                                   "init_SNMPVMDisk", __FILE__, 91);
SNMP::Registration tgtRegistration("SNMPVMTgt", SNMPVMTgt_variables, SNMPVMTgt_variables_oid,
                                   "init_SNMPVMDisk", __FILE__, 94);
}  // namespace

void init_SNMPVMDisk() {
    hbaRegistration.Register();
    tgtRegistration.Register();
    snmp_log(LOG_INFO, "SNMPVMDisk: Initialized.\n");
}

void deinit_SNMPVMDisk() {
    SNMPVMHBATable_Destroy();
    SNMPVMHBATgtTable_Destroy();
}
