// A domain's disk controllers as the API's.
#pragma once

#include <pugixml.hpp>

#include "apps/vessad/backends/libvirt/DeviceList.h"

namespace Vessad::Libvirt {

// Adds the controllers that the <domain> element has, and those that only the address of a drive names. Keys
// and labels are those of `buses`, plus the controller's index; an IDE controller is two, one for each
// channel.
void AddControllers(pugi::xml_node domain, DeviceList& devices);

}  // namespace Vessad::Libvirt
