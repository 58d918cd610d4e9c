// Starting in the background.
#pragma once

#include "runtime/tessim/file_descriptor.h"

namespace Vessad {

// Whoever starts a daemon learns from its exit code whether it stands: the process that was started waits
// until its child in the background is ready, or has failed.
class Background {
  public:
    // Forks; returns in the child only. The parent exits with 0 once the child is ready, and otherwise with
    // the child's own exit code. To be called before there is any thread. Throws std::system_error.
    Background();

    // The child is ready: leaves the starter's session, terminal and directory.
    void Ready();

  private:
    Tessim::FileDescriptor readyPipe;
};

}  // namespace Vessad
