#include "runtime/ordane/type.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <string>

#include "runtime/ordane/faults.h"

namespace Ordane {

namespace {

// Texts that no enumeration has, each standing for the value `first` plus its position.
class UnknownTexts {
  public:
    static constexpr int first = 1 << 16;  // beyond the values of every enumeration

    int Keep(std::string_view text) {
        const std::lock_guard lock(mutex);
        const auto found = std::find(texts.begin(), texts.end(), text);
        if (found != texts.end()) {
            return first + static_cast<int>(found - texts.begin());
        }
        if (texts.size() > maxTexts || text.size() > maxTextBytes) {
            return first;
        }
        texts.emplace_back(text);
        return first + static_cast<int>(texts.size()) - 1;
    }

    std::string_view Get(int value) {
        const std::lock_guard lock(mutex);
        const auto index = static_cast<std::size_t>(value - first);
        return index < texts.size() ? std::string_view(texts[index]) : std::string_view();
    }

    // Never destroyed: texts are read until the process ends.
    static UnknownTexts& Instance() {
        static auto& instance = *new UnknownTexts;
        return instance;
    }

  private:
    static constexpr std::size_t maxTexts = 64;
    static constexpr std::size_t maxTextBytes = 64;

    std::mutex mutex;
    std::deque<std::string> texts{"unknown"};  // which never moves its elements
};

}  // namespace

std::string_view EnumType::GetText(int value) const {
    if (value >= UnknownTexts::first) {
        return UnknownTexts::Instance().Get(value);
    }
    if (value < 0 || static_cast<std::size_t>(value) >= texts.size()) {
        return {};
    }
    return texts[static_cast<std::size_t>(value)];
}

int EnumType::KeepUnknown(std::string_view text) {
    return UnknownTexts::Instance().Keep(text);
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
    VisitMembers([&](const Member& member) { members.push_back(&member); });
    return members;
}

const MethodInfo* ManagedType::FindMethod(std::string_view methodName) const {
    const auto found = std::find_if(methods.begin(), methods.end(),
                                    [&](const MethodInfo& method) { return method.name == methodName; });
    return found == methods.end() ? nullptr : &*found;
}

void MethodInfo::CheckSession(const MethodInfo* method, bool isLoggedIn) {
    if (!isLoggedIn && (method == nullptr || !method->beforeLogin)) {
        throw Fault::NotAuthenticated::Exception("log in first");
    }
}

}  // namespace Ordane
