// Stands in for the management client behind the product group.
#pragma once

#include "runtime/hask/api.h"

namespace FakeClient {

// What the group finds.
struct State {
    bool reachable = true;                              // whether there is a client at all
    Tessim::Ref<Hask::ServiceInstanceContent> content;  // what it answers; null: the query failed
    int asked = 0;                                      // how often a client was asked for
};

State& Get();

// Content that describes such a product.
Tessim::Ref<Hask::ServiceInstanceContent> MakeContent(const std::string& name, const std::string& version,
                                                      const std::string& build);

}  // namespace FakeClient
