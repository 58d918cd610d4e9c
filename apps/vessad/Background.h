// Starts the daemon in the background.
#pragma once

#include "runtime/tessim/file_descriptor.h"

namespace Vessad {

// The exit code of the started process says whether the daemon runs: it waits until its child in the
// background is ready, or has failed.
class Background {
  public:
    // Forks; returns in the child only. The parent exits with 0 once the child is ready, and otherwise with
    // the child's own exit code. Call it before any thread is started. Throws std::system_error.
    Background();

    // Detaches from terminal and directory, and lets the parent exit. Throws std::system_error.
    void Ready();

  private:
    Tessim::FileDescriptor readyPipe;
};

}  // namespace Vessad
