// Messages of the sample API, and why they are refused.
#pragma once

#include <string>

#include "tests/unit/ordane/sample.h"

namespace Sample {

inline std::string Enveloped(const std::string& body) {
    return "<Envelope><Body>" + body + "</Body></Envelope>";
}

// A call of `method` of the object that the element `target` names.
inline std::string CallOf(const std::string& method, const std::string& parameters = {},
                          const std::string& target = "<_this type=\"Shop\">shop-1</_this>") {
    return Enveloped("<" + method + ">" + target + parameters + "</" + method + ">");
}

inline const Ordane::MethodInfo& Method(const char* name) {
    return *Shop::staticType.FindMethod(name);
}

inline std::string Repeated(const std::string& text, std::size_t count) {
    std::string result;
    result.reserve(text.size() * count);
    for (std::size_t i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

// The text of the Exception that `action` throws; "nothing" when it throws none.
template <class Exception, class Action>
std::string FailureOf(const Action& action) {
    try {
        action();
    } catch (const Exception& thrown) {
        return thrown.what();
    }
    return "nothing";
}

}  // namespace Sample
