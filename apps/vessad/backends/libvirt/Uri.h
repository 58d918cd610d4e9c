// What a libvirt URI says about the host behind it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Vessad::Libvirt {

// Returns whether the URI names no remote host, so that the host's files are those of this system.
bool IsLocal(std::string_view uri);

// Returns why the URI can never work, in a text for the operator; nothing when only a host can say. A name
// without a colon may be an alias of libvirt's configuration.
std::optional<std::string> FindMistake(std::string_view uri);

// Returns the directory, with its final slash, where the URI's driver keeps the configurations of persistent
// domains; nothing when the driver keeps none in files, or the place depends on a user of a remote host.
std::optional<std::string> ConfigDirectory(std::string_view uri);

}  // namespace Vessad::Libvirt
