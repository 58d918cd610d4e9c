// The inventory of a host that libvirt manages.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "apps/vessad/backends/Backend.h"

namespace Vessad {

// A backend on the libvirt host at `uri`, kept up to date by threads of its own. Waits at most 10 s for the
// first inventory; while the host cannot be reached, the inventory is empty and the backend keeps trying.
//
// The VMs' ids are kept in `stateDirectory`, which is created if it is missing; those of VMs that are gone
// for `forgetAfter`, or for ever where that is 0.
//
// Throws std::runtime_error with a text for the operator when it can never work: a URI that libvirt does not
// understand, or a state directory that cannot be written.
std::unique_ptr<Backend> MakeLibvirtBackend(const std::string& uri,
                                            const std::filesystem::path& stateDirectory,
                                            std::chrono::days forgetAfter);

}  // namespace Vessad
