#include "apps/snmp/SNMPResDisk.h"

#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/columns/Registration.h"
#include "apps/snmp/columns/TableHandler.h"

namespace {

// clang-format would put several columns on one line.
// clang-format off
constexpr SNMP::Column<resDiskNode> columns[] = {
    {1, "diskIdx", &resDiskNode::diskIdx},
    {2, "diskName", &resDiskNode::diskName},
    {3, "diskVMID", &resDiskNode::diskVMID},
    {4, "diskShares", &resDiskNode::diskShares},
    {5, "diskNumRead", &resDiskNode::diskNumRead},
    {6, "diskRead", &resDiskNode::diskRead},
    {7, "diskNumWrite", &resDiskNode::diskNumWrite},
    {8, "diskWrite", &resDiskNode::diskWrite},
};
// clang-format on

constexpr SNMP::Table<resDiskNode> table{
    .handlerName = "SNMP_ResDiskTable",
    .handler = SNMP_ResDiskTable,
    .unknownColumn = "SNMP_ResDiskTable: Unknown variable requested.\n",
    .columns = columns,
    .firstMagic = 3,
    .rows = {SNMPResDiskTable_Init, SNMPResDiskTable_GetNext, resDiskOrder},
};
SNMP::AnswerBuffers buffers;

constexpr auto SNMPResDisk_variables = SNMP::ColumnVariables<variable2, std::size(columns)>(table, 1);
const oid SNMPResDisk_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 3, 3};
SNMP::Registration registration("SNMPResDisk", SNMPResDisk_variables, SNMPResDisk_variables_oid,
                                "init_SNMPResDisk", __FILE__, 81);

}  // namespace

u_char* SNMP_ResDiskTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                          WriteMethod** writeMethod) {
    return SNMP::HandleTable(table, buffers, {vp, name, length, exact, varLen, writeMethod});
}

void init_SNMPResDisk() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPResDisk: Initialized.\n");
}

void deinit_SNMPResDisk() {
    SNMPResDiskTable_Destroy();
}
