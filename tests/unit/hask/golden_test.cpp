// Holds every type and method to its golden sample: a member that is missing, renamed or of another type no
// longer reads or writes it. golden/<type>.xml is an object of each data type in which every member is set,
// golden/calls/<type>.<method>.request.xml and .response.xml are the messages of each method.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <pugixml.hpp>
#include <set>
#include <sstream>

#include "runtime/hask/api.h"
#include "runtime/ordane/faults.h"
#include "runtime/ordane/soap.h"
#include "runtime/ordane/xml_codec.h"
#include "tests/support/files.h"

namespace Hask {
namespace {

using Ordane::DataObjectType;
using Ordane::Member;
using Ordane::MethodInfo;
using testing::ElementsAre;
using testing::UnorderedElementsAreArray;

std::string ReadGolden(const std::string& name) {
    return TestSupport::ReadFile(std::string(HASK_GOLDEN_DIR) + "/" + name);
}

// A message is one line of its file.
std::string ReadMessage(const std::string& name) {
    std::string text = ReadGolden("calls/" + name + ".xml");
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    return text;
}

// The names of the files in a folder below golden/; "" is golden/ itself.
std::vector<std::string> ListGolden(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& file : TestSupport::ListFiles(std::string(HASK_GOLDEN_DIR) + "/" + folder)) {
        names.push_back(file.filename().string());
    }
    return names;
}

std::vector<const DataObjectType*> AllTypes() {
    std::vector<const DataObjectType*> types;
    for (const auto& some : {AllDataObjectTypes(), Ordane::Fault::AllDataObjectTypes()}) {
        types.insert(types.end(), some.begin(), some.end());
    }
    return types;
}

// The methods by "<type>.<method>".
std::map<std::string, const MethodInfo*> AllMethods() {
    std::map<std::string, const MethodInfo*> methods;
    for (const Ordane::ManagedType* object : AllManagedTypes()) {
        for (const MethodInfo& method : object->methods) {
            methods.emplace(std::string(object->name).append(".").append(method.name), &method);
        }
    }
    return methods;
}

// That `element` has each member of `type`, a list twice, with a value, and a subtype where one may stand.
void ExpectEveryMember(pugi::xml_node element, const DataObjectType& type) {
    EXPECT_EQ(element.name(), type.name);
    for (const Member* member : type.GetMembers()) {
        SCOPED_TRACE(member->name);
        const std::string name(member->name);  // the range points into it
        const auto values = element.children(name.c_str());
        EXPECT_EQ(std::distance(values.begin(), values.end()), member->list ? 2 : 1);
        for (const pugi::xml_node& value : values) {
            EXPECT_TRUE(value.first_child());
            const std::string_view concrete = value.attribute("xsi:type").value();
            const bool isObject = member->kind == Ordane::ValueKind::Object;
            EXPECT_EQ(!concrete.empty(), isObject && !member->objectType->descendants.empty());
            EXPECT_FALSE(isObject && concrete == member->objectType->name);
        }
    }
}

// That `message` has an element of each member of `type`.
void ExpectMembers(const std::string& message, const DataObjectType& type) {
    for (const Member* member : type.GetMembers()) {
        EXPECT_NE(message.find("<" + std::string(member->name)), std::string::npos) << member->name;
    }
}

TEST(HaskTypes, ReadAndWriteTheirSamplesLetterForLetter) {
    for (const DataObjectType* type : AllTypes()) {
        SCOPED_TRACE(type->name);
        const std::string text = ReadGolden(std::string(type->name) + ".xml");
        pugi::xml_document sample;
        ASSERT_TRUE(sample.load_buffer(text.data(), text.size()));
        ExpectEveryMember(sample.document_element(), *type);
        const auto object =
            Ordane::Xml::ReadObject(sample.document_element(), *type, Ordane::Xml::Unknown::Refuse);
        EXPECT_EQ(object->GetDataObjectType(), type);
        Ordane::Xml::Writer writer;
        Ordane::Xml::WriteObject(writer, type->name, *object, *type);
        pugi::xml_document document;
        ASSERT_TRUE(document.load_string(writer.Take().c_str()));
        std::ostringstream written;
        document.save(written, "  ", pugi::format_indent | pugi::format_no_declaration, pugi::encoding_utf8);
        EXPECT_EQ(written.str(), text);
    }
}

TEST(HaskTypes, HaveUniqueNamesMembersAndSamples) {
    std::vector<std::string> files;
    std::set<std::string_view> names;
    for (const DataObjectType* type : AllTypes()) {
        files.push_back(std::string(type->name) + ".xml");
        EXPECT_TRUE(names.insert(type->name).second) << type->name;
        std::set<std::string_view> members;
        for (const Member* member : type->GetMembers()) {
            EXPECT_TRUE(members.insert(member->name).second) << type->name << "." << member->name;
        }
        for (const DataObjectType* other : AllTypes()) {
            EXPECT_EQ(type->FindSubtype(other->name) == other, other->IsA(type))
                << type->name << " " << other->name;
        }
    }
    EXPECT_THAT(ListGolden(""), UnorderedElementsAreArray(files));
}

TEST(HaskMethods, ReadAndWriteTheirMessagesLetterForLetter) {
    std::vector<std::string> files;
    for (const auto& [name, method] : AllMethods()) {
        SCOPED_TRACE(name);
        const std::string request = ReadMessage(name + ".request");
        const Ordane::Soap::Message call(request, {});
        const auto target = call.GetTarget();
        EXPECT_TRUE(name.starts_with(target->GetType() + "."));
        const auto parameters = call.GetParameters(*method);
        EXPECT_EQ(Ordane::Soap::EncodeRequest(*target, *method, *parameters), request);
        ExpectMembers(request, *method->request);
        const std::string response = ReadMessage(name + ".response");
        const auto results = Ordane::Soap::Message(response, {}).GetResponse(*method);
        EXPECT_EQ(Ordane::Soap::EncodeResponse(*method, *results), response);
        ExpectMembers(response, *method->response);
        files.push_back(name + ".request.xml");
        files.push_back(name + ".response.xml");
    }
    EXPECT_THAT(ListGolden("calls"), UnorderedElementsAreArray(files));
}

TEST(HaskMethods, NeedNoLoginForTicketLoginAndServiceContentOnly) {
    std::vector<std::string> names;
    for (const auto& [name, method] : AllMethods()) {
        if (method->beforeLogin) {
            names.push_back(name);
        }
    }
    EXPECT_THAT(names, ElementsAre("ServiceInstance.RetrieveContent", "SessionManager.AcquireLocalTicket",
                                   "SessionManager.Login"));
}

}  // namespace
}  // namespace Hask
