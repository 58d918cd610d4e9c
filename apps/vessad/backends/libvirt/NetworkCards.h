// A domain's network cards as the API's.
#pragma once

#include <pugixml.hpp>

#include "apps/vessad/backends/libvirt/DeviceList.h"
#include "apps/vessad/backends/libvirt/DomainDescription.h"

namespace Vessad::Libvirt {

// Adds the cards of the <domain> element to the devices and to `description.cards`.
//
// Keys: 4000 + (bus × 32 + slot) × 8 + function of the PCI address; without one, 16777216 + the last three
// bytes of the MAC address; without either, 4000 + position. So a card keeps its key when another is
// detached.
void AddNetworkCards(pugi::xml_node domain, DeviceList& devices, DomainDescription& description);

}  // namespace Vessad::Libvirt
