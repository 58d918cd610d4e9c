#include "runtime/ordane/type.h"

#include <algorithm>

namespace Ordane {

std::string_view EnumType::GetText(int value) const {
    if (value < 0 || static_cast<std::size_t>(value) >= texts.size()) {
        return {};
    }
    return texts[static_cast<std::size_t>(value)];
}

int EnumType::FindValue(std::string_view text) const {
    const auto found = std::find(texts.begin(), texts.end(), text);
    return found == texts.end() ? -1 : static_cast<int>(found - texts.begin());
}

bool DataObjectType::IsA(const DataObjectType* other) const {
    const DataObjectType* type = this;
    while (type != nullptr && type != other) {
        type = type->base;
    }
    return type != nullptr;
}

const DataObjectType* DataObjectType::FindSubtype(std::string_view subtypeName) const {
    if (subtypeName == name) {
        return this;
    }
    const auto found = std::find_if(descendants.begin(), descendants.end(),
                                    [&](const DataObjectType* type) { return type->name == subtypeName; });
    return found == descendants.end() ? nullptr : *found;
}

std::vector<const Member*> DataObjectType::GetMembers() const {
    std::vector<const Member*> members;
    if (base != nullptr) {
        members = base->GetMembers();
    }
    for (const Member& member : ownMembers) {
        members.push_back(&member);
    }
    return members;
}

const MethodInfo* ManagedType::FindMethod(std::string_view methodName) const {
    const auto found = std::find_if(methods.begin(), methods.end(),
                                    [&](const MethodInfo& method) { return method.name == methodName; });
    return found == methods.end() ? nullptr : &*found;
}

}  // namespace Ordane
