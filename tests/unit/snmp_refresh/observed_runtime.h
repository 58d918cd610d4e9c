// Lets a test see how the connection uses the runtime.
//
// In programs linked with observed_runtime.cpp (and its --wrap options) each of the runtime's functions that
// the connection calls adds an event to the fake daemon before it works as always, or fails where the
// daemon's `failingStep` says so.
#pragma once

#include "runtime/hask/mo_factory.h"

namespace ObservedRuntime {

// Connections made while this is set get that factory instead of stubs. Null: stubs.
extern Tessim::Ref<Hask::MoFactory> factory;

}  // namespace ObservedRuntime
