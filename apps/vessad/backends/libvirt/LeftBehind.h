// Threads that the end of the program overtakes.
#pragma once

namespace Vessad::Libvirt {

// To be called by whoever leaves a thread behind that waits for the host: when the program ends, nothing that
// such a thread may use is torn down before it.
void LeaveThreadBehind();

}  // namespace Vessad::Libvirt
