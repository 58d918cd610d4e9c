// Whether the wire can carry what a host is described with.
#pragma once

#include <pugixml.hpp>
#include <string>

#include "runtime/ordane/xml_codec.h"
#include "runtime/tessim/assertion.h"

namespace Fuzz {

inline std::string Write(const Ordane::DataObject& object, const Ordane::DataObjectType& declared) {
    Ordane::Xml::Writer writer;
    Ordane::Xml::WriteObject(writer, declared.name, object, declared);
    return writer.Take();
}

// What a description may hold, the wire must carry: a strict reader gets the same object. `object` may be
// null.
template <class T>
void CheckCarried(const Tessim::Ref<T>& object) {
    // As messages are read.
    constexpr unsigned int parsing = pugi::parse_escapes | pugi::parse_cdata | pugi::parse_ws_pcdata;
    if (!object) {
        return;
    }
    const std::string once = Write(*object, T::StaticType());
    pugi::xml_document document;
    Tessim::Assert(
        static_cast<bool>(document.load_buffer(once.data(), once.size(), parsing, pugi::encoding_utf8)),
        "a described object is well-formed");
    const auto again =
        Ordane::Xml::ReadObject(document.document_element(), T::StaticType(), Ordane::Xml::Unknown::Refuse);
    Tessim::Assert(Write(*again, T::StaticType()) == once, "a described object is carried whole");
}

}  // namespace Fuzz
