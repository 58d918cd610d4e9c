#include "apps/snmp/SNMPResMem.h"

#include "apps/snmp/AnswerBuffers.h"
#include "apps/snmp/CheckParam.h"
#include "apps/snmp/Guard.h"
#include "apps/snmp/Registration.h"
#include "apps/snmp/RowList.h"
#include "apps/snmp/SNMPRaskHelper.h"
#include "apps/snmp/TableWalk.h"

// Rows.

resMemNode* resMemList = nullptr;
std::int32_t resMemTableIndex = 0;
resMemNode* resMemListTravPtr = nullptr;

void SNMPResMemTable_Init() {
    SNMP::RewindRows(resMemList, resMemTableIndex, resMemListTravPtr);
}

int SNMPResMemTable_GetNext(resMemNode** row) {
    return SNMP::NextRow(row, resMemTableIndex, resMemListTravPtr);
}

void SNMPResMemTable_Destroy() {
    SNMP::DestroyRows(resMemList);
}

resMemNode** SNMPResMemTable_GetPtr() {
    return &resMemList;
}

// Columns.

namespace {

enum Scalar : u_char { memTotal = 2, memReserved, memUnreserved };
enum Column : u_char { memVMID = 7, memShares, memConfiguredKB, memActive };

const variable4 SNMPResMem_variables[] = {
    {memTotal, ASN_INTEGER, RONLY, SNMP_ResMem, 1, {1}},
    {memReserved, ASN_INTEGER, RONLY, SNMP_ResMem, 1, {2}},
    {memUnreserved, ASN_INTEGER, RONLY, SNMP_ResMem, 1, {3}},
    {memVMID, ASN_INTEGER, RONLY, SNMP_ResMemTable, 3, {4, 1, 1}},
    {memShares, ASN_INTEGER, RONLY, SNMP_ResMemTable, 3, {4, 1, 2}},
    {memConfiguredKB, ASN_INTEGER, RONLY, SNMP_ResMemTable, 3, {4, 1, 3}},
    {memActive, ASN_INTEGER, RONLY, SNMP_ResMemTable, 3, {4, 1, 4}},
};
const oid SNMPResMem_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 3, 2};

// Handlers.

SNMP::IntegerAnswer scalarAnswer;
SNMP::IntegerAnswer tableAnswer;

}  // namespace

u_char* SNMP_ResMem(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                    WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_ResMem", [&]() -> u_char* {
        if (CheckParam(vp, name, length, exact, varLen, writeMethod) == 0) {
            return nullptr;
        }
        long reserved = 0;
        long total = 0;
        GetMemory(&reserved, &total);
        // Figures are their low 32 bits.
        const auto reserved32 = static_cast<std::uint32_t>(reserved);
        const auto total32 = static_cast<std::uint32_t>(total);
        switch (vp->magic) {
            case memTotal:
                return scalarAnswer.Set(static_cast<std::int32_t>(total32), varLen);
            case memReserved:
                return scalarAnswer.Set(static_cast<std::int32_t>(reserved32), varLen);
            case memUnreserved:
                return scalarAnswer.Set(static_cast<std::int32_t>(total32 - reserved32), varLen);
            default:
                snmp_set_detail("SNMP_ResMem: Unknown variable requested.\n");
                return nullptr;
        }
    });
}

u_char* SNMP_ResMemTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                         WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_ResMemTable", [&]() -> u_char* {
        SNMPRaskTable_Init();
        const SNMP::Request request{vp, name, length, exact, varLen, writeMethod};
        const resMemNode* const row =
            SNMP::FindListRow(request, SNMPResMemTable_Init, SNMPResMemTable_GetNext, &resMemNode::memVMID);
        if (row == nullptr) {
            return nullptr;
        }
        switch (vp->magic) {
            case memVMID:
                return tableAnswer.Set(row->memVMID, varLen);
            case memShares:
                return tableAnswer.Set(row->memShares, varLen);
            case memConfiguredKB:
                return tableAnswer.Set(row->memConfiguredKB, varLen);
            case memActive:
                return tableAnswer.Set(row->memActive, varLen);
            default:
                snmp_set_detail("SNMP_ResMemTable: Unknown variable requested.\n");
                return nullptr;
        }
    });
}

// Registration.

namespace {
SNMP::Registration registration("SNMPResMem", SNMPResMem_variables, SNMPResMem_variables_oid,
                                "init_SNMPResMem", __FILE__, 82);
}  // namespace

void init_SNMPResMem() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPResMem: Initialized.\n");
}

void deinit_SNMPResMem() {
    SNMPResMemTable_Destroy();
}
