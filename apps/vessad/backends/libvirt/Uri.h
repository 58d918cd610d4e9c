// What a libvirt URI says of the host behind it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Vessad::Libvirt {

// Whether the URI names no other machine, so that the host's files are this machine's.
bool IsLocal(std::string_view uri);

// The directory, with its final slash, where the URI's driver keeps the configurations of persistent domains;
// nothing when the driver keeps none in files, or the place depends on a user of another machine.
std::optional<std::string> ConfigDirectory(std::string_view uri);

}  // namespace Vessad::Libvirt
