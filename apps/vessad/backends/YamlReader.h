// Data objects of the API out of YAML, driven by the same type objects as their XML form.
#pragma once

#include <initializer_list>
#include <string_view>

#include "apps/vessad/backends/YamlTree.h"
#include "runtime/ordane/objects.h"

namespace Vessad::Yaml {

// The object that the mapping at `cursor` describes: of type `declared`, or of the descendant that its key
// "type" names. Members have the API's names; a list is a sequence, a reference is the object's id, and an
// optional member that is absent stays unset. Keys named in `besides` belong to the caller. Throws Error for
// everything else: an unknown or missing key, a value of another kind, a number that its type cannot hold.
Tessim::Ref<Ordane::DataObject> ReadObject(const Cursor& cursor, const Ordane::DataObjectType& declared,
                                           std::initializer_list<std::string_view> besides = {});

template <class T>
Tessim::Ref<T> Read(const Cursor& cursor, std::initializer_list<std::string_view> besides = {}) {
    return Tessim::Ref<T>(Tessim::NarrowToType<T>(ReadObject(cursor, T::StaticType(), besides)));
}

// The same for the member `key` of the mapping at `parent`; null when there is none.
template <class T>
Tessim::Ref<T> ReadOptional(const Cursor& parent, std::string_view key) {
    const std::optional<Cursor> found = parent.Find(key);
    return found ? Read<T>(*found) : nullptr;
}

// The value of an enumeration that the text at `cursor` names.
int ReadEnum(const Cursor& cursor, const Ordane::EnumType& type);

}  // namespace Vessad::Yaml
