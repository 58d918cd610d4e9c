// Builds the daemon's inventory from a reading of a host.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "apps/vessad/backends/Backend.h"
#include "apps/vessad/backends/libvirt/HostReader.h"
#include "apps/vessad/backends/libvirt/VmIds.h"

namespace Vessad::Libvirt {

// What libvirt's states are shown as. `active`: the domain has a process.
Hask::VirtualMachine::PowerState PowerStateOf(DomainState state, bool active);
std::string GuestStateOf(DomainState state, bool active);

// Returns the inventory of a host that was never reached: no VM, no product, no hardware.
std::shared_ptr<const Inventory> UnknownHost();

// Returns the host of `inventory` without its VMs.
std::shared_ptr<const Inventory> WithoutVms(const Inventory& inventory);

// Returns an inventory of the VMs that have an id, ordered by it. `samples`: the statistics of running
// domains by UUID.
//
// A VM that `before` lists and `reading` lacks is not listed, but is still found by its id, so that a client
// that listed it a moment ago can finish.
std::shared_ptr<const Inventory> BuildInventory(const HostReading& reading, const VmIds& vmIds,
                                                const std::map<std::string, Statistics>& samples,
                                                const Inventory& before);

}  // namespace Vessad::Libvirt
