#include "apps/snmp/SNMPResNet.h"

#include "apps/snmp/AnswerBuffers.h"
#include "apps/snmp/Guard.h"
#include "apps/snmp/Registration.h"
#include "apps/snmp/RowList.h"
#include "apps/snmp/SNMPRaskHelper.h"
#include "apps/snmp/TableWalk.h"

// Rows.

resNetNode* resNetList = nullptr;
std::int32_t resNetTableIndex = 0;
resNetNode* resNetListTravPtr = nullptr;

void SNMPResNetTable_Init() {
    SNMP::RewindRows(resNetList, resNetTableIndex, resNetListTravPtr);
}

int SNMPResNetTable_GetNext(resNetNode** row) {
    return SNMP::NextRow(row, resNetTableIndex, resNetListTravPtr);
}

void SNMPResNetTable_Destroy() {
    SNMP::DestroyRows(resNetList);
}

resNetNode** SNMPResNetTable_GetPtr() {
    return &resNetList;
}

// Columns.

namespace {

enum Column : u_char {
    netIdx = 3,
    netName,
    netVMID,
    netMac,
    netSpare,
    netPktTx,
    netTx,
    netPktRx,
    netRx,
    netHCPktTx,
    netHCTx,
    netHCPktRx,
    netHCRx
};

const variable2 SNMPResNet_variables[] = {
    {netIdx, ASN_INTEGER, RONLY, SNMP_ResNetTable, 2, {1, 1}},
    {netName, ASN_OCTET_STR, RONLY, SNMP_ResNetTable, 2, {1, 2}},
    {netVMID, ASN_INTEGER, RONLY, SNMP_ResNetTable, 2, {1, 3}},
    {netMac, ASN_OCTET_STR, RONLY, SNMP_ResNetTable, 2, {1, 4}},
    {netSpare, ASN_INTEGER, RONLY, SNMP_ResNetTable, 2, {1, 5}},
    {netPktTx, ASN_INTEGER, RONLY, SNMP_ResNetTable, 2, {1, 6}},
    {netTx, ASN_INTEGER, RONLY, SNMP_ResNetTable, 2, {1, 7}},
    {netPktRx, ASN_INTEGER, RONLY, SNMP_ResNetTable, 2, {1, 8}},
    {netRx, ASN_INTEGER, RONLY, SNMP_ResNetTable, 2, {1, 9}},
    {netHCPktTx, ASN_COUNTER64, RONLY, SNMP_ResNetTable, 2, {1, 10}},
    {netHCTx, ASN_COUNTER64, RONLY, SNMP_ResNetTable, 2, {1, 11}},
    {netHCPktRx, ASN_COUNTER64, RONLY, SNMP_ResNetTable, 2, {1, 12}},
    {netHCRx, ASN_COUNTER64, RONLY, SNMP_ResNetTable, 2, {1, 13}},
};
const oid SNMPResNet_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 3, 4};

// Handler.

SNMP::IntegerAnswer integerAnswer;
SNMP::Counter64Answer counterAnswer;
SNMP::StringAnswer stringAnswer;

}  // namespace

u_char* SNMP_ResNetTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                         WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_ResNetTable", [&]() -> u_char* {
        SNMPRaskTable_Init();
        const SNMP::Request request{vp, name, length, exact, varLen, writeMethod};
        const resNetNode* const row =
            SNMP::FindListRow(request, SNMPResNetTable_Init, SNMPResNetTable_GetNext, &resNetNode::netIdx);
        if (row == nullptr) {
            return nullptr;
        }
        switch (vp->magic) {
            case netIdx:
                return integerAnswer.Set(row->netIdx, varLen);
            case netName:
                return stringAnswer.Set(row->netName, varLen);
            case netVMID:
                return integerAnswer.Set(row->netVMID, varLen);
            case netMac:
                return stringAnswer.Set(row->netMac, varLen);
            case netSpare:
                return integerAnswer.Set(0, varLen);  // the row's own value is not shown
            case netPktTx:
                return integerAnswer.Set(row->netPktTx, varLen);
            case netTx:
                return integerAnswer.Set(row->netTx, varLen);
            case netPktRx:
                return integerAnswer.Set(row->netPktRx, varLen);
            case netRx:
                return integerAnswer.Set(row->netRx, varLen);
            case netHCPktTx:
                return counterAnswer.Set(row->netHCPktTx, varLen);
            case netHCTx:
                return counterAnswer.Set(row->netHCTx, varLen);
            case netHCPktRx:
                return counterAnswer.Set(row->netHCPktRx, varLen);
            case netHCRx:
                return counterAnswer.Set(row->netHCRx, varLen);
            default:
                snmp_set_detail("SNMP_ResNetTable: Unknown variable requested.\n");
                return nullptr;
        }
    });
}

// Registration.

namespace {
SNMP::Registration registration("SNMPResNet", SNMPResNet_variables, SNMPResNet_variables_oid,
                                "init_SNMPResNet", __FILE__, 91);
}  // namespace

void init_SNMPResNet() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPResNet: Initialized.\n");
}

void deinit_SNMPResNet() {
    SNMPResNetTable_Destroy();
}
