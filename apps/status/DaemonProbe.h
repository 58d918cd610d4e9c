// What the management daemon says of itself.
#pragma once

#include "apps/status/Facts.h"

namespace KelvStatus {

// Connects to the daemon, logs in as the module does and queries its status, within 2 s in total. Does not
// throw for what the daemon does.
DaemonFacts ProbeDaemon();

}  // namespace KelvStatus
