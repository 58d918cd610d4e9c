#include "apps/snmp/collections/SNMPStrings.h"

#include <cstring>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <string_view>

#include "apps/snmp/agent/NetSnmp.h"

namespace {

const char* OrErrorText(const char* source) {
    return source != nullptr ? source : "SNMP Error";
}

void LogNoMemory() {
    snmp_log(LOG_WARNING, "SNMPAllocString: strdup() failed.\n");
}

}  // namespace

char* SNMPAllocString(const char* source) {
    char* const copy = strdup(OrErrorText(source));
    if (copy == nullptr) {
        LogNoMemory();
    }
    return copy;
}

const char* SNMPLastingString(const char* source) {
    // A set never moves its elements, so their characters stay where they are.
    static std::set<std::string, std::less<>> lasting;
    try {
        const std::string_view text = OrErrorText(source);
        auto position = lasting.lower_bound(text);
        if (position == lasting.end() || *position != text) {
            position = lasting.emplace_hint(position, text);
        }
        return position->c_str();
    } catch (const std::bad_alloc&) {
        LogNoMemory();
        return nullptr;
    }
}
