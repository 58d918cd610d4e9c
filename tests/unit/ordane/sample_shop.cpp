#include "tests/unit/ordane/sample_shop.h"

#include "runtime/ordane/xml_codec.h"
#include "tests/unit/ordane/messages.h"

namespace Sample {

using Tessim::MakeRef;

Tessim::Ref<Everything> MakeEverything() {
    pugi::xml_document document;
    document.load_string(everything);
    const auto read = Ordane::Xml::ReadObject(document.document_element(), Everything::StaticType(),
                                              Ordane::Xml::Unknown::Refuse);
    return Tessim::NarrowToType<Everything>(read);
}

void FakeShop::Greet(const std::string& visitor, Tessim::Ref<Thing>& out) {
    failure();
    calls.push_back("Greet " + visitor);
    out = MakeRef<Thing>();
    out->SetName("hello " + visitor);
}

void FakeShop::Sweep() {
    failure();
    calls.emplace_back("Sweep");
}

void FakeShop::Store(bool flag, std::int32_t small, const std::optional<std::int64_t>& large, State state,
                     Thing* thing, Ordane::MoRef* owner, const std::vector<std::string>& tags,
                     Tessim::Ref<Everything>& out) {
    failure();
    std::string call = std::string("Store ") + (flag ? "true " : "false ") + std::to_string(small) + " " +
                       (large ? std::to_string(*large) : "none") + " " +
                       std::to_string(static_cast<int>(state)) + " " +
                       std::string(thing->GetDataObjectType()->name) + ":" + thing->GetName() + " " +
                       (owner != nullptr ? owner->GetId() : "nobody");
    for (const std::string& tag : tags) {
        call += " " + tag;
    }
    calls.push_back(call);
    out = MakeEverything();
}

void FakeShop::GetThings(Tessim::Ref<Ordane::DataArray<Thing>>& out) {
    failure();
    calls.emplace_back("GetThings");
    out = things;
}

void FakeShop::GetOwner(Tessim::Ref<Ordane::MoRef>& out) {
    failure();
    calls.emplace_back("GetOwner");
    out = owner;
}

Tessim::Ref<Ordane::ManagedObject> ShopSource::Find(const Ordane::MoRef& reference) {
    if (reference.GetType() == "Shop" && reference.GetId() == "shop-1") {
        return shop;
    }
    return nullptr;
}

}  // namespace Sample
