#include "apps/vessad/backends/YamlReader.h"

#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Vessad::Yaml {

namespace {

constexpr std::string_view typeKey = "type";

template <class Whole>
std::int64_t ReadWhole(const Cursor& cursor) {
    return cursor.Whole(std::numeric_limits<Whole>::min(), std::numeric_limits<Whole>::max());
}

void ReadValue(const Cursor& cursor, const Ordane::Member& member, Ordane::DataObject& object) {
    using Ordane::Value;
    using Ordane::ValueKind;
    switch (member.kind) {
        case ValueKind::Bool:
            member.append(object, Value(cursor.Bool()));
            break;
        case ValueKind::Int:
            member.append(object, Value(ReadWhole<std::int32_t>(cursor)));
            break;
        case ValueKind::Long:
            member.append(object, Value(ReadWhole<std::int64_t>(cursor)));
            break;
        case ValueKind::String:
            member.append(object, Value(std::string_view(cursor.Text())));
            break;
        case ValueKind::Enum:
            member.append(object, Value(std::int64_t{ReadEnum(cursor, *member.enumType)}));
            break;
        case ValueKind::Object: {
            const Tessim::Ref<Ordane::DataObject> value = ReadObject(cursor, *member.objectType);
            member.append(object, Value(static_cast<Ordane::Any*>(value.Get())));
            break;
        }
        case ValueKind::Reference: {
            const auto value =
                Tessim::MakeRef<Ordane::MoRef>(std::string(member.referenceType), cursor.Text());
            member.append(object, Value(static_cast<Ordane::Any*>(value.Get())));
            break;
        }
    }
}

void ReadMember(const Cursor& cursor, const Ordane::Member& member, Ordane::DataObject& object) {
    if (member.list) {
        if (const std::optional<Cursor> list = cursor.Find(member.name)) {
            for (const Cursor& item : list->Items()) {
                item.Attempt([&] { ReadValue(item, member, object); });
            }
        }
    } else if (!member.optional) {
        ReadValue(cursor.Require(member.name), member, object);
    } else if (const std::optional<Cursor> value = cursor.Find(member.name)) {
        ReadValue(*value, member, object);
    }
}

const Ordane::DataObjectType* ReadType(const Cursor& cursor, const Ordane::DataObjectType& declared) {
    const std::optional<Cursor> named = cursor.Find(typeKey);
    if (!named) {
        return &declared;
    }
    const Ordane::DataObjectType* type = declared.FindSubtype(named->Text());
    if (type == nullptr) {
        std::set<std::string_view> names{declared.name};
        for (const Ordane::DataObjectType* descendant : declared.descendants) {
            names.insert(descendant->name);
        }
        named->Refuse("a kind of " + std::string(declared.name) + Choice(names));
    }
    return type;
}

}  // namespace

Tessim::Ref<Ordane::DataObject> ReadObject(const Cursor& cursor, const Ordane::DataObjectType& declared,
                                           std::initializer_list<std::string_view> callerKeys) {
    if (!cursor.IsMap()) {
        cursor.Refuse("a mapping with the members of " + std::string(declared.name));
    }
    const Ordane::DataObjectType* known = nullptr;
    cursor.Attempt([&] { known = ReadType(cursor, declared); });
    // Of an unknown type, what every kind has is checked.
    const Ordane::DataObjectType& type = known == nullptr ? declared : *known;
    const std::vector<const Ordane::Member*> members = type.GetMembers();
    std::vector<std::string_view> keys(callerKeys);
    for (const Ordane::Member* member : members) {
        keys.push_back(member->name);
    }
    if (!declared.descendants.empty()) {
        keys.push_back(typeKey);
    }
    if (known != nullptr) {
        cursor.CheckKeys(keys);
    }

    Tessim::Ref<Ordane::DataObject> object = type.create();
    for (const Ordane::Member* member : members) {
        cursor.Attempt([&] { ReadMember(cursor, *member, *object); });
    }
    return object;
}

int ReadEnum(const Cursor& cursor, const Ordane::EnumType& type) {
    const int value = type.FindValue(cursor.Text());
    if (value < 0) {
        cursor.Refuse(OneOf(type.texts));
    }
    return value;
}

}  // namespace Vessad::Yaml
