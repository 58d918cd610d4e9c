#include "apps/vessad/ChangeTracker.h"

#include <charconv>
#include <chrono>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "apps/vessad/HostObjects.h"
#include "runtime/ordane/faults.h"
#include "runtime/ordane/soap.h"
#include "runtime/ordane/xml_codec.h"

namespace Vessad {

namespace {

using Tessim::MakeRef;
using Tessim::Ref;

constexpr char separator = '-';
// A part of this size is soon sent and read; an object that is larger is one of its own.
constexpr Ordane::Xml::Size partLimit{2UL << 20U, 40'000, 40'000};
// A larger object is sent in no part.
constexpr Ordane::Xml::Size objectLimit{24UL << 20U, 800'000, 800'000};
// A client reads such a part, of which less than 1 KiB is not the object.
constexpr Ordane::Soap::Limits clientLimits;
static_assert(partLimit.FitsIn(objectLimit) &&
              objectLimit.FitsIn({clientLimits.maxBytes - 1024, clientLimits.maxElements - 1024,
                                  clientLimits.maxElements - 1024}));

std::string TextOf(const Ordane::DataObject& object) {
    Ordane::Xml::Writer writer;
    Ordane::Xml::WriteMembers(writer, object);
    return writer.Take();
}

// Objects of an inventory are constant, so that one that a backend keeps is the same.
bool IsSame(const Ordane::DataObject* a, const Ordane::DataObject* b) {
    if (a == nullptr || b == nullptr || a == b) {
        return a == b;
    }
    return a->GetDataObjectType() == b->GetDataObjectType() && TextOf(*a) == TextOf(*b);
}

bool IsSame(const Hask::Vm::State& a, const Hask::Vm::State& b) {
    return IsSame(a.GetConfig(), b.GetConfig()) && IsSame(a.GetRuntime(), b.GetRuntime()) &&
           IsSame(a.GetGuest(), b.GetGuest());
}

bool IsSame(const Hask::Datastore::State& a, const Hask::Datastore::State& b) {
    return IsSame(a.GetInfo(), b.GetInfo());
}

Ref<Hask::Vm::State> StateOf(const Vm& vm) {
    auto state = MakeRef<Hask::Vm::State>();
    state->SetEntity(MakeReference<Hask::VirtualMachine>(vm.id));
    state->SetConfig(vm.config);
    state->SetRuntime(vm.runtime);
    state->SetGuest(vm.guest);
    return state;
}

Ref<Hask::Datastore::State> StateOf(const std::string& id, const Ref<Hask::Datastore::Info>& info) {
    auto state = MakeRef<Hask::Datastore::State>();
    state->SetEntity(MakeReference<Hask::Datastore>(id));
    state->SetInfo(info);
    return state;
}

struct Adder {
    Hask::Folder::Changes& part;

    void operator()(const Ref<Hask::Vm::State>& state) const { part.GetVm()->Append(state); }
    void operator()(const Ref<Hask::Datastore::State>& state) const { part.GetDatastore()->Append(state); }
    void operator()(const Ref<Hask::Folder::Objects>& objects) const { part.SetObjects(objects); }
};

// A number that no other tracker of this host has used: a daemon that restarts begins anew.
std::string MakeName() {
    return std::to_string(std::chrono::system_clock::now().time_since_epoch().count());
}

}  // namespace

ChangeTracker::ChangeTracker() : tracker(MakeName()) {}

Ref<Hask::Folder::Changes> ChangeTracker::GetChanges(const std::shared_ptr<const Inventory>& inventory,
                                                     const std::optional<std::string>& version) {
    const std::lock_guard lock(mutex);
    Track(inventory);
    Number last = version ? Parse(*version) : 0;
    auto result = MakeRef<Hask::Folder::Changes>();
    result->SetReset(last == 0);
    auto change = changes.upper_bound(last);
    Ordane::Xml::Size size;
    for (; change != changes.end(); ++change) {
        const auto& [number, what] = *change;
        if (what.size.FitsIn(objectLimit)) {
            const bool isFirst = size.bytes == 0;
            size += what.size;
            if (!isFirst && !size.FitsIn(partLimit)) {
                break;
            }
            std::visit(Adder{*result}, what.what);
        } else if (std::holds_alternative<Objects>(what.what)) {
            throw Ordane::Fault::SystemError::Exception("more objects than one response can list");
        }
        last = number;
    }
    result->SetComplete(change == changes.end());
    result->SetVersion(tracker + separator + std::to_string(last));
    return result;
}

ChangeTracker::Number ChangeTracker::Parse(std::string_view version) const {
    if (!version.starts_with(tracker + separator)) {
        return 0;
    }
    version.remove_prefix(tracker.size() + 1);
    Number number = 0;
    const auto [end, error] = std::from_chars(version.data(), version.data() + version.size(), number);
    const bool valid = error == std::errc() && end == version.data() + version.size();
    return valid && number > 0 && number <= latest ? number : 0;
}

void ChangeTracker::Track(const std::shared_ptr<const Inventory>& inventory) {
    if (inventory == tracked) {
        return;
    }
    std::unordered_map<std::string_view, Changes::const_iterator> vms;
    std::unordered_map<std::string_view, Changes::const_iterator> datastores;
    auto list = changes.cend();
    for (auto change = changes.cbegin(); change != changes.cend(); ++change) {
        if (const auto* const vm = std::get_if<VmState>(&change->second.what)) {
            vms.emplace((*vm)->GetEntity()->GetId(), change);
        } else if (const auto* const datastore = std::get_if<DatastoreState>(&change->second.what)) {
            datastores.emplace((*datastore)->GetEntity()->GetId(), change);
        } else {
            list = change;
        }
    }
    Changes now;
    // Adds a state under the number that it has, or a new one if it is a change. Returns whether it can be
    // sent.
    const auto add = [&](const auto& state, const auto& before) {
        using State = std::decay_t<decltype(state)>;
        const auto found = before.find(state->GetEntity()->GetId());
        if (found != before.end()) {
            const auto& [number, change] = *found->second;
            if (IsSame(*std::get<State>(change.what), *state)) {
                now.emplace(number, Change{state, change.size});
                return change.size.FitsIn(objectLimit);
            }
        }
        const Ordane::Xml::Size size = Ordane::Xml::SizeOf(*state);
        now.emplace(++latest, Change{state, size});
        return size.FitsIn(objectLimit);
    };
    const auto objects = MakeRef<Hask::Folder::Objects>();
    for (const auto& vm : inventory->vms) {
        if (const VmState state = StateOf(*vm); add(state, vms)) {
            objects->GetVm()->Append(state->GetEntity());
        }
    }
    for (const auto& [id, info] : inventory->datastores) {
        if (const DatastoreState state = StateOf(id, info); add(state, datastores)) {
            objects->GetDatastore()->Append(state->GetEntity());
        }
    }
    if (list != changes.cend() && IsSame(std::get<Objects>(list->second.what).Get(), objects.Get())) {
        now.insert(*list);
    } else {
        now.emplace(++latest, Change{objects, Ordane::Xml::SizeOf(*objects)});
    }
    changes = std::move(now);
    tracked = inventory;
}

}  // namespace Vessad
