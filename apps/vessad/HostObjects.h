// The managed objects that show an inventory.
#pragma once

#include <chrono>
#include <memory>
#include <string_view>

#include "apps/vessad/backends/Backend.h"

namespace Vessad {

// Whether `reference` is the managed object of class Object with that id.
template <class Object>
bool IsReferenceTo(const Ordane::MoRef& reference, std::string_view id) {
    return reference.GetType() == Object::staticType.name && reference.GetId() == id;
}

// The object of `inventory` that `reference` names, or null: the folder of virtual machines, a machine, a
// datastore, the host, its memory manager or its performance manager. `elapsed` is how long the daemon has
// run, which the figures depend on. The object keeps the inventory.
Tessim::Ref<Ordane::ManagedObject> FindHostObject(const std::shared_ptr<const Inventory>& inventory,
                                                  const Ordane::MoRef& reference,
                                                  std::chrono::nanoseconds elapsed);

}  // namespace Vessad
