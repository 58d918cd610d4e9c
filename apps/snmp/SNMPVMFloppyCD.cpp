#include "apps/snmp/SNMPVMFloppyCD.h"

#include "apps/snmp/collections/VMTables.h"
#include "apps/snmp/columns/Registration.h"
#include "apps/snmp/columns/TableHandler.h"

namespace {

constexpr SNMP::Column<vmFloppyNode> floppyColumns[] = {
    {1, "fdVmIdx", &vmFloppyNode::vmIdx},
    {2, "fdUnit", &vmFloppyNode::fdUnit},
    {3, "fdBacking", &vmFloppyNode::fdBacking},
    {4, "fdConnected", &vmFloppyNode::fdConnected},
};

constexpr SNMP::Table<vmFloppyNode> floppyTable{
    .handlerName = "SNMP_VMFloppyTable",
    .handler = SNMP_VMFloppyTable,
    .unknownColumn = "SNMP_VMFloppyTable: Unknown variable requested.\n",
    .columns = floppyColumns,
    .firstMagic = 3,
    .rows = {SNMPVMFloppyTable_Init, SNMPVMFloppyTable_GetNext, vmFloppyOrder},
};
SNMP::AnswerBuffers floppyBuffers;

constexpr auto floppyTable_variables =
    SNMP::ColumnVariables<variable2, std::size(floppyColumns)>(floppyTable, 1);
const oid floppyTable_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 5};
SNMP::Registration floppyRegistration("floppyTable", floppyTable_variables, floppyTable_variables_oid,
                                      "init_SNMPVMFloppyCD", __FILE__, 79);

constexpr SNMP::Column<vmCDROMNode> cdromColumns[] = {
    {1, "cdVmIdx", &vmCDROMNode::vmIdx},
    {2, "cdIdeIndex", &vmCDROMNode::cdIdeIndex},
    {3, "cdBacking", &vmCDROMNode::cdBacking},
    {4, "cdConnected", &vmCDROMNode::cdConnected},
};

constexpr SNMP::Table<vmCDROMNode> cdromTable{
    .handlerName = "SNMP_VMCDROMTable",
    .handler = SNMP_VMCDROMTable,
    .unknownColumn = "SNMP_VMCDROMTable: Unknown variable requested.\n",
    .columns = cdromColumns,
    .firstMagic = 3,
    .rows = {SNMPVMCDROMTable_Init, SNMPVMCDROMTable_GetNext, vmCDROMOrder},
};
SNMP::AnswerBuffers cdromBuffers;

constexpr auto CDROMTable_variables =
    SNMP::ColumnVariables<variable2, std::size(cdromColumns)>(cdromTable, 1);
const oid CDROMTable_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 6};
SNMP::Registration cdromRegistration("CDROMTable", CDROMTable_variables, CDROMTable_variables_oid,
                                     "init_SNMPVMFloppyCD", __FILE__, 81);

}  // namespace

u_char* SNMP_VMFloppyTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                           WriteMethod** writeMethod) {
    return SNMP::HandleTable(floppyTable, floppyBuffers, {vp, name, length, exact, varLen, writeMethod});
}

u_char* SNMP_VMCDROMTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                          WriteMethod** writeMethod) {
    return SNMP::HandleTable(cdromTable, cdromBuffers, {vp, name, length, exact, varLen, writeMethod});
}

void init_SNMPVMFloppyCD() {
    floppyRegistration.Register();
    cdromRegistration.Register();
    snmp_log(LOG_INFO, "SNMPVMFloppyCD: Initialized.\n");
}

void deinit_SNMPVMFloppyCD() {
    SNMPVMFloppyTable_Destroy();
    SNMPVMCDROMTable_Destroy();
}
