// What libvirt says of the calling thread's latest call.
#pragma once

#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// Returns the error of the latest call, which has failed.
ApiError LastError();

// Throws it unless the latest call was `done`.
void Check(bool done);

// Returns whether the latest call failed with that code.
bool HasCode(int code);

// Returns whether the latest call failed because the driver has nothing of the kind.
bool IsUnsupported();

}  // namespace Vessad::Libvirt
