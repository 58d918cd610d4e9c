// The agent's own headers, in the order they need.
#pragma once

#include <net-snmp/net-snmp-config.h>
// The configuration comes first.
#include <net-snmp/net-snmp-includes.h>
// The agent's headers lean on the library's.
#include <net-snmp/agent/net-snmp-agent-includes.h>
