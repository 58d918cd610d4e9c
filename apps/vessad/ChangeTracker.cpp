#include "apps/vessad/ChangeTracker.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "runtime/ordane/xml_codec.h"

namespace Vessad {

namespace {

using Tessim::MakeRef;
using Tessim::Ref;

constexpr char separator = '-';
// What one part of the changes holds at most: a part of this size is some megabyte on the wire.
constexpr std::size_t maxDevices = 2000;

template <class Object>
Ref<Ordane::MoRef> MakeReference(const std::string& id) {
    return MakeRef<Ordane::MoRef>(std::string(Object::staticType.name), id);
}

// How much of a part the object takes, in devices.
std::size_t SizeOf(const Vm& vm) {
    const auto* const hardware = vm.config ? vm.config->GetHardware() : nullptr;
    const auto* const devices = hardware != nullptr ? hardware->GetDevice() : nullptr;
    return 1 + (devices != nullptr ? static_cast<std::size_t>(devices->GetLength()) : 0);
}

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

bool IsSame(const Vm& a, const Vm& b) {
    return IsSame(a.config.Get(), b.config.Get()) && IsSame(a.runtime.Get(), b.runtime.Get()) &&
           IsSame(a.guest.Get(), b.guest.Get());
}

bool HaveSameObjects(const Inventory& a, const Inventory& b) {
    return std::equal(a.vms.begin(), a.vms.end(), b.vms.begin(), b.vms.end(),
                      [](const auto& left, const auto& right) { return left->id == right->id; }) &&
           std::equal(a.datastores.begin(), a.datastores.end(), b.datastores.begin(), b.datastores.end(),
                      [](const auto& left, const auto& right) { return left.first == right.first; });
}

Ref<Hask::Vm::State> StateOf(const Vm& vm) {
    auto state = MakeRef<Hask::Vm::State>();
    state->SetEntity(MakeReference<Hask::VirtualMachine>(vm.id));
    state->SetConfig(vm.config);
    state->SetRuntime(vm.runtime);
    state->SetGuest(vm.guest);
    return state;
}

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
    auto change = std::upper_bound(changes.begin(), changes.end(), last,
                                   [](Number number, const Change& each) { return number < each.number; });
    for (std::size_t size = 0; change != changes.end() && size < maxDevices; ++change) {
        last = change->number;
        if (const auto* const vm = std::get_if<std::shared_ptr<const Vm>>(&change->what)) {
            size += SizeOf(**vm);
            result->GetVm()->Append(StateOf(**vm));
        } else if (const auto* const datastore = std::get_if<Datastore>(&change->what)) {
            ++size;
            auto state = MakeRef<Hask::Datastore::State>();
            state->SetEntity(MakeReference<Hask::Datastore>(datastore->id));
            state->SetInfo(datastore->info);
            result->GetDatastore()->Append(state);
        } else {
            result->SetObjects(ListObjects());
        }
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
    std::unordered_map<std::string_view, const Change*> vms;
    std::unordered_map<std::string_view, const Change*> datastores;
    std::vector<Change> kept;
    std::vector<Change> added;
    for (const Change& change : changes) {
        if (const auto* const vm = std::get_if<std::shared_ptr<const Vm>>(&change.what)) {
            vms.emplace((*vm)->id, &change);
        } else if (const auto* const datastore = std::get_if<Datastore>(&change.what)) {
            datastores.emplace(datastore->id, &change);
        } else if (HaveSameObjects(*tracked, *inventory)) {
            kept.push_back(change);
        }
    }
    for (const auto& vm : inventory->vms) {
        const auto found = vms.find(vm->id);
        if (found != vms.end() && IsSame(*std::get<std::shared_ptr<const Vm>>(found->second->what), *vm)) {
            kept.push_back({found->second->number, vm});
        } else {
            added.push_back({0, vm});
        }
    }
    for (const auto& [id, info] : inventory->datastores) {
        const auto found = datastores.find(id);
        if (found != datastores.end() &&
            IsSame(std::get<Datastore>(found->second->what).info.Get(), info.Get())) {
            kept.push_back(*found->second);
        } else {
            added.push_back({0, Datastore{id, info}});
        }
    }
    if (!tracked || !HaveSameObjects(*tracked, *inventory)) {
        added.push_back({0, TheList{}});
    }
    std::sort(kept.begin(), kept.end(), [](const Change& a, const Change& b) { return a.number < b.number; });
    for (Change& change : added) {
        change.number = ++latest;
        kept.push_back(std::move(change));
    }
    changes = std::move(kept);
    tracked = inventory;
}

Ref<Hask::Folder::Objects> ChangeTracker::ListObjects() const {
    auto objects = MakeRef<Hask::Folder::Objects>();
    for (const auto& vm : tracked->vms) {
        objects->GetVm()->Append(MakeReference<Hask::VirtualMachine>(vm->id));
    }
    for (const auto& [id, info] : tracked->datastores) {
        objects->GetDatastore()->Append(MakeReference<Hask::Datastore>(id));
    }
    return objects;
}

}  // namespace Vessad
