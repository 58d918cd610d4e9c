#include "apps/snmp/SNMPResDisk.h"

#include "apps/snmp/AnswerBuffers.h"
#include "apps/snmp/Guard.h"
#include "apps/snmp/Registration.h"
#include "apps/snmp/RowList.h"
#include "apps/snmp/SNMPRaskHelper.h"
#include "apps/snmp/TableWalk.h"

// Rows.

resDiskNode* resDiskList = nullptr;
std::int32_t resDiskTableIndex = 0;
resDiskNode* resDiskListTravPtr = nullptr;

void SNMPResDiskTable_Init() {
    SNMP::RewindRows(resDiskList, resDiskTableIndex, resDiskListTravPtr);
}

int SNMPResDiskTable_GetNext(resDiskNode** row) {
    return SNMP::NextRow(row, resDiskTableIndex, resDiskListTravPtr);
}

void SNMPResDiskTable_Destroy() {
    SNMP::DestroyRows(resDiskList);
}

resDiskNode** SNMPResDiskTable_GetPtr() {
    return &resDiskList;
}

// Columns.

namespace {

enum Column : u_char {
    diskIdx = 3,
    diskName,
    diskVMID,
    diskShares,
    diskNumRead,
    diskRead,
    diskNumWrite,
    diskWrite
};

const variable2 SNMPResDisk_variables[] = {
    {diskIdx, ASN_INTEGER, RONLY, SNMP_ResDiskTable, 2, {1, 1}},
    {diskName, ASN_OCTET_STR, RONLY, SNMP_ResDiskTable, 2, {1, 2}},
    {diskVMID, ASN_INTEGER, RONLY, SNMP_ResDiskTable, 2, {1, 3}},
    {diskShares, ASN_INTEGER, RONLY, SNMP_ResDiskTable, 2, {1, 4}},
    {diskNumRead, ASN_INTEGER, RONLY, SNMP_ResDiskTable, 2, {1, 5}},
    {diskRead, ASN_INTEGER, RONLY, SNMP_ResDiskTable, 2, {1, 6}},
    {diskNumWrite, ASN_INTEGER, RONLY, SNMP_ResDiskTable, 2, {1, 7}},
    {diskWrite, ASN_INTEGER, RONLY, SNMP_ResDiskTable, 2, {1, 8}},
};
const oid SNMPResDisk_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 3, 3};

// Handler.

SNMP::IntegerAnswer integerAnswer;
SNMP::StringAnswer stringAnswer;

}  // namespace

u_char* SNMP_ResDiskTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                          WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_ResDiskTable", [&]() -> u_char* {
        SNMPRaskTable_Init();
        const SNMP::Request request{vp, name, length, exact, varLen, writeMethod};
        const resDiskNode* const row = SNMP::FindListRow(request, SNMPResDiskTable_Init,
                                                         SNMPResDiskTable_GetNext, &resDiskNode::diskIdx);
        if (row == nullptr) {
            return nullptr;
        }
        switch (vp->magic) {
            case diskIdx:
                return integerAnswer.Set(row->diskIdx, varLen);
            case diskName:
                return stringAnswer.Set(row->diskName, varLen);
            case diskVMID:
                return integerAnswer.Set(row->diskVMID, varLen);
            case diskShares:
                return integerAnswer.Set(row->diskShares, varLen);
            case diskNumRead:
                return integerAnswer.Set(row->diskNumRead, varLen);
            case diskRead:
                return integerAnswer.Set(row->diskRead, varLen);
            case diskNumWrite:
                return integerAnswer.Set(row->diskNumWrite, varLen);
            case diskWrite:
                return integerAnswer.Set(row->diskWrite, varLen);
            default:
                snmp_set_detail("SNMP_ResDiskTable: Unknown variable requested.\n");
                return nullptr;
        }
    });
}

// Registration.

namespace {
SNMP::Registration registration("SNMPResDisk", SNMPResDisk_variables, SNMPResDisk_variables_oid,
                                "init_SNMPResDisk", __FILE__, 81);
}  // namespace

void init_SNMPResDisk() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPResDisk: Initialized.\n");
}

void deinit_SNMPResDisk() {
    SNMPResDiskTable_Destroy();
}
