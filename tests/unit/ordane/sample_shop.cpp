#include "tests/unit/ordane/sample_shop.h"

namespace Sample {

namespace {

using Tessim::MakeRef;

Tessim::Ref<Ordane::DataArray<Thing>> MakeThings(const std::string& plainName, const std::string& toyName) {
    const auto plain = MakeRef<Thing>();
    plain->SetName(plainName);
    const auto toy = MakeRef<RedToy>();
    toy->SetName(toyName);
    toy->SetCount(7);
    auto things = MakeRef<Ordane::DataArray<Thing>>();
    things->Append(plain);
    things->Append(Tessim::Ref<Thing>(toy));
    return things;
}

}  // namespace

Tessim::Ref<Everything> MakeEverything() {
    auto all = MakeRef<Everything>();
    all->SetFlag(true);
    all->SetFlagMaybe(false);
    all->SetFlagList({false, true});
    all->SetSmall(-2147483647 - 1);
    all->SetSmallMaybe(2147483647);
    all->SetSmallList({1, 2});
    all->SetLarge(-9223372036854775807 - 1);
    all->SetLargeMaybe(9223372036854775807);
    all->SetLargeList({3, 4});
    all->SetText("a text");
    all->SetTextMaybe("maybe");
    all->SetTextList({"first", "second"});
    all->SetState(Shop::State::open);
    all->SetStateMaybe(Shop::State::closed);
    all->SetStateList({Shop::State::sold, Shop::State::open});
    const auto tool = MakeRef<Tool>();
    tool->SetName("saw");
    all->SetThing(Tessim::Ref<Thing>(tool));
    all->SetThingList(MakeThings("cup", "ball"));
    all->SetThingListMaybe(MakeThings("jug", "kite"));
    all->SetReference(MakeRef<Ordane::MoRef>("Shop", "shop-2"));
    all->SetPerson(MakeRef<Ordane::MoRef>("Person", "ann"));
    const auto persons = MakeRef<Ordane::DataArray<Ordane::MoRef>>();
    persons->Append(MakeRef<Ordane::MoRef>("Person", "bob"));
    persons->Append(MakeRef<Ordane::MoRef>("Person", "cy"));
    all->SetPersonList(persons);
    return all;
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
