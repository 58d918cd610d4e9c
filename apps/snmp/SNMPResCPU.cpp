#include "apps/snmp/SNMPResCPU.h"

#include <limits>

#include "apps/snmp/AnswerBuffers.h"
#include "apps/snmp/CheckParam.h"
#include "apps/snmp/Guard.h"
#include "apps/snmp/Registration.h"
#include "apps/snmp/RowList.h"
#include "apps/snmp/SNMPRaskHelper.h"
#include "apps/snmp/TableWalk.h"

// Rows.

resCPUNode* resCPUList = nullptr;
std::int32_t resCPUTableIndex = 0;
resCPUNode* resCPUListTravPtr = nullptr;

void SNMPResCPUTable_Init() {
    SNMP::RewindRows(resCPUList, resCPUTableIndex, resCPUListTravPtr);
}

int SNMPResCPUTable_GetNext(resCPUNode** row) {
    return SNMP::NextRow(row, resCPUTableIndex, resCPUListTravPtr);
}

void SNMPResCPUTable_Destroy() {
    SNMP::DestroyRows(resCPUList);
}

resCPUNode** SNMPResCPUTable_GetPtr() {
    return &resCPUList;
}

// Columns.

namespace {

enum Scalar : u_char { numCpuCores = 2 };
enum Column : u_char { cpuVMID = 5, cpuShares, cpuUsedSec };

const variable4 SNMPResCPU_variables[] = {
    {numCpuCores, ASN_INTEGER, RONLY, SNMP_ResCPU, 1, {1}},
    {cpuVMID, ASN_INTEGER, RONLY, SNMP_ResCPUTable, 3, {2, 1, 1}},
    {cpuShares, ASN_INTEGER, RONLY, SNMP_ResCPUTable, 3, {2, 1, 2}},
    {cpuUsedSec, ASN_INTEGER, RONLY, SNMP_ResCPUTable, 3, {2, 1, 3}},
};
const oid SNMPResCPU_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 3, 1};

// Handlers.

SNMP::IntegerAnswer scalarAnswer;
SNMP::IntegerAnswer tableAnswer;

// Toward zero; what an integer cannot hold becomes the nearest that it can, and no number becomes 0.
std::int32_t Truncate(float value) {
    constexpr float limit = 2147483648.0F;
    if (value >= limit) {
        return std::numeric_limits<std::int32_t>::max();
    }
    if (value < -limit) {
        return std::numeric_limits<std::int32_t>::min();
    }
    return value == value ? static_cast<std::int32_t>(value) : 0;
}

}  // namespace

u_char* SNMP_ResCPU(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                    WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_ResCPU", [&]() -> u_char* {
        if (CheckParam(vp, name, length, exact, varLen, writeMethod) == 0) {
            return nullptr;
        }
        u_char* answer = nullptr;
        if (vp->magic == numCpuCores) {
            // A signed 16-bit count: 32768 and more read negative.
            answer = scalarAnswer.Set(static_cast<std::int16_t>(GetNumCpu()), varLen);
        }
        // Set after an answer too: managers have always found this text here.
        snmp_set_detail("SNMPResCPU: Unknown variable requested\n");
        return answer;
    });
}

// A CPU's index is its machine's identifier plus its number, so CPUs of neighbouring identifiers collide: of
// rows with one index, only the first is ever answered.
u_char* SNMP_ResCPUTable(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                         WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_ResCPUTable", [&]() -> u_char* {
        SNMPRaskTable_Init();
        const SNMP::Request request{vp, name, length, exact, varLen, writeMethod};
        const resCPUNode* const row =
            SNMP::FindListRow(request, SNMPResCPUTable_Init, SNMPResCPUTable_GetNext, &resCPUNode::cpuVMID);
        if (row == nullptr) {
            return nullptr;
        }
        switch (vp->magic) {
            case cpuVMID:
                return tableAnswer.Set(row->cpuVMID, varLen);
            case cpuShares:
                return tableAnswer.Set(row->cpuShares, varLen);
            case cpuUsedSec:
                return tableAnswer.Set(Truncate(row->cpuUsedSec), varLen);
            default:
                snmp_set_detail("SNMP_ResCPUTable: Unknown variable requested.\n");
                return nullptr;
        }
    });
}

// Registration.

namespace {
SNMP::Registration registration("SNMPResCPU", SNMPResCPU_variables, SNMPResCPU_variables_oid,
                                "init_SNMPResCPU", __FILE__, 75);
}  // namespace

void init_SNMPResCPU() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPResCPU: Initialized.\n");
}

void deinit_SNMPResCPU() {
    SNMPResCPUTable_Destroy();
}
