#include "runtime/ordane/soap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <pugixml.hpp>

#include "runtime/tessim/exception.h"
#include "tests/unit/ordane/messages.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane::Soap {
namespace {

using Sample::CallOf;
using Sample::Enveloped;
using Sample::FaultIn;
using Sample::Method;
using Sample::Repeated;
using testing::HasSubstr;
using testing::StartsWith;

// Why `text` is refused.
std::string Refusal(const std::string& text, const Limits& limits = {}) {
    return Sample::FailureOf<Tessim::InvalidArgumentException>([&] { const Message message(text, limits); });
}

// Counts the allocations of the XML library and fails those beyond the allowed number.
class XmlMemory {
  public:
    explicit XmlMemory(int allowed) {
        taken = 0;
        left = allowed;
        pugi::set_memory_management_functions(Take, std::free);
    }
    XmlMemory(const XmlMemory&) = delete;
    XmlMemory& operator=(const XmlMemory&) = delete;
    ~XmlMemory() { pugi::set_memory_management_functions(std::malloc, std::free); }

    static int GetTaken() { return taken; }

  private:
    static void* Take(std::size_t size) {
        ++taken;
        return left-- > 0 ? std::malloc(size) : nullptr;
    }
    static inline int taken;
    static inline int left;
};

// The response of Store with `all` as its result.
std::string StoreResponse(const Tessim::Ref<Sample::Everything>& all) {
    const auto response = Method("Store").response->create();
    response->GetDataObjectType()->ownMembers[0].append(*response, Value(static_cast<Any*>(all.Get())));
    return EncodeResponse(Method("Store"), *response);
}

TEST(SoapMessage, OfARequestNamesTheMethodTheTargetAndTheParameters) {
    const auto request = Method("Greet").request->create();
    request->GetDataObjectType()->ownMembers[0].append(*request, Value(std::string_view("ann")));
    EXPECT_EQ(EncodeRequest(MoRef("Shop", "shop-1"), Method("Greet"), *request),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
              "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
              "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"><soapenv:Body>"
              "<Greet xmlns=\"urn:ordane\"><_this type=\"Shop\">shop-1</_this><visitor>ann</visitor></Greet>"
              "</soapenv:Body></soapenv:Envelope>");
}

TEST(SoapMessage, OfAFaultCarriesItsTypeAndItsTextOrItsType) {
    const auto missing = Tessim::MakeRef<Fault::ManagedObjectNotFound>();
    missing->SetMessage("no Shop shop-9");
    missing->SetObj(Tessim::MakeRef<MoRef>("Shop", "shop-9"));
    EXPECT_THAT(EncodeFault(*missing),
                HasSubstr("<soapenv:Body><soapenv:Fault><faultcode>soapenv:Server</faultcode>"
                          "<faultstring>no Shop shop-9</faultstring><detail>"
                          "<ManagedObjectNotFound xmlns=\"urn:ordane\"><message>no Shop shop-9</message>"
                          "<obj type=\"Shop\">shop-9</obj></ManagedObjectNotFound>"
                          "</detail></soapenv:Fault></soapenv:Body>"));
    EXPECT_THAT(EncodeFault(*Tessim::MakeRef<Fault::InvalidLogin>()),
                HasSubstr("<faultstring>InvalidLogin</faultstring>"
                          "<detail><InvalidLogin xmlns=\"urn:ordane\"/></detail>"));
}

TEST(SoapMessage, TakesAnyPrefixAHeaderAndCommentsAndTheTargetAnywhere) {
    const Message message(
        "\xef\xbb\xbf<?xml version=\"1.0\"?><!-- a --><s:Envelope xmlns:s=\"u\"> "
        "<s:Header><x/><y/></s:Header>\r\n<s:Body> <m:Greet xmlns:m=\"v\">"
        "<visitor>ann</visitor><m:_this type=\"Shop\">shop-1</m:_this></m:Greet> </s:Body></s:Envelope>\n",
        {});
    EXPECT_EQ(message.GetName(), "Greet");
    EXPECT_EQ(message.GetTarget()->GetType(), "Shop");
    EXPECT_EQ(message.GetTarget()->GetId(), "shop-1");
    EXPECT_EQ(message.GetParameters(Method("Greet"))->GetDataObjectType(), Method("Greet").request);
}

TEST(SoapFault, OfAnyTypeIsThrownWithItsTypeAndMessage) {
    for (const DataObjectType* type : Fault::AllDataObjectTypes()) {
        const auto fault = type->create();
        auto& thrown = dynamic_cast<Fault::MethodFault&>(*fault);
        thrown.SetMessage("what went wrong: <&> \xc3\xbc");
        if (auto* missing = dynamic_cast<Fault::ManagedObjectNotFound*>(fault.Get())) {
            missing->SetObj(Tessim::MakeRef<MoRef>("Shop", "shop-9"));
        }
        EXPECT_EQ(FaultIn(EncodeFault(thrown)), std::string(type->name) + ": " + *thrown.GetMessage());
    }
}

TEST(SoapFault, IsFoundByItsTypeAmongTheDetails) {
    for (const auto& [content, expected] : Sample::ReadCases("faults")) {
        EXPECT_EQ(FaultIn(Enveloped("<s:Fault>" + content + "</s:Fault>")), expected);
    }
}

TEST(SoapMessage, RefusesWhatIsNoXml) {
    auto cases = Sample::ReadCases("invalid_xml");
    cases.push_back({Repeated("<a>", 100'000), "not XML"});
    for (const auto& [text, refusal] : cases) {
        EXPECT_THAT(Refusal(text), StartsWith(refusal + ": ")) << text.substr(0, 100);
    }
}

TEST(SoapMessage, RefusesADocumentTypeAndAnythingButOneCallInOneBody) {
    for (const auto& [text, refusal] : Sample::ReadCases("refused_messages")) {
        EXPECT_EQ(Refusal(text), refusal) << text;
    }
}

TEST(SoapMessage, IsRefusedBeyondTheLimitOfItsDepth) {
    // Envelope, body and call are the first three.
    const auto nested = [](std::size_t depth) {
        return CallOf("Sweep", Repeated("<a>", depth - 3) + "text" + Repeated("</a>", depth - 3), "");
    };
    EXPECT_EQ(Refusal(nested(64)), "nothing");
    EXPECT_EQ(Refusal(nested(65)), "a SOAP message nested deeper than 64");
    EXPECT_EQ(Refusal(nested(100'000)), "a SOAP message nested deeper than 64");
    EXPECT_EQ(Refusal(nested(5), {.maxDepth = 4}), "a SOAP message nested deeper than 4");
}

TEST(SoapMessage, IsRefusedBeyondTheLimitOfItsBytes) {
    const std::string text = CallOf("Sweep", "", "");
    EXPECT_EQ(Refusal(text, {.maxBytes = text.size()}), "nothing");
    EXPECT_EQ(Refusal(text, {.maxBytes = text.size() - 1}),
              "a SOAP message of more than " + std::to_string(text.size() - 1) + " bytes");
}

TEST(SoapMessage, IsRefusedBeyondTheLimitOfElementsAndAttributes) {
    const auto withAttributes = [](std::size_t count) {
        return Enveloped("<Sweep" + Repeated(" a='1'", count) + "/>");
    };
    const Limits limits{.maxElements = 10};
    const std::string refusal = "a SOAP message of more than 10 elements or attributes";
    EXPECT_EQ(Refusal(CallOf("Sweep", Repeated("<a/>", 7), ""), limits), "nothing");
    EXPECT_EQ(Refusal(CallOf("Sweep", Repeated("<a></a>", 7), ""), limits), "nothing");
    EXPECT_EQ(Refusal(CallOf("Sweep", Repeated("<a/>", 8), ""), limits), refusal);
    EXPECT_EQ(Refusal(withAttributes(10), limits), "nothing");
    EXPECT_EQ(Refusal(withAttributes(11), limits), refusal);
    for (const std::string& text :
         {withAttributes(1'000'001), CallOf("Sweep", Repeated("<a/>", 1'000'000), ""),
          Repeated("<a>", 1'000'001), Repeated("<", 1'000'001)}) {
        const XmlMemory memory(1'000'000);
        EXPECT_EQ(Refusal(text), "a SOAP message of more than 1000000 elements or attributes");
        EXPECT_EQ(XmlMemory::GetTaken(), 0);
    }
}

TEST(SoapMessage, IsNotReadInPartWhenMemoryIsShort) {
    const std::string whole = StoreResponse(Sample::MakeEverything());
    const XmlMemory memory(0);
    EXPECT_THROW(Message(whole, {}), std::bad_alloc);
}

TEST(SoapMessage, TruncatedAtAnyByteIsRefused) {
    for (const std::string& whole :
         {StoreResponse(Sample::MakeEverything()), EncodeFault(*Tessim::MakeRef<Fault::InvalidLogin>()),
          EncodeRequest(MoRef("Shop", "shop-1"), Method("Sweep"), *Method("Sweep").request->create())}) {
        ASSERT_EQ(Refusal(whole), "nothing");
        for (std::size_t length = 0; length < whole.size(); ++length) {
            EXPECT_THAT(Refusal(whole.substr(0, length)), StartsWith("not XML: ")) << length;
        }
    }
}

TEST(SoapMessage, WithAnyByteChangedNeverCrashes) {
    const std::string whole = StoreResponse(Sample::MakeEverything());
    int refused = 0;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (const char byte : {'\0', '<', '>', '&', '"', '\xff', ' '}) {
            std::string text = whole;
            text[at] = byte;
            try {
                Message(text, {}).GetResponse(Method("Store"));
            } catch (const Tessim::InvalidArgumentException&) {
                ++refused;
            }
        }
    }
    EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace Ordane::Soap
