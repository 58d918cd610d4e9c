#include "runtime/ordane/soap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <pugixml.hpp>

#include "runtime/tessim/exception.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane::Soap {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

const MethodInfo& Method(const char* name) {
    return *Sample::Shop::staticType.FindMethod(name);
}

std::string Enveloped(const std::string& body) {
    return "<Envelope><Body>" + body + "</Body></Envelope>";
}

std::string Repeated(const std::string& text, std::size_t count) {
    std::string result;
    result.reserve(text.size() * count);
    for (std::size_t i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

// Why `text` is refused.
std::string Refusal(const std::string& text, const Limits& limits = {}) {
    try {
        const Message message(text, limits);
    } catch (const Tessim::InvalidArgumentException& refused) {
        return refused.what();
    }
    return "nothing";
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

constexpr int plenty = 1'000'000;

// The response of Store with `all` as its result.
std::string StoreResponse(const Tessim::Ref<Sample::Everything>& all) {
    const auto response = Method("Store").response->create();
    response->GetDataObjectType()->ownMembers[0].append(*response, Value(static_cast<Any*>(all.Get())));
    return EncodeResponse(Method("Store"), *response);
}

// What messages look like.

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

TEST(SoapMessage, OfAResponseIsNamedAfterTheMethod) {
    EXPECT_THAT(EncodeResponse(Method("Sweep"), *Method("Sweep").response->create()),
                HasSubstr("<soapenv:Body><SweepResponse xmlns=\"urn:ordane\"/></soapenv:Body>"));
}

TEST(SoapMessage, OfAFaultCarriesItsTextAndItsType) {
    const auto fault = Tessim::MakeRef<Fault::ManagedObjectNotFound>();
    fault->SetMessage("no Shop shop-9");
    fault->SetObj(Tessim::MakeRef<MoRef>("Shop", "shop-9"));
    EXPECT_THAT(EncodeFault(*fault),
                HasSubstr("<soapenv:Body><soapenv:Fault><faultcode>soapenv:Server</faultcode>"
                          "<faultstring>no Shop shop-9</faultstring><detail>"
                          "<ManagedObjectNotFound xmlns=\"urn:ordane\"><message>no Shop shop-9</message>"
                          "<obj type=\"Shop\">shop-9</obj></ManagedObjectNotFound>"
                          "</detail></soapenv:Fault></soapenv:Body>"));
}

TEST(SoapMessage, OfAFaultWithoutAMessageIsCalledByItsType) {
    const std::string text = EncodeFault(*Tessim::MakeRef<Fault::InvalidLogin>());
    EXPECT_THAT(text, HasSubstr("<faultstring>InvalidLogin</faultstring>"));
    EXPECT_THAT(text, HasSubstr("<detail><InvalidLogin xmlns=\"urn:ordane\"/></detail>"));
}

// Requests.

TEST(SoapMessage, GivesTargetNameAndParametersOfARequest) {
    const Message message(
        Enveloped("<Greet><visitor>ann</visitor><_this type=\"Shop\">shop-1</_this></Greet>"), {});
    EXPECT_EQ(message.GetName(), "Greet");
    EXPECT_EQ(message.GetTarget()->GetType(), "Shop");
    EXPECT_EQ(message.GetTarget()->GetId(), "shop-1");
    const auto request = message.GetParameters(Method("Greet"));
    EXPECT_EQ(request->GetDataObjectType(), Method("Greet").request);
}

TEST(SoapMessage, TakesAnyPrefixAHeaderAndComments) {
    const Message message(
        "\xef\xbb\xbf<?xml version=\"1.0\"?><!-- a --><s:Envelope xmlns:s=\"u\"> "
        "<s:Header><x/><y/></s:Header>\r\n"
        "<s:Body> <m:Sweep xmlns:m=\"v\"><m:_this type=\"Shop\">shop-1</m:_this></m:Sweep> "
        "</s:Body></s:Envelope>\n",
        {});
    EXPECT_EQ(message.GetName(), "Sweep");
    EXPECT_EQ(message.GetTarget()->GetId(), "shop-1");
    EXPECT_NE(message.GetParameters(Method("Sweep")), nullptr);
}

// Responses.

TEST(SoapMessage, IsAReplyToItsOwnMethodUnlessItIsAFault) {
    const Message message(Enveloped("<GetThingsResponse/>"), {});
    EXPECT_TRUE(message.IsReplyTo(Method("GetThings")));
    EXPECT_FALSE(message.IsReplyTo(Method("GetOwner")));
    EXPECT_FALSE(Message(Enveloped("<GetThings/>"), {}).IsReplyTo(Method("GetThings")));
    EXPECT_TRUE(Message(Enveloped("<Fault/>"), {}).IsReplyTo(Method("GetThings")));
}

TEST(SoapMessage, HasAResponseInWhichUnknownElementsAreIgnored) {
    const Message message(
        Enveloped("<GreetResponse><since>2.0</since><returnval xsi:type=\"RedToy\"><name>ball</name>"
                  "<count>2</count><shade>dark</shade></returnval></GreetResponse>"),
        {});
    const auto response = message.GetResponse(Method("Greet"));
    EXPECT_EQ(response->GetDataObjectType(), Method("Greet").response);
    EXPECT_THAT(EncodeResponse(Method("Greet"), *response),
                HasSubstr("<returnval xsi:type=\"RedToy\"><name>ball</name><count>2</count></returnval>"));
}

TEST(SoapMessage, RefusesAResponseThatDoesNotFit) {
    EXPECT_THROW(Message(Enveloped("<GreetResponse/>"), {}).GetResponse(Method("Greet")),
                 Tessim::InvalidArgumentException);
    EXPECT_THROW(
        Message(Enveloped("<GetThingsResponse><returnval><title/></returnval></GetThingsResponse>"), {})
            .GetResponse(Method("GetThings")),
        Tessim::InvalidArgumentException);
}

// Faults.

TEST(SoapFault, IsThrownAsTheExceptionOfItsTypeWithItsMembers) {
    for (const DataObjectType* type : Fault::AllDataObjectTypes()) {
        SCOPED_TRACE(type->name);
        const Tessim::Ref<DataObject> made = type->create();
        auto& fault = static_cast<Fault::MethodFault&>(*made);
        fault.SetMessage("what went wrong: <&> \xc3\xbc");
        if (auto* missing = dynamic_cast<Fault::ManagedObjectNotFound*>(&fault)) {
            missing->SetObj(Tessim::MakeRef<MoRef>("Shop", "shop-9"));
        }
        const std::string text = EncodeFault(fault);
        try {
            Message(text, {}).GetResponse(Method("Sweep"));
            ADD_FAILURE() << "no fault";
        } catch (const Fault::MethodFault::Exception& thrown) {
            EXPECT_STREQ(thrown.what(), "what went wrong: <&> \xc3\xbc");
            EXPECT_EQ(thrown.GetFault()->GetDataObjectType(), type);
            EXPECT_EQ(EncodeFault(*thrown.GetFault()), text);
        }
    }
}

TEST(SoapFault, IsCaughtByItsOwnClass) {
    const auto throwFault = [](const std::string& name) {
        Message(Enveloped("<Fault><faultstring>t</faultstring><detail><" + name + "/></detail></Fault>"), {})
            .GetResponse(Method("Sweep"));
    };
    EXPECT_THROW(throwFault("InvalidLogin"), Fault::InvalidLogin::Exception);
    EXPECT_THROW(throwFault("NotAuthenticated"), Fault::NotAuthenticated::Exception);
    EXPECT_THROW(throwFault("ManagedObjectNotFound"), Fault::ManagedObjectNotFound::Exception);
    EXPECT_THROW(throwFault("InvalidArgument"), Fault::InvalidArgument::Exception);
    EXPECT_THROW(throwFault("InvalidRequest"), Fault::InvalidRequest::Exception);
    EXPECT_THROW(throwFault("InvalidResponse"), Fault::InvalidResponse::Exception);
    EXPECT_THROW(throwFault("HostCommunication"), Fault::HostCommunication::Exception);
    EXPECT_THROW(throwFault("SystemError"), Fault::SystemError::Exception);
    EXPECT_THROW(throwFault("RuntimeFault"), Fault::RuntimeFault::Exception);
    EXPECT_THROW(throwFault("MethodFault"), Fault::MethodFault::Exception);
}

// The type that the fault in `content` is thrown as, and its text.
std::pair<const DataObjectType*, std::string> Thrown(const std::string& content) {
    try {
        Message(Enveloped("<s:Fault>" + content + "</s:Fault>"), {}).GetResponse(Method("Sweep"));
    } catch (const Fault::MethodFault::Exception& thrown) {
        return {thrown.GetFault()->GetDataObjectType(), thrown.what()};
    }
    return {nullptr, "nothing"};
}

TEST(SoapFault, IsFoundByItsTypeAmongTheDetails) {
    using Fields = std::pair<const DataObjectType*, std::string>;
    const auto* unknown = GetType<Fault::RuntimeFault>();
    for (const auto& [content, expected] : {
             std::pair<const char*, Fields>{
                 "<detail><trace/> <o:InvalidLogin "
                 "xmlns:o=\"u\"><o:message>no</o:message></o:InvalidLogin></detail>",
                 {GetType<Fault::InvalidLogin>(), "no"}},
             {"<faultstring>all <![CDATA[is]]> "
              "lost</faultstring><detail><Flood><depth>3</depth></Flood></detail>",
              {unknown, "all is lost"}},
             // A type of the API that is no fault.
             {"<faultstring>t</faultstring><detail><Thing><name>a</name></Thing></detail>", {unknown, "t"}},
             {"<faultcode>c</faultcode><faultstring>gone</faultstring>", {unknown, "gone"}},
             {"<faultstring>gone</faultstring><detail/>", {unknown, "gone"}},
             {"", {unknown, "fault without a text"}},
             // Its text is escaped.
             {"<faultstring>no\nInitialized.</faultstring>", {unknown, "no\\x0aInitialized."}},
             {"<detail><InvalidLogin><message>no&#13;&#10;\xC2\x9B\x31m</message></InvalidLogin></detail>",
              {GetType<Fault::InvalidLogin>(), "no\\x0d\\x0a\\u009b1m"}},
         }) {
        EXPECT_EQ(Thrown(content), expected) << content;
    }
}

TEST(SoapFault, WithIllTypedMembersDoesNotFit) {
    EXPECT_THROW(Thrown("<detail><ManagedObjectNotFound><obj>shop-9</obj></ManagedObjectNotFound></detail>"),
                 Tessim::InvalidArgumentException);
    EXPECT_THROW(Thrown("<detail><InvalidLogin xsi:type=\"Thing\"/></detail>"),
                 Tessim::InvalidArgumentException);
}

// What is no message.

TEST(SoapMessage, RefusesWhatIsNoXml) {
    const std::string message = Enveloped("<Sweep/>");
    for (const std::string& text :
         {std::string(), std::string(" \n "), std::string("plain text"),
          std::string("<Envelope><Body><Sweep/></Body>"),
          std::string("<Envelope><Body><Sweep></Body></Sweep></Envelope>"), Enveloped("<Sweep a=b/>"),
          message + "</Envelope>", std::string("<Envelope><!DOCTYPE x><Body><Sweep/></Body></Envelope>"),
          Enveloped("<Sweep><!DOCTYPE x></Sweep>"), "<!doctype Envelope>" + message}) {
        EXPECT_THAT(Refusal(text), StartsWith("no XML: ")) << text;
    }
}

TEST(SoapMessage, RefusesADocumentTypeAndAnythingButOneCallInOneBody) {
    const std::string message = Enveloped("<Sweep/>");
    const std::string noEnvelope = "a SOAP message without envelope";
    const std::string twoEnvelopes = "a SOAP message with more than one envelope";
    const std::string noBody = "a SOAP message without body";
    const std::string noCall = "a SOAP message without call";
    const std::string documentType = "a document type declaration is not allowed";
    for (const auto& [text, refusal] : {
             std::pair<std::string, std::string>{"<Body><Sweep/></Body>", noEnvelope},
             {"<envelope><Body><Sweep/></Body></envelope>", noEnvelope},
             {message + message, twoEnvelopes},
             {"<x/>" + message, twoEnvelopes},
             {"<Envelope/>", noBody},
             {"<Envelope><Header><Body/></Header></Envelope>", noBody},
             {"<Envelope><Body><Sweep/></Body><Body/></Envelope>", "a SOAP message with more than one body"},
             {Enveloped(""), noCall},
             {Enveloped(" text <!-- <Sweep/> --> "), noCall},
             {Enveloped("<Sweep/><Sweep/>"), "a SOAP message with more than one call"},
             {"<!DOCTYPE Envelope>" + message, documentType},
             {"<!DOCTYPE e [<!ENTITY a \"b\"><!ENTITY c SYSTEM \"file:///etc/passwd\">]>" + message,
              documentType},
             {"<?xml version=\"1.0\"?> <!DOCTYPE e SYSTEM \"http://localhost/e.dtd\">" + message,
              documentType},
             {message + "<!DOCTYPE Envelope>", documentType},
             {R"(<!DOCTYPE l [<!ENTITY a "lol"><!ENTITY b "&a;&a;&a;">]>)" + Enveloped("<Sweep>&b;</Sweep>"),
              documentType},
         }) {
        EXPECT_EQ(Refusal(text), refusal) << text;
    }
}

// Limits.

TEST(SoapMessage, MayNestElementsSixtyFourDeep) {
    // Envelope, body and call are the first three.
    const auto nested = [](std::size_t depth) {
        return Enveloped("<Sweep>" + Repeated("<a>", depth - 3) + "text" + Repeated("</a>", depth - 3) +
                         "</Sweep>");
    };
    EXPECT_EQ(Refusal(nested(64)), "nothing");
    EXPECT_EQ(Refusal(nested(65)), "a SOAP message nested deeper than 64");
    EXPECT_EQ(Refusal(nested(5), {.maxDepth = 4}), "a SOAP message nested deeper than 4");
}

TEST(SoapMessage, RefusesADepthOfAHundredThousand) {
    EXPECT_EQ(Refusal(Enveloped(Repeated("<a>", 100'000) + Repeated("</a>", 100'000))),
              "a SOAP message nested deeper than 64");
    EXPECT_THAT(Refusal(Repeated("<a>", 100'000)), StartsWith("no XML: "));
}

TEST(SoapMessage, MayHoldAsManyElementsAndAttributesAsTheLimit) {
    const Limits limits{.maxElements = 10};
    EXPECT_EQ(Refusal(Enveloped("<Sweep>" + Repeated("<a/>", 7) + "</Sweep>"), limits), "nothing");
    EXPECT_EQ(Refusal(Enveloped("<Sweep>" + Repeated("<a></a>", 7) + "</Sweep>"), limits), "nothing");
    EXPECT_EQ(Refusal(Enveloped("<Sweep" + Repeated(" a='1'", 10) + "/>"), limits), "nothing");
    for (const std::string& text : {Enveloped("<Sweep>" + Repeated("<a/>", 8) + "</Sweep>"),
                                    Enveloped("<Sweep" + Repeated(" a='1'", 11) + "/>")}) {
        EXPECT_EQ(Refusal(text, limits), "a SOAP message of more than 10 elements or attributes");
    }
}

TEST(SoapMessage, RefusesMoreThanAMillionElementsOrAttributesBeforeItTakesMemory) {
    for (const std::string& text : {Enveloped("<Sweep" + Repeated(" a=''", 1'000'001) + "/>"),
                                    Enveloped("<Sweep>" + Repeated("<a/>", 1'000'000) + "</Sweep>"),
                                    Repeated("<a>", 1'000'001), Repeated("<", 1'000'001)}) {
        const XmlMemory memory(plenty);
        EXPECT_EQ(Refusal(text), "a SOAP message of more than 1000000 elements or attributes");
        EXPECT_EQ(XmlMemory::GetTaken(), 0);
    }
}

// Memory.

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
}

TEST(SoapMessage, ThrowsBadAllocWithoutMemory) {
    const std::string text = Enveloped("<Sweep><_this type=\"Shop\">shop-1</_this></Sweep>");
    const XmlMemory memory(0);
    EXPECT_THROW(Message(text, {}), std::bad_alloc);
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
