// Figures from the drivers that know no `virsh domstats`.
#pragma once

#include <libvirt/libvirt.h>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// The active domain's figures, gathered by older and slower calls, under the names of domstats. What the
// driver does not tell is left out.
Statistics PlainStatistics(virDomainPtr domain);

}  // namespace Vessad::Libvirt
