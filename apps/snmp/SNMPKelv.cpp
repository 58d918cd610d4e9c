#include "apps/snmp/SNMPKelv.h"

#include <sys/stat.h>

#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResDisk.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPResNet.h"
#include "apps/snmp/SNMPSystem.h"
#include "apps/snmp/SNMPVMDisk.h"
#include "apps/snmp/SNMPVMFloppyCD.h"
#include "apps/snmp/SNMPVMInfo.h"
#include "apps/snmp/SNMPVMNet.h"
#include "apps/snmp/agent/Guard.h"
#include "apps/snmp/columns/AnswerBuffers.h"
#include "apps/snmp/columns/CheckParam.h"
#include "apps/snmp/columns/Registration.h"
#include "apps/snmp/refresh/SNMPRaskHelper.h"

// The kernel group.

namespace {

enum ScalarMagic : u_char { kernelLoaded = 1 };
constexpr SNMP::Scalar scalars[] = {{1, kernelLoaded, ASN_OCTET_STR, "kernelLoaded"}};

constexpr auto SNMPKelvNorv_variables = SNMP::ScalarVariables<variable2>(scalars, SNMP_KelvNorv);
const oid SNMPKelvNorv_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 4, 1, 1};

SNMP::Registration registration("SNMPKelvNorv", SNMPKelvNorv_variables, SNMPKelvNorv_variables_oid,
                                "init_SNMPKelvTbl", __FILE__, 68);
SNMP::StringAnswer kernelAnswer;

}  // namespace

u_char* SNMP_KelvNorv(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                      WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_KelvNorv", [&]() -> u_char* {
        if (CheckParam(vp, name, length, exact, varLen, writeMethod) == 0) {
            return nullptr;
        }
        if (vp->magic != kernelLoaded) {
            snmp_set_detail("SNMPKelvNorv: Unknown variable requested.\n");
            return nullptr;
        }
        struct stat64 status {};
        return kernelAnswer.Set(stat64("/proc/tovric/vm", &status) == 0 ? "yes" : "no", varLen);
    });
}

void init_SNMPKelvTbl() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPKelv: Initialized.\n");
}

void deinit_SNMPKelvTbl() {}

// The entry.

namespace {
int loads = 0;
}  // namespace

void init_SNMPKelv() {
    ++loads;
    init_SNMPVMInfo();
    init_SNMPVMNet();
    init_SNMPVMDisk();
    init_SNMPVMFloppyCD();
    init_SNMPResMem();
    init_SNMPResCPU();
    init_SNMPResDisk();
    init_SNMPResNet();
    init_SNMPKelvTbl();
    init_SNMPSystem();
    SNMP::Guard("init_SNMPKelv", [] { SNMPRaskHelper_Init(); });
    snmp_log(LOG_INFO, "SNMPRask: Initialized\n");
}

// Empties the tables. The product group has no table.
void deinit_SNMPKelv() {
    deinit_SNMPVMInfo();
    deinit_SNMPVMNet();
    deinit_SNMPVMDisk();
    deinit_SNMPVMFloppyCD();
    deinit_SNMPResMem();
    deinit_SNMPResCPU();
    deinit_SNMPResDisk();
    deinit_SNMPResNet();
    deinit_SNMPKelvTbl();
    // The tables are empty now, and another load may still serve them.
    SNMPRaskTable_Expire();
    if (loads > 0) {
        --loads;
    }
    if (loads == 0) {
        SNMP::Registration::UnregisterAll();
    }
}
