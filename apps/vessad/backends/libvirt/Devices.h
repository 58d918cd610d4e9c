// A domain's devices as the API's.
#pragma once

#include <pugixml.hpp>

#include "apps/vessad/backends/libvirt/DomainXml.h"

namespace Vessad::Libvirt {

// Adds the controllers, drives and cards of the <domain> element to `hardware`, and to the description what
// goes with them: the figures' names and the datastores, also in the configuration.
//
// Keys: SCSI controllers 1000 + index; IDE buses 200 + bus, two to an IDE controller; SATA controllers
// 15000 + index; floppy controllers 400 + index; disks from 2000, CD-ROM drives from 3000, network cards from
// 4000, floppy drives from 8000, each by its place in the machine, so that it keeps its key when others go;
// a card without a place on a PCI bus by its MAC address, from 16777216.
void AddDevices(pugi::xml_node domain, const Surroundings& surroundings, Hask::Vm::VirtualHardware& hardware,
                DomainDescription& description);

}  // namespace Vessad::Libvirt
