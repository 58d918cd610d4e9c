// The running agents, as the kernel knows them.
#pragma once

#include <filesystem>
#include <vector>

#include "apps/status/Facts.h"

namespace KelvStatus {

// The snmpd processes of this process's network, in the order of their ids. `proc` is the proc file system.
// An agent whose network this process may not see counts too. Does not throw for what a process does.
std::vector<AgentFacts> ListAgents(const std::filesystem::path& proc = "/proc");

}  // namespace KelvStatus
