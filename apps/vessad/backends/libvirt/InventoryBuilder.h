// A reading of a host as the daemon's inventory.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "apps/vessad/backends/Backend.h"
#include "apps/vessad/backends/libvirt/HostReader.h"
#include "apps/vessad/backends/libvirt/Identities.h"

namespace Vessad::Libvirt {

// How libvirt's states show. `active`: the domain has a process.
Hask::VirtualMachine::PowerState PowerStateOf(DomainState state, bool active);
std::string GuestStateOf(DomainState state, bool active);

// The inventory before anything is known of the host: no machine, no product, no hardware.
std::shared_ptr<const Inventory> UnknownHost();

// The host of `inventory` without its machines.
std::shared_ptr<const Inventory> WithoutMachines(const Inventory& inventory);

// The machines that have a number, in its order; `figures` by UUID, only of active ones.
//
// A machine of `before` that has gone is in no folder any more, but is still found by its id: a client that
// listed the machines a moment ago is in the middle of asking them.
std::shared_ptr<const Inventory> BuildInventory(const HostReading& reading, const Identities& identities,
                                                const std::map<std::string, Statistics>& figures,
                                                const Inventory& before);

}  // namespace Vessad::Libvirt
