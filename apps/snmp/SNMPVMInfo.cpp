#include "apps/snmp/SNMPVMInfo.h"

#include <cstdlib>

#include "apps/snmp/AnswerBuffers.h"
#include "apps/snmp/Guard.h"
#include "apps/snmp/Registration.h"
#include "apps/snmp/SNMPRaskHelper.h"
#include "apps/snmp/TableWalk.h"

// Rows.

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
            const vmEntry& row = vmInfoTable[position];
            std::free(row.vmDisplayName);
            std::free(row.vmConfigFile);
            std::free(row.vmGuestOS);
            std::free(row.vmState);
            std::free(row.vmGuestState);
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

// Columns.

namespace {

enum Column : u_char {
    vmIdx = 3,
    vmDisplayName,
    vmConfigFile,
    vmGuestOS,
    vmMemSize,
    vmState,
    vmVMID,
    vmGuestState
};

const variable2 SNMPVMInfo_variables[] = {
    {vmIdx, ASN_INTEGER, RONLY, SNMP_VMInfoTable, 2, {1, 1}},
    {vmDisplayName, ASN_OCTET_STR, RONLY, SNMP_VMInfoTable, 2, {1, 2}},
    {vmConfigFile, ASN_OCTET_STR, RONLY, SNMP_VMInfoTable, 2, {1, 3}},
    {vmGuestOS, ASN_OCTET_STR, RONLY, SNMP_VMInfoTable, 2, {1, 4}},
    {vmMemSize, ASN_INTEGER, RONLY, SNMP_VMInfoTable, 2, {1, 5}},
    {vmState, ASN_OCTET_STR, RONLY, SNMP_VMInfoTable, 2, {1, 6}},
    {vmVMID, ASN_INTEGER, RONLY, SNMP_VMInfoTable, 2, {1, 7}},
    {vmGuestState, ASN_OCTET_STR, RONLY, SNMP_VMInfoTable, 2, {1, 8}},
};
const oid SNMPVMInfo_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 1};

// Handler.

SNMP::IntegerAnswer integerAnswer;
SNMP::StringAnswer stringAnswer;

}  // namespace

u_char* SNMP_VMInfoTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                         WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_VMInfoTable", [&]() -> u_char* {
        SNMPRaskTable_Init();
        const SNMP::Request request{vp, name, length, exact, varLen, writeMethod};
        const vmEntry* const row = SNMP::FindArrayRow(request, SNMPVMInfoTable_Init, SNMPVMInfoTable_GetNext);
        if (row == nullptr) {
            return nullptr;
        }
        switch (vp->magic) {
            case vmIdx:
                return integerAnswer.Set(row->vmIdx, varLen);
            case vmDisplayName:
                return stringAnswer.Set(row->vmDisplayName, varLen);
            case vmConfigFile:
                return stringAnswer.Set(row->vmConfigFile, varLen);
            case vmGuestOS:
                return stringAnswer.Set(row->vmGuestOS, varLen);
            case vmMemSize:
                return integerAnswer.Set(row->vmMemSize, varLen);
            case vmState:
                return stringAnswer.Set(row->vmState, varLen);
            case vmVMID:
                return integerAnswer.Set(row->vmVMID, varLen);
            case vmGuestState:
                return stringAnswer.Set(row->vmGuestState, varLen);
            default:
                snmp_set_detail("SNMPVMInfo_Table: Unknown variable requested.\n");
                return nullptr;
        }
    });
}

// Registration.

namespace {
SNMP::Registration registration("SNMPVMInfo", SNMPVMInfo_variables, SNMPVMInfo_variables_oid,
                                "init_SNMPVMInfo", __FILE__, 79);
}  // namespace

void init_SNMPVMInfo() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPVMInfo: Initialized.\n");
}

void deinit_SNMPVMInfo() {
    SNMPVMInfoTable_Destroy();
}
