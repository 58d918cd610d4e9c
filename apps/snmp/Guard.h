// What keeps C++ exceptions out of the agent's C frames.
#pragma once

#include <exception>
#include <utility>

#include "apps/snmp/NetSnmp.h"

namespace SNMP {

// Answers what `body` answers. When it throws, one line "<function>: <what>" goes to the log at priority 3
// and the answer is a value-initialised one: a null pointer for a handler, which the agent takes as "no
// answer".
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
