// The sample API's shop as a server has it, and where calls find it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "runtime/ordane/dispatcher.h"
#include "tests/unit/ordane/sample.h"

namespace Sample {

// What `everything` is the text of.
Tessim::Ref<Everything> MakeEverything();

// Returns prepared results and keeps its calls.
class FakeShop final : public Shop {
  public:
    FakeShop() : Shop(Tessim::MakeRef<Ordane::MoRef>("Shop", "shop-1")) {}

    void Greet(const std::string& visitor, Tessim::Ref<Thing>& out) override;
    void Sweep() override;
    void Store(bool flag, std::int32_t small, const std::optional<std::int64_t>& large, State state,
               Thing* thing, Ordane::MoRef* owner, const std::vector<std::string>& tags,
               Tessim::Ref<Everything>& out) override;
    void GetThings(Tessim::Ref<Ordane::DataArray<Thing>>& out) override;
    void GetOwner(Tessim::Ref<Ordane::MoRef>& out) override;

    std::vector<std::string> calls;  // in words
    Tessim::Ref<Ordane::DataArray<Thing>> things = Tessim::MakeRef<Ordane::DataArray<Thing>>();
    Tessim::Ref<Ordane::MoRef> owner;
    std::function<void()> failure = [] {};  // called first by every method
};

// Knows one shop, "shop-1", and whether somebody is logged in.
class ShopSource final : public Ordane::ObjectSource {
  public:
    Tessim::Ref<Ordane::ManagedObject> Find(const Ordane::MoRef& reference) override;
    bool IsLoggedIn() const override { return loggedIn; }

    Tessim::Ref<FakeShop> shop = Tessim::MakeRef<FakeShop>();
    bool loggedIn = true;
};

}  // namespace Sample
