// Figures of a domain as the API's counters.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "apps/vessad/backends/Backend.h"
#include "apps/vessad/backends/libvirt/DomainXml.h"
#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// The keys of the catalogue's counters by "group.name".
using CounterKeys = std::map<std::string, int, std::less<>>;
CounterKeys KeysOf(const std::vector<Tessim::Ref<Hask::PerformanceManager::CounterInfo>>& catalogue);

// The counters of a domain; one that the host does not tell is left out.
//
//   cpu.used    of each virtual CPU that is enabled, counted from 0: milliseconds
//   mem.active  of the machine: kilobytes in use within the guest, where its balloon tells, else on the host
//   disk.*      by the names of its disks, summed over the disks of one name: requests and kilobytes
//   net.*       by the keys of its cards, as the guest sees them: packets and kilobytes
std::vector<Series> MakeSeries(const Statistics& statistics, const DomainDescription& domain,
                               const CounterKeys& keys);

}  // namespace Vessad::Libvirt
