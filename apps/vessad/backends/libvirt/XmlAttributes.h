// Reading attributes of libvirt's XML.
#pragma once

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

}  // namespace Vessad::Libvirt
