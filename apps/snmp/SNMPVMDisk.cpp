#include "apps/snmp/SNMPVMDisk.h"

#include "apps/snmp/collections/VMTables.h"
#include "apps/snmp/columns/Registration.h"
#include "apps/snmp/columns/TableHandler.h"

namespace {

constexpr SNMP::Column<vmHBANode> hbaColumns[] = {
    {1, "hbaVmIdx", &vmHBANode::vmIdx},
    {2, "hbaBus", &vmHBANode::hbaBus},
    {3, "hbaLabel", &vmHBANode::hbaLabel},
    {4, "hbaType", &vmHBANode::hbaType},
};

constexpr SNMP::Table<vmHBANode> hbaTable{
    .handlerName = "SNMP_VMHBATable",
    .handler = SNMP_VMHBATable,
    .unknownColumn = "SNMP_VMHBATable: Unknown variable requested.\n",
    .columns = hbaColumns,
    .firstMagic = 3,
    .rows = {SNMPVMHBATable_Init, SNMPVMHBATable_GetNext, vmHBAOrder},
};
SNMP::AnswerBuffers hbaBuffers;

constexpr auto SNMPVMHBA_variables = SNMP::ColumnVariables<variable2, std::size(hbaColumns)>(hbaTable, 1);
const oid SNMPVMHBA_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 2};
SNMP::Registration hbaRegistration("SNMPVMHBA", SNMPVMHBA_variables, SNMPVMHBA_variables_oid,
                                   "init_SNMPVMDisk", __FILE__, 91);

constexpr SNMP::Column<vmHBATgtNode> tgtColumns[] = {
    {1, "tgtVmIdx", &vmHBATgtNode::vmIdx},
    {2, "tgtUnit", &vmHBATgtNode::tgtUnit},
    {3, "tgtLabel", &vmHBATgtNode::tgtLabel},
};

constexpr SNMP::Table<vmHBATgtNode> tgtTable{
    .handlerName = "SNMP_VMHBATgtTable",
    .handler = SNMP_VMHBATgtTable,
    .unknownColumn = "SNMP_VMHBATgtTable: Unknown variable requested.\n",
    .columns = tgtColumns,
    .firstMagic = 9,
    .rows = {SNMPVMHBATgtTable_Init, SNMPVMHBATgtTable_GetNext, vmHBATgtOrder},
};
SNMP::AnswerBuffers tgtBuffers;

constexpr auto SNMPVMTgt_variables = SNMP::ColumnVariables<variable2, std::size(tgtColumns)>(tgtTable, 1);
const oid SNMPVMTgt_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 3};
SNMP::Registration tgtRegistration("SNMPVMTgt", SNMPVMTgt_variables, SNMPVMTgt_variables_oid,
                                   "init_SNMPVMDisk", __FILE__, 94);

}  // namespace

u_char* SNMP_VMHBATable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                        WriteMethod** writeMethod) {
    return SNMP::HandleTable(hbaTable, hbaBuffers, {vp, name, length, exact, varLen, writeMethod});
}

u_char* SNMP_VMHBATgtTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                           WriteMethod** writeMethod) {
    return SNMP::HandleTable(tgtTable, tgtBuffers, {vp, name, length, exact, varLen, writeMethod});
}

void init_SNMPVMDisk() {
    hbaRegistration.Register();
    tgtRegistration.Register();
    snmp_log(LOG_INFO, "SNMPVMDisk: Initialized.\n");
}

void deinit_SNMPVMDisk() {
    SNMPVMHBATable_Destroy();
    SNMPVMHBATgtTable_Destroy();
}
