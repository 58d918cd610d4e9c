// Keeps C++ exceptions out of the agent's C frames.
#pragma once

#include <exception>
#include <utility>

#include "apps/snmp/agent/NetSnmp.h"

namespace SNMP {

// Returns what `body` returns. When it throws, logs "<function>: <what>" at priority 3 and returns a
// value-initialised result: a null pointer for a handler, which the agent takes as "no such instance".
template <class Body>
auto Guard(const char* function, Body&& body) noexcept -> decltype(body()) {
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception& error) {
        snmp_log(LOG_ERR, "%s: %s\n", function, error.what());
    } catch (...) {
        snmp_log(LOG_ERR, "%s: unknown exception\n", function);
    }
    return decltype(body())();
}

}  // namespace SNMP
