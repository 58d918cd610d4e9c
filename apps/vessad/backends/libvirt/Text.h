// Text from a host, as XML can carry it.
#pragma once

#include <string>
#include <string_view>

namespace Vessad::Libvirt {

// Returns `text` with U+FFFD in place of every byte that XML cannot carry.
std::string WireText(std::string_view text);

}  // namespace Vessad::Libvirt
