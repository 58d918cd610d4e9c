#include "apps/snmp/SNMPVMInfo.h"

#include "apps/snmp/collections/VMTables.h"
#include "apps/snmp/columns/Registration.h"
#include "apps/snmp/columns/TableHandler.h"

namespace {

constexpr SNMP::Column<vmEntry> columns[] = {
    {1, "vmIdx", &vmEntry::vmIdx},
    {2, "vmDisplayName", &vmEntry::vmDisplayName},
    {3, "vmConfigFile", &vmEntry::vmConfigFile},
    {4, "vmGuestOS", &vmEntry::vmGuestOS},
    {5, "vmMemSize", &vmEntry::vmMemSize},
    {6, "vmState", &vmEntry::vmState},
    {7, "vmVMID", &vmEntry::vmVMID},
    {8, "vmGuestState", &vmEntry::vmGuestState},
};

constexpr SNMP::Table<vmEntry> table{
    .handlerName = "SNMP_VMInfoTable",
    .handler = SNMP_VMInfoTable,
    .unknownColumn = "SNMPVMInfo_Table: Unknown variable requested.\n",
    .columns = columns,
    .firstMagic = 3,
    .rows = {vmInfoTableIndex, SNMPVMInfoTable_GetNext},
};
SNMP::AnswerBuffers buffers;

constexpr auto SNMPVMInfo_variables = SNMP::ColumnVariables<variable2, std::size(columns)>(table, 1);
const oid SNMPVMInfo_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 2, 1};
SNMP::Registration registration("SNMPVMInfo", SNMPVMInfo_variables, SNMPVMInfo_variables_oid,
                                "init_SNMPVMInfo", __FILE__, 79);

}  // namespace

u_char* SNMP_VMInfoTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                         WriteMethod** writeMethod) {
    return SNMP::HandleTable(table, buffers, {vp, name, length, exact, varLen, writeMethod});
}

void init_SNMPVMInfo() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPVMInfo: Initialized.\n");
}

void deinit_SNMPVMInfo() {
    SNMPVMInfoTable_Destroy();
}
