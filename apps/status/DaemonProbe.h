// What the management daemon says of itself.
#pragma once

#include "apps/status/Facts.h"

namespace KelvStatus {

// Connects to the daemon and logs in as the module does, within the same limit of 1 s, and queries its
// status, for which it has another second. Does not throw for what the daemon does.
DaemonFacts ProbeDaemon();

}  // namespace KelvStatus
