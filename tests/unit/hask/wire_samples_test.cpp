// Holds every type and method to its golden sample: a member that is forgotten, renamed or of another type no
// longer reads or writes it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <pugixml.hpp>
#include <sstream>

#include "runtime/ordane/soap.h"
#include "runtime/ordane/xml_codec.h"
#include "tests/unit/hask/golden.h"

namespace HaskTest {
namespace {

using Ordane::DataObjectType;
using Ordane::Member;
using Ordane::ValueKind;

// The sample of a type as XML.
void Load(const DataObjectType& type, pugi::xml_document& document) {
    const std::string text = ReadGolden(std::string(type.name) + ".xml");
    const auto result = document.load_buffer(text.data(), text.size());
    ASSERT_TRUE(result) << result.description();
}

std::string Indented(const pugi::xml_document& document) {
    std::ostringstream text;
    document.save(text, "  ", pugi::format_indent | pugi::format_no_declaration, pugi::encoding_utf8);
    return text.str();
}

class TypeSample : public testing::TestWithParam<const DataObjectType*> {};

TEST_P(TypeSample, IsReadAndWrittenLetterForLetter) {
    const DataObjectType& type = *GetParam();
    pugi::xml_document sample;
    ASSERT_NO_FATAL_FAILURE(Load(type, sample));
    const auto object =
        Ordane::Xml::ReadObject(sample.document_element(), type, Ordane::Xml::Unknown::Refuse);
    EXPECT_EQ(object->GetDataObjectType(), &type);
    pugi::xml_document written;
    Ordane::Xml::WriteObject(written, type.name, *object, type);
    EXPECT_EQ(Indented(written), ReadGolden(std::string(type.name) + ".xml"));
}

TEST_P(TypeSample, ShowsEveryMemberAndEveryKindOfValue) {
    const DataObjectType& type = *GetParam();
    pugi::xml_document sample;
    ASSERT_NO_FATAL_FAILURE(Load(type, sample));
    const pugi::xml_node element = sample.document_element();
    EXPECT_EQ(element.name(), type.name);
    for (const Member* member : type.GetMembers()) {
        const std::string name(member->name);  // the range points into it
        const auto shown = element.children(name.c_str());
        const auto count = std::distance(shown.begin(), shown.end());
        EXPECT_EQ(count, member->list ? 2 : 1) << member->name;
        for (const pugi::xml_node& value : shown) {
            EXPECT_TRUE(value.first_child()) << member->name << " is empty";
            const bool subtyped =
                member->kind == ValueKind::Object && !member->objectType->descendants.empty();
            const bool exact =
                member->kind == ValueKind::Object &&
                std::string_view(value.attribute("xsi:type").value()) == member->objectType->name;
            EXPECT_EQ(!value.attribute("xsi:type").empty(), subtyped) << member->name;
            EXPECT_FALSE(exact) << member->name;
        }
    }
}

std::string NameOfType(const testing::TestParamInfo<const DataObjectType*>& tested) {
    return std::string(tested.param->name);
}

INSTANTIATE_TEST_SUITE_P(Types, TypeSample, testing::ValuesIn(AllTypes()), NameOfType);

TEST(WireSamples, AreThereForEveryTypeAndForNothingElse) {
    std::vector<std::string> expected;
    for (const DataObjectType* type : AllTypes()) {
        expected.push_back(std::string(type->name) + ".xml");
    }
    EXPECT_THAT(ListGolden(""), testing::UnorderedElementsAreArray(expected));
}

TEST(WireSamples, AreThereForEveryMethodAndForNothingElse) {
    std::vector<std::string> expected;
    for (const Call& call : AllCalls()) {
        expected.push_back(call.GetName() + ".request.xml");
        expected.push_back(call.GetName() + ".response.xml");
    }
    EXPECT_THAT(ListGolden("calls"), testing::UnorderedElementsAreArray(expected));
}

class CallSample : public testing::TestWithParam<Call> {};

TEST_P(CallSample, HasARequestThatIsReadAndWrittenLetterForLetter) {
    const Call& call = GetParam();
    const Ordane::Soap::Message message(call.ReadRequest(), {});
    EXPECT_EQ(message.GetName(), call.method->name);
    const auto target = message.GetTarget();
    EXPECT_EQ(target->GetType(), call.object->name);
    EXPECT_EQ(Ordane::Soap::EncodeRequest(*target, *call.method, *message.GetParameters(*call.method)),
              call.ReadRequest());
}

TEST_P(CallSample, HasAResponseThatIsReadAndWrittenLetterForLetter) {
    const Call& call = GetParam();
    const Ordane::Soap::Message message(call.ReadResponse(), {});
    EXPECT_TRUE(message.Answers(*call.method));
    EXPECT_EQ(Ordane::Soap::EncodeResponse(*call.method, *message.GetResponse(*call.method)),
              call.ReadResponse());
}

TEST_P(CallSample, ShowsEveryParameterAndTheResult) {
    const Call& call = GetParam();
    for (const DataObjectType* type : {call.method->request, call.method->response}) {
        const std::string text = type == call.method->request ? call.ReadRequest() : call.ReadResponse();
        for (const Member* member : type->GetMembers()) {
            EXPECT_NE(text.find("<" + std::string(member->name)), std::string::npos) << member->name;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Methods, CallSample, testing::ValuesIn(AllCalls()), [](const auto& tested) {
    std::string name = tested.param.GetName();
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
});

}  // namespace
}  // namespace HaskTest
