// What changed of a host's VMs and datastores, for clients that keep what they received.
//
// Every change has a number: the first time that an object appears, and each time that what its getters
// return does. A client passes the number up to which it has the changes, and receives later ones a part at a
// time, oldest first.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "apps/vessad/backends/Backend.h"
#include "runtime/ordane/xml_codec.h"

namespace Vessad {

class ChangeTracker {
  public:
    ChangeTracker();

    // Returns changes since `version`, one that an earlier call returned, up to those of `inventory`; all of
    // them, from the start, for any other text. An object that is too large is neither sent nor listed: it is
    // to be called. Throws SystemError's exception when the list itself is too large. May be called from any
    // thread.
    Tessim::Ref<Hask::Folder::Changes> GetChanges(const std::shared_ptr<const Inventory>& inventory,
                                                  const std::optional<std::string>& version);

  private:
    using Number = std::int64_t;
    using VmState = Tessim::Ref<Hask::Vm::State>;
    using DatastoreState = Tessim::Ref<Hask::Datastore::State>;
    using Objects = Tessim::Ref<Hask::Folder::Objects>;

    struct Change {
        std::variant<Objects, VmState, DatastoreState> what;
        Ordane::Xml::Size size;
    };
    using Changes = std::map<Number, Change>;

    // Returns the number in a version of this tracker, or 0.
    Number Parse(std::string_view version) const;
    // Takes the changes from the previous inventory to this one.
    void Track(const std::shared_ptr<const Inventory>& inventory);

    const std::string tracker;  // begins every version of this one
    std::mutex mutex;
    std::shared_ptr<const Inventory> tracked;  // the latest that a client asked for, until the next
    Changes changes;                           // the latest of each object
    Number latest = 0;
};

}  // namespace Vessad
