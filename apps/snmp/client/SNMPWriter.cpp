#include "apps/snmp/client/SNMPWriter.h"

#include "apps/snmp/agent/NetSnmp.h"

void SNMPWriter::Write(const char* text, int /*length*/) {
    snmp_log(LOG_INFO, "%s", text);
}
