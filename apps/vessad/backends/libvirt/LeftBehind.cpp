#include "apps/vessad/backends/libvirt/LeftBehind.h"

#include <cstdio>
#include <cstdlib>

namespace Vessad::Libvirt {
namespace {

// Called before the handlers that were registered earlier, and before the libraries' own.
void EndAtOnce(int status, void* /*unused*/) {
    std::fflush(nullptr);
    std::_Exit(status);
}

}  // namespace

void LeaveThreadBehind() {
    static const int registered = ::on_exit(EndAtOnce, nullptr);
    static_cast<void>(registered);
}

}  // namespace Vessad::Libvirt
