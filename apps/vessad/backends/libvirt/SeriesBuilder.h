// Turns a sample of a domain's statistics into the API's series.
#pragma once

#include <vector>

#include "apps/vessad/backends/Backend.h"
#include "apps/vessad/backends/libvirt/DomainDescription.h"
#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// Returns the series of a domain. Statistics that are not in the sample, and counters that are not in `keys`,
// are omitted.
//
//   counter     instance                               unit
//   cpu.used    enabled virtual CPUs, counted from 0   milliseconds
//   mem.active  empty                                  kilobytes in use in the guest if its balloon driver
//                                                      reports them, else resident on the host
//   disk.*      name of the disk, summed over the      requests and kilobytes
//               disks of one name
//   net.*       key of the card                        packets and kilobytes, in the guest's direction
std::vector<Series> BuildSeries(const Statistics& statistics, const DomainDescription& domain,
                                const CounterKeys& keys);

}  // namespace Vessad::Libvirt
