// Holds every type and method to its golden sample: a member that is missing, renamed or of another type no
// longer reads or writes it. golden/<type>.xml is an object of each data type in which every member is set,
// golden/calls/<type>.<method>.request.xml and .response.xml are the messages of each method.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <pugixml.hpp>
#include <set>
#include <sstream>

#include "runtime/hask/api.h"
#include "runtime/ordane/dispatcher.h"
#include "runtime/ordane/faults.h"
#include "runtime/ordane/soap_stub_adapter.h"
#include "runtime/ordane/xml_codec.h"
#include "tests/support/files.h"

namespace Hask {
namespace {

using Ordane::DataObjectType;
using Ordane::Member;
using Ordane::MethodInfo;
using Ordane::Value;
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

// Data types.

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
        pugi::xml_document document;
        Ordane::Xml::WriteObject(document, type->name, *object, *type);
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

// Methods, from the stub's call to the object's and back.

void TakeValue(const Value& value, auto& out) {
    using Element = std::remove_reference_t<decltype(*out)>;
    out = Tessim::NarrowToType<Element>(std::get<Ordane::Any*>(value));
}
template <class T>
void TakeValue(const Value& value, Tessim::Ref<Ordane::DataArray<T>>& out) {
    Tessim::Ref<T> element;
    TakeValue(value, element);
    out->Append(element);
}
// Puts the only member of `object` into `out`; a list is appended to the array that `out` holds.
void TakeMember(const Ordane::DataObject& object, auto& out) {
    object.GetDataObjectType()->ownMembers[0].forEach(object,
                                                      [&](const Value& value) { TakeValue(value, out); });
}

template <class T>
void AppendTo(Ordane::DataObject& object, const Tessim::Ref<T>& value) {
    object.GetDataObjectType()->ownMembers[0].append(object, Value(static_cast<Ordane::Any*>(value.Get())));
}
template <class T>
void AppendTo(Ordane::DataObject& object, const Tessim::Ref<Ordane::DataArray<T>>& values) {
    for (const Tessim::Ref<T>& value : *values) {
        AppendTo(object, value);
    }
}

// The golden call that is being made: "<type>.<method>".
std::string current;

// Objects that return its result.
template <class T>
using Out = Tessim::Ref<T>&;
template <class T>
using OutList = Tessim::Ref<Ordane::DataArray<T>>&;

void ReturnGolden(auto& out) {
    const Ordane::Soap::Message response(ReadMessage(current + ".response"), {});
    TakeMember(*response.GetResponse(*AllMethods().at(current)), out);
}

struct GoldenServiceInstance final : ServiceInstance {
    using ServiceInstance::ServiceInstance;
    void RetrieveContent(Out<ServiceInstanceContent> out) override { ReturnGolden(out); }
};

struct GoldenSessionManager final : SessionManager {
    using SessionManager::SessionManager;
    void AcquireLocalTicket(const std::string& userName, Out<LocalTicket> out) override {
        EXPECT_EQ(userName, "root");
        ReturnGolden(out);
    }
    void Login(const std::string& userName, const std::string& password,
               const std::optional<std::string>& locale, Out<UserSession> out) override {
        EXPECT_EQ(userName, "root");
        EXPECT_EQ(password, "s3cret <&> \"words\"");
        EXPECT_EQ(locale, "en");
        ReturnGolden(out);
    }
    void Logout() override { loggedOut = true; }

    bool loggedOut = false;
};

struct GoldenFolder final : Folder {
    using Folder::Folder;
    void GetChildEntity(OutList<Ordane::MoRef> out) override { ReturnGolden(out); }
};

struct GoldenVirtualMachine final : VirtualMachine {
    using VirtualMachine::VirtualMachine;
    void GetConfig(Out<Vm::ConfigInfo> out) override { ReturnGolden(out); }
    void GetRuntime(Out<Vm::RuntimeInfo> out) override { ReturnGolden(out); }
    void GetGuest(Out<Vm::GuestInfo> out) override { ReturnGolden(out); }
};

struct GoldenDatastore final : Datastore {
    using Datastore::Datastore;
    void GetInfo(Out<Info> out) override { ReturnGolden(out); }
};

struct GoldenHostSystem final : HostSystem {
    using HostSystem::HostSystem;
    void GetHardware(Out<Host::HardwareInfo> out) override { ReturnGolden(out); }
};

struct GoldenMemoryManagerSystem final : Host::MemoryManagerSystem {
    using MemoryManagerSystem::MemoryManagerSystem;
    void GetConsoleReservationInfo(Out<ServiceConsoleReservationInfo> out) override { ReturnGolden(out); }
};

struct GoldenPerformanceManager final : PerformanceManager {
    using PerformanceManager::PerformanceManager;
    void GetPerfCounter(OutList<CounterInfo> out) override { ReturnGolden(out); }
    void QueryPerf(Ordane::DataArray<QuerySpec>* queries, OutList<EntityMetricBase> out) override {
        ASSERT_EQ(queries->GetLength(), 2);
        EXPECT_EQ((*queries)[1]->GetEntity()->GetId(), "32");
        EXPECT_EQ((*(*queries)[1]->GetMetricId())[1]->GetInstance(), "*");
        EXPECT_EQ((*queries)[0]->GetIntervalId(), 20);
        ReturnGolden(out);
    }
};

// Carries calls to one object and keeps the last messages.
struct Adapter final : Ordane::SoapStubAdapter, Ordane::ObjectSource {
    explicit Adapter(Ordane::ManagedObject* object) : object(object) {}

    std::string Exchange(const std::string& text) override {
        request = text;
        return reply = Ordane::HandleCall(text, *this).text;
    }
    Tessim::Ref<Ordane::ManagedObject> Find(const Ordane::MoRef& reference) override {
        EXPECT_EQ(reference.GetType(), object->GetMoRef()->GetType());
        EXPECT_EQ(reference.GetId(), object->GetMoRef()->GetId());
        return object;
    }
    bool IsLoggedIn() const override { return true; }

    Tessim::Ref<Ordane::ManagedObject> object;
    std::string request;
    std::string reply;
};

class HaskMethods : public testing::Test {
  protected:
    // Makes `call` of a Golden object, and holds the messages to the samples. Returns the object.
    template <class Golden>
    Tessim::Ref<Golden> Exchange(const std::string& method, const auto& call) {
        current = std::string(Golden::staticType.name) + "." + method;
        made.push_back(current);
        const auto target = Ordane::Soap::Message(ReadMessage(current + ".request"), {}).GetTarget();
        const auto object = Tessim::MakeRef<Golden>(target);
        const auto adapter = Tessim::MakeRef<Adapter>(object.Get());
        call(*Golden::MakeStub(Tessim::Ref<Ordane::StubAdapter>(adapter), target->GetId()));
        EXPECT_EQ(adapter->request, ReadMessage(current + ".request"));
        EXPECT_EQ(adapter->reply, ReadMessage(current + ".response"));
        return object;
    }

    // The same for a `call` that takes the stub and the result to fill: the result is held to the sample too.
    template <class Golden, class Result>
    void ExpectResult(const std::string& method, const auto& call) {
        Tessim::Ref<Result> result;
        Exchange<Golden>(method, [&](auto& stub) { std::invoke(call, stub, result); });
        const MethodInfo& info = *AllMethods().at(current);
        const auto response = info.response->create();
        AppendTo(*response, result);
        EXPECT_EQ(Ordane::Soap::EncodeResponse(info, *response), ReadMessage(current + ".response"));
    }
    template <class Golden, class Base, class Result>
    void ExpectResult(const std::string& method, void (Base::*call)(Tessim::Ref<Result>&)) {
        ExpectResult<Golden, Result>(method, [&](auto& stub, auto& out) { (stub.*call)(out); });
    }

    // The methods that `accept` returns true for.
    static std::vector<std::string> Names(const auto& accept) {
        std::vector<std::string> names;
        for (const auto& [name, method] : AllMethods()) {
            if (accept(*method)) {
                names.push_back(name);
            }
        }
        return names;
    }

    std::vector<std::string> made;
};

TEST_F(HaskMethods, CarryParametersAndResultsInTheGoldenMessages) {
    ExpectResult<GoldenServiceInstance>("RetrieveContent", &ServiceInstance::RetrieveContent);
    ExpectResult<GoldenSessionManager, SessionManager::LocalTicket>(
        "AcquireLocalTicket", [](auto& stub, auto& out) { stub.AcquireLocalTicket("root", out); });
    ExpectResult<GoldenSessionManager, UserSession>(
        "Login", [](auto& stub, auto& out) { stub.Login("root", "s3cret <&> \"words\"", "en", out); });
    EXPECT_TRUE(Exchange<GoldenSessionManager>("Logout", [](auto& stub) { stub.Logout(); })->loggedOut);
    ExpectResult<GoldenFolder>("GetChildEntity", &Folder::GetChildEntity);
    ExpectResult<GoldenVirtualMachine>("GetConfig", &VirtualMachine::GetConfig);
    ExpectResult<GoldenVirtualMachine>("GetRuntime", &VirtualMachine::GetRuntime);
    ExpectResult<GoldenVirtualMachine>("GetGuest", &VirtualMachine::GetGuest);
    ExpectResult<GoldenDatastore>("GetInfo", &Datastore::GetInfo);
    ExpectResult<GoldenHostSystem>("GetHardware", &HostSystem::GetHardware);
    ExpectResult<GoldenMemoryManagerSystem>("GetConsoleReservationInfo",
                                            &Host::MemoryManagerSystem::GetConsoleReservationInfo);
    ExpectResult<GoldenPerformanceManager>("GetPerfCounter", &PerformanceManager::GetPerfCounter);
    using Metrics = Ordane::DataArray<PerformanceManager::EntityMetricBase>;
    ExpectResult<GoldenPerformanceManager, Metrics>("QueryPerf", [](auto& stub, auto& out) {
        const Ordane::Soap::Message request(ReadMessage(current + ".request"), {});
        auto queries = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::QuerySpec>>();
        TakeMember(*request.GetParameters(*AllMethods().at(current)), queries);
        stub.QueryPerf(queries.Get(), out);
    });
    EXPECT_THAT(made, UnorderedElementsAreArray(Names([](const MethodInfo&) { return true; })));
}

TEST_F(HaskMethods, HaveSamplesOfEveryParameterAndResult) {
    std::vector<std::string> files;
    for (const auto& [name, method] : AllMethods()) {
        for (const auto& [message, type] : {std::pair{name + ".request", method->request},
                                            std::pair{name + ".response", method->response}}) {
            files.push_back(message + ".xml");
            for (const Member* member : type->GetMembers()) {
                EXPECT_NE(ReadMessage(message).find("<" + std::string(member->name)), std::string::npos)
                    << message << " " << member->name;
            }
        }
    }
    EXPECT_THAT(ListGolden("calls"), UnorderedElementsAreArray(files));
}

TEST_F(HaskMethods, NeedNoLoginForTicketLoginAndServiceContentOnly) {
    EXPECT_THAT(Names([](const MethodInfo& method) { return method.beforeLogin; }),
                ElementsAre("ServiceInstance.RetrieveContent", "SessionManager.AcquireLocalTicket",
                            "SessionManager.Login"));
}

}  // namespace
}  // namespace Hask
