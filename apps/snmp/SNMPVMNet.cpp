#include "apps/snmp/SNMPVMNet.h"

#include "apps/snmp/collections/VMTables.h"
#include "apps/snmp/columns/Registration.h"
#include "apps/snmp/columns/TableHandler.h"

namespace {

// clang-format would put several columns on one line.
// clang-format off
constexpr SNMP::Column<vmNetNode> columns[] = {
    {1, "nicVmIdx", &vmNetNode::vmIdx},
    {2, "nicIdx", &vmNetNode::nicIdx},
    {3, "nicLabel", &vmNetNode::nicLabel},
    {4, "nicNetwork", &vmNetNode::nicNetwork},
    {5, "nicDevice", &vmNetNode::nicDevice},
};
// clang-format on

constexpr SNMP::Table<vmNetNode> table{
    .handlerName = "SNMP_VMNetTable",
    .handler = SNMP_VMNetTable,
    .unknownColumn = "SNMP_VMNetTable: unknown variable requested.\n",
    .columns = columns,
    .firstMagic = 3,
    .rows = {SNMPVMNetTable_Init, SNMPVMNetTable_GetNext, vmNetOrder},
};
SNMP::AnswerBuffers buffers;

constexpr auto SNMPVMNet_variables = SNMP::ColumnVariables<variable2, std::size(columns)>(table, 1);
const oid SNMPVMNet_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 4};
SNMP::Registration registration("SNMPVMNet", SNMPVMNet_variables, SNMPVMNet_variables_oid, "init_SNMPVMNet",
                                __FILE__, 74);

}  // namespace

u_char* SNMP_VMNetTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                        WriteMethod** writeMethod) {
    return SNMP::HandleTable(table, buffers, {vp, name, length, exact, varLen, writeMethod});
}

void init_SNMPVMNet() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPVMNet: Initialized.\n");
}

void deinit_SNMPVMNet() {
    SNMPVMNetTable_Destroy();
}
