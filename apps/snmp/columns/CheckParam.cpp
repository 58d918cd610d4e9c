#include "apps/snmp/columns/CheckParam.h"

#include <algorithm>
#include <array>

int CheckParam(variable* vp, oid* name, std::size_t* length, int exact, std::size_t* varLen,
               WriteMethod** writeMethod) {
    std::array<oid, MAX_OID_LEN> instance;
    const std::size_t instanceLength = vp->namelen + std::size_t{1};
    if (instanceLength > instance.size()) {
        return 0;
    }
    std::copy_n(vp->name, vp->namelen, instance.begin());
    instance[vp->namelen] = 0;

    const int order = snmp_oid_compare(name, *length, instance.data(), instanceLength);
    if (exact != 0 ? order != 0 : order >= 0) {
        return 0;
    }
    std::copy_n(instance.begin(), instanceLength, name);
    *length = instanceLength;
    *varLen = 4;
    *writeMethod = nullptr;
    return 1;
}
