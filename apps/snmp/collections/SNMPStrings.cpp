#include "apps/snmp/collections/SNMPStrings.h"

#include <cstring>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "apps/snmp/agent/NetSnmp.h"

namespace {

constexpr const char* errorText = "SNMP Error";

const char* OrErrorText(const char* source) {
    return source != nullptr ? source : errorText;
}

// The texts of ten thousand VMs take less than a fifth of it.
constexpr std::size_t maxLastingBytes = 16UL * 1024 * 1024;
// What the set allocates for a text besides its characters, about.
constexpr std::size_t lastingOverhead = 96;

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
    static std::size_t bytes = 0;
    static bool limitReached = false;
    try {
        const std::string_view text = OrErrorText(source);
        auto position = lasting.lower_bound(text);
        if (position == lasting.end() || *position != text) {
            const std::size_t needed = text.size() + lastingOverhead;
            if (needed > maxLastingBytes - bytes) {
                if (!std::exchange(limitReached, true)) {
                    snmp_log(LOG_WARNING,
                             "SNMPLastingString: %zu bytes are in use, further texts read as \"%s\".\n",
                             maxLastingBytes, errorText);
                }
                return errorText;
            }
            position = lasting.emplace_hint(position, text);
            bytes += needed;
        }
        return position->c_str();
    } catch (const std::bad_alloc&) {
        LogNoMemory();
        return nullptr;
    }
}
