#include "apps/snmp/SNMPResMem.h"

#include "apps/snmp/agent/Guard.h"
#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/columns/AnswerBuffers.h"
#include "apps/snmp/columns/CheckParam.h"
#include "apps/snmp/columns/Registration.h"
#include "apps/snmp/columns/TableHandler.h"
#include "apps/snmp/refresh/SNMPRaskHelper.h"

namespace {

enum ScalarMagic : u_char { memTotal = 2, memReserved, memUnreserved };
constexpr SNMP::Scalar scalars[] = {
    {1, memTotal, ASN_INTEGER, "memTotal"},
    {2, memReserved, ASN_INTEGER, "memReserved"},
    {3, memUnreserved, ASN_INTEGER, "memUnreserved"},
};
SNMP::IntegerAnswer scalarAnswer;

constexpr SNMP::Column<resMemNode> columns[] = {
    {1, "memVMID", &resMemNode::memVMID},
    {2, "memShares", &resMemNode::memShares},
    {3, "memConfiguredKB", &resMemNode::memConfiguredKB},
    {4, "memActive", &resMemNode::memActive},
};

constexpr SNMP::Table<resMemNode> table{
    .handlerName = "SNMP_ResMemTable",
    .handler = SNMP_ResMemTable,
    .unknownColumn = "SNMP_ResMemTable: Unknown variable requested.\n",
    .columns = columns,
    .firstMagic = 7,
    .rows = {SNMPResMemTable_Init, SNMPResMemTable_GetNext, resMemOrder},
};
SNMP::AnswerBuffers buffers;

constexpr auto SNMPResMem_variables =
    SNMP::Join(SNMP::ScalarVariables<variable4>(scalars, SNMP_ResMem),
               SNMP::ColumnVariables<variable4, std::size(columns)>(table, 4, 1));
const oid SNMPResMem_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 3, 2};
SNMP::Registration registration("SNMPResMem", SNMPResMem_variables, SNMPResMem_variables_oid,
                                "init_SNMPResMem", __FILE__, 82);

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
        // The low 32 bits; a difference wraps around.
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
    return SNMP::HandleTable(table, buffers, {vp, name, length, exact, varLen, writeMethod});
}

void init_SNMPResMem() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPResMem: Initialized.\n");
}

void deinit_SNMPResMem() {
    SNMPResMemTable_Destroy();
}
