// Texts of the sample API, and why they are refused.
#pragma once

#include <string>
#include <vector>

#include "runtime/ordane/soap.h"
#include "tests/support/files.h"
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

// An Everything in which every member is set, lists with two elements, to values that differ from each other.
inline constexpr const char* everything =
    "<x><flag>true</flag><flagMaybe>false</flagMaybe><flagList>false</flagList><flagList>true</flagList>"
    "<small>-2147483648</small><smallMaybe>2147483647</smallMaybe><smallList>1</smallList><smallList>2</"
    "smallList>"
    "<large>-9223372036854775808</large><largeMaybe>9223372036854775807</largeMaybe>"
    "<largeList>3</largeList><largeList>4</largeList>"
    "<text>a text</text><textMaybe>maybe</textMaybe><textList>first</textList><textList>second</textList>"
    "<state>open</state><stateMaybe>closed</stateMaybe><stateList>sold</stateList><stateList>open</stateList>"
    "<thing xsi:type=\"SharpTool\"><name>saw</name></thing>"
    "<thingList><name>cup</name></thingList>"
    "<thingList xsi:type=\"RedToy\"><name>ball</name><count>7</count></thingList>"
    "<thingListMaybe><name>jug</name></thingListMaybe>"
    "<thingListMaybe xsi:type=\"RedToy\"><name>kite</name><count>7</count></thingListMaybe>"
    "<reference type=\"Shop\">shop-2</reference><person type=\"Person\">ann</person>"
    "<personList type=\"Person\">bob</personList><personList type=\"Person\">cy</personList></x>";

// The type and the message of the fault in the message `text`.
inline std::string FaultIn(const std::string& text) {
    try {
        Ordane::Soap::Message(text, {}).GetResponse(Method("Sweep"));
    } catch (const Ordane::Fault::MethodFault::Exception& thrown) {
        return std::string(thrown.GetFault()->GetDataObjectType()->name) + ": " + thrown.what();
    }
    return "no fault";
}

// The cases of that file of cases/.
inline std::vector<TestSupport::Case> ReadCases(const std::string& name) {
    return TestSupport::ReadCases(ORDANE_CASES_DIR "/" + name + ".txt");
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
