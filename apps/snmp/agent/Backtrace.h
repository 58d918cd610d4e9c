// An exception's backtrace in the agent's log.
#pragma once

#include "apps/snmp/agent/NetSnmp.h"
#include "runtime/tessim/exception.h"

namespace SNMP {

// Logs every line of the backtrace at `priority`.
inline void LogBacktrace(const Tessim::Throwable& failure, int priority) {
    for (const std::string& line : failure.GetBacktrace()) {
        snmp_log(priority, "%s\n", line.c_str());
    }
}

}  // namespace SNMP
