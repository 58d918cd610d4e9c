#include "apps/snmp/refresh/ProductInfo.h"

#include <string>
#include <vector>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/client/OrdaneClient.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

char prodName[256];
char prodVersion[16];
char prodBuild[16];
std::array<std::int32_t, 3> prodVersion2;

namespace {

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
                 Tessim::StringUtil::EscapeControls(prodVersion).c_str());
        return;
    }
    for (std::size_t i = 0; i < parts.size(); ++i) {
        prodVersion2[i] = ParseVersionPart(parts[i]);
    }
    prodInfoGood = client->IsServiceInstanceContentKept();
}
