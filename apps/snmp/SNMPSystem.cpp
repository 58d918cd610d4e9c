#include "apps/snmp/SNMPSystem.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "apps/snmp/AnswerBuffers.h"
#include "apps/snmp/CheckParam.h"
#include "apps/snmp/Guard.h"
#include "apps/snmp/OrdaneClient.h"
#include "apps/snmp/Registration.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

// Product information.

namespace {

char prodName[256];
char prodVersion[16];
char prodBuild[16];
std::array<std::int32_t, 3> prodVersion2;
bool prodInfoGood = false;

std::int32_t ParseVersionPart(const std::string& part) {
    try {
        return Tessim::StringUtil::ParseInt(part);
    } catch (const Tessim::Exception&) {
        snmp_log(LOG_WARNING, "Get Product Version: invalid version: %s\n",
                 Tessim::StringUtil::EscapeControls(part).c_str());
        return 0;
    }
}

}  // namespace

void SNMPSystemGetProdInfo() {
    if (prodInfoGood) {
        return;
    }
    SNMP::OrdaneClient* const client = SNMP::GetOrdaneClient();
    if (client == nullptr) {
        snmp_log(LOG_WARNING, "SNMPSystemGetProdInfo: Could not acquire ordane client to tovric-vessad.\n");
        return;
    }
    Tessim::Ref<Hask::ServiceInstanceContent> content;
    client->GetServiceInstanceContent(content);
    Hask::AboutInfo* const about = content ? content->GetAbout() : nullptr;
    if (about == nullptr) {
        snmp_log(LOG_WARNING,
                 "SNMPSystemGetProdInfo: Could not fetch service instance content via ordane client.\n");
        return;
    }
    Str_Strcpy(prodName, about->GetName(), sizeof(prodName));
    Str_Strcpy(prodVersion, about->GetVersion(), sizeof(prodVersion));
    Str_Strcpy(prodBuild, about->GetBuild(), sizeof(prodBuild));

    const std::vector<std::string> parts = Tessim::StringUtil::Tokenize(about->GetVersion(), ".");
    if (parts.size() != prodVersion2.size()) {
        snmp_log(LOG_WARNING,
                 "SNMPSystemGetProdInfo: product version %s not in major.minor.revision format.\n",
                 prodVersion);
        return;
    }
    for (std::size_t i = 0; i < parts.size(); ++i) {
        prodVersion2[i] = ParseVersionPart(parts[i]);
    }
    prodInfoGood = true;
}

// Variables.

namespace {

enum Scalar : u_char { nameScalar = 1, versionScalar, oidScalar, buildScalar };

const variable2 SNMPSystem_variables[] = {
    {nameScalar, ASN_OCTET_STR, RONLY, SNMP_System, 1, {1}},
    {versionScalar, ASN_OCTET_STR, RONLY, SNMP_System, 1, {2}},
    {oidScalar, ASN_OBJECT_ID, RONLY, SNMP_System, 1, {3}},
    {buildScalar, ASN_OCTET_STR, RONLY, SNMP_System, 1, {4}},
};
const oid SNMPSystem_variables_oid[] = {1, 3, 6, 1, 4, 1, 32473, 1};

// Handler.

SNMP::StringAnswer string;
SNMP::ObjectIdAnswer objid;

// The enterprise prefix of a scalar's instance name, then 60.1 and the version.
u_char* AnswerVersionId(const oid* instance, std::size_t instanceLength, std::size_t* varLen) {
    constexpr std::size_t suffixLength = 3;  // group, scalar, instance
    objid.Clear();
    for (std::size_t i = 0; i + suffixLength < instanceLength; ++i) {
        objid.Append(instance[i]);
    }
    objid.Append(60);
    objid.Append(1);
    for (const std::int32_t part : prodVersion2) {
        objid.Append(static_cast<std::uint32_t>(part));
    }
    return objid.Set(varLen);
}

}  // namespace

u_char* SNMP_System(variable* vp, oid* name, size_t* length, int exact, size_t* varLen,
                    WriteMethod** writeMethod) {
    return SNMP::Guard("SNMP_System", [&]() -> u_char* {
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

// Registration.

namespace {
SNMP::Registration registration("SNMPSystem", SNMPSystem_variables, SNMPSystem_variables_oid,
                                "init_SNMPSystem", __FILE__, 97);
}  // namespace

void init_SNMPSystem() {
    registration.Register();
    snmp_log(LOG_INFO, "SNMPSystem: Initialized.\n");
}

void deinit_SNMPSystem() {}
