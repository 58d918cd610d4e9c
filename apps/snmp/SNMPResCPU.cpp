#include "apps/snmp/SNMPResCPU.h"

#include <limits>

#include "apps/snmp/agent/Guard.h"
#include "apps/snmp/collections/ResTables.h"
#include "apps/snmp/columns/AnswerBuffers.h"
#include "apps/snmp/columns/CheckParam.h"
#include "apps/snmp/columns/Registration.h"
#include "apps/snmp/columns/TableHandler.h"
#include "apps/snmp/refresh/SNMPRaskHelper.h"

namespace {

enum ScalarMagic : u_char { numCpuCores = 2 };
constexpr SNMP::Scalar scalars[] = {{1, numCpuCores, ASN_INTEGER, "numCpuCores"}};
SNMP::IntegerAnswer scalarAnswer;

// Truncates toward zero. Saturates at the limits of an INTEGER; NaN is 0.
std::int32_t UsedSeconds(const resCPUNode& row) {
    constexpr float limit = 2147483648.0F;
    const float value = row.cpuUsedSec;
    if (value >= limit) {
        return std::numeric_limits<std::int32_t>::max();
    }
    if (value < -limit) {
        return std::numeric_limits<std::int32_t>::min();
    }
    return value == value ? static_cast<std::int32_t>(value) : 0;
}

constexpr SNMP::Column<resCPUNode> columns[] = {
    {1, "cpuVMID", &resCPUNode::cpuVMID},
    {2, "cpuShares", &resCPUNode::cpuShares},
    {3, "cpuUsedSec", UsedSeconds},
};

constexpr SNMP::Table<resCPUNode> table{
    .handlerName = "SNMP_ResCPUTable",
    .handler = SNMP_ResCPUTable,
    .unknownColumn = "SNMP_ResCPUTable: Unknown variable requested.\n",
    .columns = columns,
    .firstMagic = 5,
    .rows = {SNMPResCPUTable_Init, SNMPResCPUTable_GetNext, resCPUOrder},
};
SNMP::AnswerBuffers buffers;

constexpr auto SNMPResCPU_variables =
    SNMP::Join(SNMP::ScalarVariables<variable4>(scalars, SNMP_ResCPU),
               SNMP::ColumnVariables<variable4, std::size(columns)>(table, 2, 1));
const oid SNMPResCPU_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 3, 1};
SNMP::Registration registration("SNMPResCPU", SNMPResCPU_variables, SNMPResCPU_variables_oid,
                                "init_SNMPResCPU", __FILE__, 75);

}  // namespace

u_char* SNMP_ResCPU(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                    WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_ResCPU", [&]() -> u_char* {
        if (CheckParam(vp, name, length, exact, varLen, writeMethod) == 0) {
            return nullptr;
        }
        u_char* result = nullptr;
        if (vp->magic == numCpuCores) {
            // A signed 16-bit count: 32768 and more read negative.
            result = scalarAnswer.Set(static_cast<std::int16_t>(GetNumCpu()), varLen);
        }
        // Set after an answer too: managers have always found this text here.
        snmp_set_detail("SNMPResCPU: Unknown variable requested\n");
        return result;
    });
}

u_char* SNMP_ResCPUTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                         WriteMethod** writeMethod) {
    return SNMP::HandleTable(table, buffers, {vp, name, length, exact, varLen, writeMethod});
}

void init_SNMPResCPU() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPResCPU: Initialized.\n");
}

void deinit_SNMPResCPU() {
    SNMPResCPUTable_Destroy();
}
