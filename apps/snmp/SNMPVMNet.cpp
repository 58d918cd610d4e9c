#include "apps/snmp/SNMPVMNet.h"

#include "apps/snmp/AnswerBuffers.h"
#include "apps/snmp/Guard.h"
#include "apps/snmp/Registration.h"
#include "apps/snmp/RowList.h"
#include "apps/snmp/SNMPRaskHelper.h"
#include "apps/snmp/TableWalk.h"

// Rows.

vmNetNode* vmNetList = nullptr;
std::int32_t vmNetTableIndex = 0;
vmNetNode* vmNetListTravPtr = nullptr;

void SNMPVMNetTable_Init() {
    SNMP::RewindRows(vmNetList, vmNetTableIndex, vmNetListTravPtr);
}

int SNMPVMNetTable_GetNext(vmNetNode** row) {
    return SNMP::NextRow(row, vmNetTableIndex, vmNetListTravPtr);
}

void SNMPVMNetTable_Destroy() {
    SNMP::DestroyRows(vmNetList, &vmNetNode::nicLabel, &vmNetNode::nicNetwork, &vmNetNode::nicDevice);
}

vmNetNode** SNMPVMNetTable_GetPtr() {
    return &vmNetList;
}

// Columns.

namespace {

enum Column : u_char { nicVmIdx = 3, nicIdx, nicLabel, nicNetwork, nicDevice };

const variable2 SNMPVMNet_variables[] = {
    {nicVmIdx, ASN_INTEGER, RONLY, SNMP_VMNetTable, 2, {1, 1}},
    {nicIdx, ASN_INTEGER, RONLY, SNMP_VMNetTable, 2, {1, 2}},
    {nicLabel, ASN_OCTET_STR, RONLY, SNMP_VMNetTable, 2, {1, 3}},
    {nicNetwork, ASN_OCTET_STR, RONLY, SNMP_VMNetTable, 2, {1, 4}},
    {nicDevice, ASN_OCTET_STR, RONLY, SNMP_VMNetTable, 2, {1, 5}},
};
const oid SNMPVMNet_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 4};

// Handler.

SNMP::IntegerAnswer integerAnswer;
SNMP::StringAnswer stringAnswer;

}  // namespace

u_char* SNMP_VMNetTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                        WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_VMNetTable", [&]() -> u_char* {
        SNMPRaskTable_Init();
        const SNMP::Request request{vp, name, length, exact, varLen, writeMethod};
        const vmNetNode* const row = SNMP::FindListRow(request, SNMPVMNetTable_Init, SNMPVMNetTable_GetNext,
                                                       &vmNetNode::vmIdx, &vmNetNode::nicIdx);
        if (row == nullptr) {
            return nullptr;
        }
        switch (vp->magic) {
            case nicVmIdx:
                return integerAnswer.Set(row->vmIdx, varLen);
            case nicIdx:
                return integerAnswer.Set(row->nicIdx, varLen);
            case nicLabel:
                return stringAnswer.Set(row->nicLabel, varLen);
            case nicNetwork:
                return stringAnswer.Set(row->nicNetwork, varLen);
            case nicDevice:
                return stringAnswer.Set(row->nicDevice, varLen);
            default:
                // Lower-case "unknown" in this table only; the text is what it has always been.
                snmp_set_detail("SNMP_VMNetTable: unknown variable requested.\n");
                return nullptr;
        }
    });
}

// Registration.

namespace {
SNMP::Registration registration("SNMPVMNet", SNMPVMNet_variables, SNMPVMNet_variables_oid, "init_SNMPVMNet",
                                __FILE__, 74);
}  // namespace

void init_SNMPVMNet() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPVMNet: Initialized.\n");
}

void deinit_SNMPVMNet() {
    SNMPVMNetTable_Destroy();
}
