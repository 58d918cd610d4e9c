// The managed objects of an inventory.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "apps/vessad/ChangeTracker.h"
#include "apps/vessad/backends/Backend.h"

namespace Vessad {

// Whether `reference` is the managed object of class Object with that id.
template <class Object>
bool IsReferenceTo(const Ordane::MoRef& reference, std::string_view id) {
    return reference.GetType() == Object::staticType.name && reference.GetId() == id;
}

// Returns a reference to the managed object of class Object with that id.
template <class Object>
Tessim::Ref<Ordane::MoRef> MakeReference(const std::string& id) {
    return Tessim::MakeRef<Ordane::MoRef>(std::string(Object::staticType.name), id);
}

// Returns a new object for what `reference` names in `inventory`, or null: the folder of VMs, a VM, a
// datastore, the host, its memory manager or its performance manager. `elapsed` is the time since the daemon
// started, for statistics. The object keeps the inventory alive, and must not outlive `changes`.
Tessim::Ref<Ordane::ManagedObject> FindHostObject(const std::shared_ptr<const Inventory>& inventory,
                                                  ChangeTracker& changes, const Ordane::MoRef& reference,
                                                  std::chrono::nanoseconds elapsed);

}  // namespace Vessad
