#include "apps/snmp/SNMPResNet.h"

#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/columns/Registration.h"
#include "apps/snmp/columns/TableHandler.h"

namespace {

// The column is 0 whatever the row holds.
std::int32_t Zero(const resNetNode& /*row*/) {
    return 0;
}

constexpr SNMP::Column<resNetNode> columns[] = {
    {1, "netIdx", &resNetNode::netIdx},
    {2, "netName", &resNetNode::netName},
    {3, "netVMID", &resNetNode::netVMID},
    {4, "netMac", &resNetNode::netMac},
    {5, "netSpare", Zero},
    {6, "netPktTx", &resNetNode::netPktTx},
    {7, "netTx", &resNetNode::netTx},
    {8, "netPktRx", &resNetNode::netPktRx},
    {9, "netRx", &resNetNode::netRx},
    {10, "netHCPktTx", &resNetNode::netHCPktTx},
    {11, "netHCTx", &resNetNode::netHCTx},
    {12, "netHCPktRx", &resNetNode::netHCPktRx},
    {13, "netHCRx", &resNetNode::netHCRx},
};

constexpr SNMP::Table<resNetNode> table{
    .handlerName = "SNMP_ResNetTable",
    .handler = SNMP_ResNetTable,
    .unknownColumn = "SNMP_ResNetTable: Unknown variable requested.\n",
    .columns = columns,
    .firstMagic = 3,
    .rows = {SNMPResNetTable_Init, SNMPResNetTable_GetNext, resNetOrder},
};
SNMP::AnswerBuffers buffers;

constexpr auto SNMPResNet_variables = SNMP::ColumnVariables<variable2, std::size(columns)>(table, 1);
const oid SNMPResNet_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 3, 4};
SNMP::Registration registration("SNMPResNet", SNMPResNet_variables, SNMPResNet_variables_oid,
                                "init_SNMPResNet", __FILE__, 91);

}  // namespace

u_char* SNMP_ResNetTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                         WriteMethod** writeMethod) {
    return SNMP::HandleTable(table, buffers, {vp, name, length, exact, varLen, writeMethod});
}

void init_SNMPResNet() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPResNet: Initialized.\n");
}

void deinit_SNMPResNet() {
    SNMPResNetTable_Destroy();
}
