// Builds the description of a member from a pointer to it. Used by the generated code only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "runtime/ordane/objects.h"

namespace Ordane::Generated {

// How a scalar becomes a Value and back.
template <class T>
Value ToValue(const T& scalar) {
    if constexpr (std::is_same_v<T, bool>) {
        return Value(scalar);
    } else if constexpr (std::is_same_v<T, std::string>) {
        return Value(std::string_view(scalar));
    } else {
        return Value(static_cast<std::int64_t>(scalar));
    }
}

template <class T>
T FromValue(const Value& value) {
    if constexpr (std::is_same_v<T, bool>) {
        return std::get<bool>(value);
    } else if constexpr (std::is_same_v<T, std::string>) {
        return std::string(std::get<std::string_view>(value));
    } else {
        return static_cast<T>(std::get<std::int64_t>(value));
    }
}

// Access to one member by the type it is held as.
template <class Held>
struct Access {
    static void ForEach(const Held& held, const std::function<void(const Value&)>& visit) {
        visit(ToValue(held));
    }
    static void Append(Held& held, const Value& value) { held = FromValue<Held>(value); }
};

template <class T>
struct Access<std::optional<T>> {
    static void ForEach(const std::optional<T>& held, const std::function<void(const Value&)>& visit) {
        if (held) {
            visit(ToValue(*held));
        }
    }
    static void Append(std::optional<T>& held, const Value& value) { held = FromValue<T>(value); }
};

template <class T>
struct Access<std::vector<T>> {
    static void ForEach(const std::vector<T>& held, const std::function<void(const Value&)>& visit) {
        for (const T& element : held) {
            visit(ToValue(element));
        }
    }
    static void Append(std::vector<T>& held, const Value& value) { held.push_back(FromValue<T>(value)); }
};

template <class T>
struct Access<Tessim::Ref<T>> {
    static void ForEach(const Tessim::Ref<T>& held, const std::function<void(const Value&)>& visit) {
        if (held) {
            visit(Value(static_cast<Any*>(held.Get())));
        }
    }
    static void Append(Tessim::Ref<T>& held, const Value& value) {
        held = Tessim::NarrowToType<T>(std::get<Any*>(value));
    }
};

template <class T>
struct Access<Tessim::Ref<DataArray<T>>> {
    static void ForEach(const Tessim::Ref<DataArray<T>>& held,
                        const std::function<void(const Value&)>& visit) {
        if (held) {
            for (const Tessim::Ref<T>& element : *held) {
                if (element) {
                    visit(Value(static_cast<Any*>(element.Get())));
                }
            }
        }
    }
    static void Append(Tessim::Ref<DataArray<T>>& held, const Value& value) {
        if (!held) {
            held = Tessim::MakeRef<DataArray<T>>();
        }
        held->Append(Tessim::NarrowToType<T>(std::get<Any*>(value)));
    }
};

struct MemberFacts {
    std::string_view name;
    ValueKind kind;
    bool list = false;
    bool optional = false;
    const DataObjectType* objectType = nullptr;
    const EnumType* enumType = nullptr;
    std::string_view referenceType = {};
};

// The description of the member `Owner::*Pointer`.
template <class Owner, auto Pointer>
constexpr Member Describe(const MemberFacts& facts) {
    using Held = std::remove_cvref_t<decltype(std::declval<Owner&>().*Pointer)>;
    return Member{facts.name,
                  facts.kind,
                  facts.list,
                  facts.optional,
                  facts.objectType,
                  facts.enumType,
                  facts.referenceType,
                  [](const DataObject& object, const std::function<void(const Value&)>& visit) {
                      Access<Held>::ForEach(static_cast<const Owner&>(object).*Pointer, visit);
                  },
                  [](DataObject& object, const Value& value) {
                      Access<Held>::Append(static_cast<Owner&>(object).*Pointer, value);
                  }};
}

}  // namespace Ordane::Generated
