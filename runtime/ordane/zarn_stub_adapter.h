// The adapter that carries calls over a connection of the Zarn service.
#pragma once

#include <string>

#include "runtime/ordane/stub_adapter.h"
#include "runtime/tessim/service.h"
#include "runtime/tessim/zarn.h"

namespace Ordane {

// Puts an adapter into `out` whose calls go, as HTTP/1.1 POST requests, where `path` leads in `service`. Each
// call waits at most until the end of the time budget in force, and never longer than 5 s. A reply of more
// than 32 MiB (64 KiB until a call of the method "Login" has succeeded), or a header of more than 8 KiB,
// breaks the connection. `logger` receives the adapter's messages; null for
// none. The adapter is not thread-safe. Throws Tessim::InvalidArgumentException when `path` is not
// mapped.
void CreateZarnStubAdapter(Tessim::Service::Logger* logger, Tessim::Zarn::ZarnSvc* service,
                           const std::string& path, Tessim::Ref<StubAdapter>& out);

}  // namespace Ordane
