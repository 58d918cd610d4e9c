#include "apps/snmp/SNMPSystem.h"

#include "apps/snmp/agent/Guard.h"
#include "apps/snmp/columns/AnswerBuffers.h"
#include "apps/snmp/columns/CheckParam.h"
#include "apps/snmp/columns/Registration.h"
#include "apps/snmp/refresh/ProductInfo.h"

namespace {

enum ScalarMagic : u_char { nameScalar = 1, versionScalar, oidScalar, buildScalar };
constexpr SNMP::Scalar scalars[] = {
    {1, nameScalar, ASN_OCTET_STR, "prodName"},
    {2, versionScalar, ASN_OCTET_STR, "prodVersion"},
    {3, oidScalar, ASN_OBJECT_ID, "prodOID"},
    {4, buildScalar, ASN_OCTET_STR, "prodBuild"},
};

constexpr auto SNMPSystem_variables = SNMP::ScalarVariables<variable2>(scalars, SNMP_System);
const oid SNMPSystem_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 1};
SNMP::Registration registration("SNMPSystem", SNMPSystem_variables, SNMPSystem_variables_oid,
                                "init_SNMPSystem", __FILE__, 97);

SNMP::StringAnswer string;
SNMP::ObjectIdAnswer objid;

// kelvVersions and kelvServer of the MIB, which precede the version in `prodOID`.
constexpr oid kelvServer[] = {60, 1};

// The enterprise prefix of a scalar's instance OID, then kelvServer and the version.
u_char* AnswerVersionId(const oid* instance, std::size_t instanceLength, std::size_t* varLen) {
    constexpr std::size_t suffixLength = 3;  // group, scalar, instance
    objid.Clear();
    for (std::size_t i = 0; i + suffixLength < instanceLength; ++i) {
        objid.Append(instance[i]);
    }
    for (const oid part : kelvServer) {
        objid.Append(part);
    }
    for (const std::int32_t part : prodVersion2) {
        objid.Append(static_cast<std::uint32_t>(part));
    }
    return objid.Set(varLen);
}

}  // namespace

u_char* SNMP_System(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                    WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_System", [&]() -> u_char* {
        // First on purpose: a request that matches no scalar fetches the product information too.
        SNMPSystemGetProdInfo();
        if (CheckParam(vp, name, length, exact, varLen, writeMethod) == 0) {
            return nullptr;
        }
        switch (vp->magic) {
            case nameScalar:
                return string.Set(prodName, varLen);
            case versionScalar:
                return string.Set(prodVersion, varLen);
            case oidScalar:
                return AnswerVersionId(name, *length, varLen);
            case buildScalar:
                return string.Set(prodBuild, varLen);
            default:
                snmp_set_detail("SNMPSystem : Unknown variable requested.\n");
                return nullptr;
        }
    });
}

void init_SNMPSystem() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPSystem: Initialized.\n");
}

void deinit_SNMPSystem() {}
