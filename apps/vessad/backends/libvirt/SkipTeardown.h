// The end of a program that has abandoned threads.
#pragma once

namespace Vessad::Libvirt {

// To be called by whoever abandons a thread that may still be in a call to the host. When the program exits
// later, it ends with its exit code before exit handlers and static destructors run, because such a thread
// may use what they tear down. May be called from any thread, and repeatedly.
void SkipTeardownAtExit();

}  // namespace Vessad::Libvirt
