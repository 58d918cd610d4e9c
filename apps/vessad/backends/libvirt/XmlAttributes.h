// Reading attributes of libvirt's XML.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <pugixml.hpp>
#include <string>

namespace Vessad::Libvirt {

// Returns the value of the first of the attributes that `node` has, or nothing ("").
inline std::string FirstAttribute(pugi::xml_node node, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (const pugi::xml_attribute attribute = node.attribute(name)) {
            return attribute.value();
        }
    }
    return "";
}

// Returns the number of a controller, a bus, a unit or the like, decimal or hexadecimal: what is below 0 or
// above 65535, more than any VM has, is taken for that, so that sums and products of such numbers fit in int.
inline int AddressNumber(pugi::xml_node node, const char* name) {
    constexpr int largest = 65535;
    return std::clamp(node.attribute(name).as_int(), 0, largest);
}

}  // namespace Vessad::Libvirt
