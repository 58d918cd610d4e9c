#include "apps/snmp/SNMPWriter.h"

#include "apps/snmp/NetSnmp.h"

void SNMPWriter::Write(const char* text, int /*length*/) {
    snmp_log(LOG_INFO, "%s", text);
}
