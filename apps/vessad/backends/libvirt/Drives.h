// A domain's disks, CD-ROM drives and floppy drives as the API's.
#pragma once

#include <pugixml.hpp>

#include "apps/vessad/backends/libvirt/DeviceList.h"
#include "apps/vessad/backends/libvirt/DomainDescription.h"

namespace Vessad::Libvirt {

// Adds the drives of the <domain> element to the devices; to the description its disks, its datastores and,
// in the configuration, the datastores' directories.
//
// Keys: disks from 2000, CD-ROM drives from 3000, floppy drives from 8000, by the target's name, so that a
// drive keeps its key when others are detached. CD-ROM drives that are on no IDE controller are given further
// ones, with keys from 500 and bus numbers from 50: the drive with the key 3000 + n is unit n % 2 of the one
// with the number n / 2.
void AddDrives(pugi::xml_node domain, const DescribeContext& context, DeviceList& devices,
               DomainDescription& description);

}  // namespace Vessad::Libvirt
