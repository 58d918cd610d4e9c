// The installed libvirt.
#pragma once

#include <memory>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// Returns the installed libvirt. Throws ApiError.
std::shared_ptr<Api> MakeApi();

}  // namespace Vessad::Libvirt
