#include "apps/snmp/refresh/Outage.h"

#include "apps/snmp/agent/NetSnmp.h"

namespace SNMP {

namespace {

constexpr std::chrono::minutes lineInterval{1};

long long Seconds(Outage::Clock::duration duration) {
    return std::chrono::duration_cast<std::chrono::seconds>(duration).count();
}

}  // namespace

void Outage::Continue(Clock::time_point now) {
    if (!start) {
        start = now;
        snmp_log(LOG_WARNING, "SNMPRask: tables are empty until tovric-vessad delivers the VMs.\n");
    } else if (now - lastLine >= lineInterval) {
        snmp_log(LOG_WARNING, "SNMPRask: tables have been empty for %lld s.\n", Seconds(now - *start));
    } else {
        return;
    }
    lastLine = now;
}

void Outage::End(Clock::time_point now) {
    if (start) {
        snmp_log(LOG_WARNING, "SNMPRask: tables are filled again after %lld s.\n", Seconds(now - *start));
        start.reset();
    }
}

}  // namespace SNMP
