// The agent library inside the test program: a registry and a log, no ports, no configuration files.
#pragma once

#include <net-snmp/net-snmp-config.h>
// The configuration comes first.
#include <net-snmp/net-snmp-includes.h>
// The agent's headers lean on the library's.
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <string>
#include <vector>

namespace TestSupport {

using Oid = std::vector<oid>;

// Starts the agent library unless it runs already. It runs until the program ends.
void StartAgent();

// The entry that the agent holds for exactly this column or scalar, or null. `name` is the entry's suffix.
const variable* FindRegistered(const Oid& column);

// The name that its registration was given; empty when there is none.
std::string RegistrationName(const Oid& column);

}  // namespace TestSupport
