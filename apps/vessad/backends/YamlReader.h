// Reads data objects of the API from YAML, driven by the same type objects as their XML form.
#pragma once

#include <initializer_list>
#include <string_view>

#include "apps/vessad/backends/YamlCursor.h"
#include "runtime/ordane/objects.h"

namespace Vessad::Yaml {

// Returns a new object from the mapping at `cursor`: of type `declared`, or of the descendant that its key
// "type" names. Members have the API's names; a list is a sequence, a reference is the object's id, and an
// optional member that is absent stays unset. The keys in `callerKeys` are ignored. Everything else is a
// mistake: an unknown or missing key, a value of another kind, a number that its type cannot hold. Throws
// Error unless there is a mapping of a known type; mistakes in its members are attempts of their own, and
// leave members out.
Tessim::Ref<Ordane::DataObject> ReadObject(const Cursor& cursor, const Ordane::DataObjectType& declared,
                                           std::initializer_list<std::string_view> callerKeys = {});

template <class T>
Tessim::Ref<T> Read(const Cursor& cursor, std::initializer_list<std::string_view> callerKeys = {}) {
    return Tessim::Ref<T>(Tessim::NarrowToType<T>(ReadObject(cursor, T::StaticType(), callerKeys)));
}

// The same for the member `key` of the mapping at `parent`; null when there is none.
template <class T>
Tessim::Ref<T> ReadOptional(const Cursor& parent, std::string_view key) {
    const std::optional<Cursor> found = parent.Find(key);
    return found ? Read<T>(*found) : nullptr;
}

// Returns the value of an enumeration that the text at `cursor` names. Throws Error for any other text.
int ReadEnum(const Cursor& cursor, const Ordane::EnumType& type);

}  // namespace Vessad::Yaml
