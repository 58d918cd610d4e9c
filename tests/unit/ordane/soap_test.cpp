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

template <class Type>
class SoapFaultOf : public testing::Test {};

using FaultTypes =
    testing::Types<Fault::MethodFault, Fault::RuntimeFault, Fault::SystemError, Fault::HostCommunication,
                   Fault::InvalidResponse, Fault::InvalidRequest, Fault::ManagedObjectNotFound,
                   Fault::NotAuthenticated, Fault::InvalidLogin, Fault::InvalidArgument>;
TYPED_TEST_SUITE(SoapFaultOf, FaultTypes);

TYPED_TEST(SoapFaultOf, AnyTypeIsThrownAsTheExceptionOfItsTypeWithItsMembers) {
    const auto fault = Tessim::MakeRef<TypeParam>();
    fault->SetMessage("what went wrong: <&> \xc3\xbc");
    if constexpr (std::is_same_v<TypeParam, Fault::ManagedObjectNotFound>) {
        fault->SetObj(Tessim::MakeRef<MoRef>("Shop", "shop-9"));
    }
    const std::string text = EncodeFault(*fault);
    try {
        Message(text, {}).GetResponse(Method("Sweep"));
        ADD_FAILURE() << "no fault";
    } catch (const typename TypeParam::Exception& thrown) {
        EXPECT_STREQ(thrown.what(), "what went wrong: <&> \xc3\xbc");
        EXPECT_EQ(thrown.GetFault()->GetDataObjectType(), GetType<TypeParam>());
        EXPECT_EQ(EncodeFault(*thrown.GetFault()), text);
    }
}

TEST(SoapFault, HasAllTypesThatAreTestedAbove) {
    EXPECT_EQ(Fault::AllDataObjectTypes().size(), 10U);
}

TEST(SoapFault, IsFoundByItsTypeAmongTheDetails) {
    for (const auto& [name, content, expected] : {
             std::tuple{"behind another element",
                        "<detail><trace/> <o:InvalidLogin xmlns:o=\"u\">"
                        "<o:message>no</o:message></o:InvalidLogin></detail>",
                        "InvalidLogin: no"},
             {"of an unknown type",
              "<faultstring>all <![CDATA[is]]> "
              "lost</faultstring><detail><Flood><depth>3</depth></Flood></detail>",
              "RuntimeFault: all is lost"},
             {"of a type that is no fault",
              "<faultstring>t</faultstring><detail><Thing><name>a</name></Thing></detail>",
              "RuntimeFault: t"},
             {"without details", "<faultcode>c</faultcode><faultstring>gone</faultstring>",
              "RuntimeFault: gone"},
             {"with empty details", "<faultstring>gone</faultstring><detail/>", "RuntimeFault: gone"},
             {"empty", "", "RuntimeFault: fault without a text"},
             {"with a control character in its text", "<faultstring>no\nInitialized.</faultstring>",
              "RuntimeFault: no\\x0aInitialized."},
             {"with control characters in its message",
              "<detail><InvalidLogin><message>no&#13;&#10;\xC2\x9B\x31m</message></InvalidLogin></detail>",
              "InvalidLogin: no\\x0d\\x0a\\u009b1m"},
         }) {
        SCOPED_TRACE(name);
        try {
            Message(Enveloped("<s:Fault>" + std::string(content) + "</s:Fault>"), {})
                .GetResponse(Method("Sweep"));
            ADD_FAILURE() << "no fault";
        } catch (const Fault::MethodFault::Exception& thrown) {
            const std::string type(thrown.GetFault()->GetDataObjectType()->name);
            EXPECT_EQ(type + ": " + thrown.what(), expected);
        }
    }
}

TEST(SoapMessage, RefusesWhatIsNoXml) {
    const std::string message = Enveloped("<Sweep/>");
    for (const std::string& text :
         {std::string(), std::string(" \n "), std::string("plain text"),
          std::string("<Envelope><Body><Sweep/></Body>"), Repeated("<a>", 100'000),
          std::string("<Envelope><Body><Sweep></Body></Sweep></Envelope>"), Enveloped("<Sweep a=b/>"),
          message + "</Envelope>", std::string("<Envelope><!DOCTYPE x><Body><Sweep/></Body></Envelope>"),
          Enveloped("<Sweep><!DOCTYPE x></Sweep>"), "<!doctype Envelope>" + message}) {
        EXPECT_THAT(Refusal(text), StartsWith("no XML: ")) << text.substr(0, 100);
    }
}

TEST(SoapMessage, RefusesADocumentTypeAndAnythingButOneCallInOneBody) {
    const std::string message = Enveloped("<Sweep/>");
    const std::string other = "a SOAP message ";
    for (const auto& [refusal, texts] : std::vector<std::pair<std::string, std::vector<std::string>>>{
             {other + "without envelope",
              {"<Body><Sweep/></Body>", "<envelope><Body><Sweep/></Body></envelope>"}},
             {other + "with more than one envelope", {message + message, "<x/>" + message}},
             {other + "without body", {"<Envelope/>", "<Envelope><Header><Body/></Header></Envelope>"}},
             {other + "with more than one body", {"<Envelope><Body><Sweep/></Body><Body/></Envelope>"}},
             {other + "without call", {Enveloped(""), Enveloped(" text <!-- <Sweep/> --> ")}},
             {other + "with more than one call", {Enveloped("<Sweep/><Sweep/>")}},
             {"a document type declaration is not allowed",
              {"<!DOCTYPE Envelope>" + message, message + "<!DOCTYPE Envelope>",
               "<!DOCTYPE e [<!ENTITY a \"b\"><!ENTITY c SYSTEM \"file:///etc/passwd\">]>" + message,
               "<?xml version=\"1.0\"?> <!DOCTYPE e SYSTEM \"http://localhost/e.dtd\">" + message,
               R"(<!DOCTYPE l [<!ENTITY a "lol"><!ENTITY b "&a;&a;&a;">]>)" +
                   Enveloped("<Sweep>&b;</Sweep>")}}}) {
        for (const std::string& text : texts) {
            EXPECT_EQ(Refusal(text), refusal) << text;
        }
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

TEST(SoapMessage, IsWholeOrNotAtAllWhenMemoryIsShort) {
    const auto source = Sample::MakeEverything();
    source->SetText(std::string(100'000, 't'));
    const std::string whole = StoreResponse(source);
    int allowed = 0;
    for (std::string text; text != whole; ++allowed) {
        const XmlMemory memory(allowed);
        try {
            text = StoreResponse(source);
            EXPECT_EQ(text, whole);
        } catch (const std::bad_alloc&) {
            continue;
        }
    }
    EXPECT_GT(allowed, 1);
    const XmlMemory memory(0);
    EXPECT_THROW(Message(whole, {}), std::bad_alloc);
}

TEST(SoapMessage, TruncatedAtAnyByteIsRefused) {
    for (const std::string& whole :
         {StoreResponse(Sample::MakeEverything()), EncodeFault(*Tessim::MakeRef<Fault::InvalidLogin>()),
          EncodeRequest(MoRef("Shop", "shop-1"), Method("Sweep"), *Method("Sweep").request->create())}) {
        ASSERT_EQ(Refusal(whole), "nothing");
        for (std::size_t length = 0; length < whole.size(); ++length) {
            EXPECT_THAT(Refusal(whole.substr(0, length)), StartsWith("no XML: ")) << length;
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
