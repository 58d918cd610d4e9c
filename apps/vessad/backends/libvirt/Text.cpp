#include "apps/vessad/backends/libvirt/Text.h"

#include <algorithm>
#include <cstddef>

#include "runtime/ordane/xml_codec.h"

namespace Vessad::Libvirt {

std::string WireText(std::string_view text) {
    if (Ordane::Xml::IsText(text)) {
        return std::string(text);
    }
    constexpr std::size_t longestCharacter = 4;
    std::string result;
    while (!text.empty()) {
        std::size_t length = 1;
        while (length <= std::min(longestCharacter, text.size()) &&
               !Ordane::Xml::IsText(text.substr(0, length))) {
            ++length;
        }
        if (length <= std::min(longestCharacter, text.size())) {
            result += text.substr(0, length);
        } else {
            length = 1;
            result += "\xEF\xBF\xBD";
        }
        text.remove_prefix(length);
    }
    return result;
}

}  // namespace Vessad::Libvirt
