// Text from a host, made fit for the wire.
#pragma once

#include <string>
#include <string_view>

namespace Vessad::Libvirt {

// `text` with U+FFFD in the place of every byte that XML cannot carry; text that it can carry is left alone.
std::string WireText(std::string_view text);

}  // namespace Vessad::Libvirt
