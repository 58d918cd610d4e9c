// Statistics from drivers that do not support `virsh domstats`.
#pragma once

#include <libvirt/libvirt.h>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// Returns the statistics of an active domain under the names of domstats, read by older and slower calls.
// Those that the driver does not have are omitted; never throws ApiError. The caller keeps the domain.
Statistics LegacyStatistics(virDomainPtr domain);

}  // namespace Vessad::Libvirt
