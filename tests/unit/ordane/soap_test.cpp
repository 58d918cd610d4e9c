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

// What taking `text` apart says against it.
std::string Refusal(const std::string& text, const Limits& limits = {}) {
    try {
        const Message message(text, limits);
    } catch (const Tessim::InvalidArgumentException& refused) {
        return refused.what();
    }
    return "nothing";
}

// Counts what the XML library takes, and refuses once as much as allowed was taken.
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

TEST(SoapMessage, HasNoTargetWithoutThis) {
    const Message message(Enveloped("<Greet><visitor>ann</visitor></Greet>"), {});
    EXPECT_THROW(message.GetTarget(), Tessim::InvalidArgumentException);
    EXPECT_THROW(message.GetParameters(Method("Greet")), Tessim::InvalidArgumentException);
}

TEST(SoapMessage, HasNoTargetWithTwoOfThem) {
    const Message message(
        Enveloped(R"(<Sweep><_this type="Shop">a</_this><_this type="Shop">b</_this></Sweep>)"), {});
    EXPECT_THROW(message.GetTarget(), Tessim::InvalidArgumentException);
    EXPECT_THROW(message.GetParameters(Method("Sweep")), Tessim::InvalidArgumentException);
}

TEST(SoapMessage, HasNoTargetWithoutItsType) {
    const Message message(Enveloped("<Sweep><_this>shop-1</_this></Sweep>"), {});
    EXPECT_THROW(message.GetTarget(), Tessim::InvalidArgumentException);
}

TEST(SoapMessage, RefusesUnknownMissingAndIllTypedParameters) {
    const std::string target = "<_this type=\"Shop\">shop-1</_this>";
    for (const auto& [parameters, expected] :
         {std::pair{"<visitor>a</visitor><guide>b</guide>",
                    "element Envelope/Body/Greet/guide: expected a member of Greet"},
          std::pair{"", "element Envelope/Body/Greet: expected the member visitor"},
          std::pair{"<visitor>a</visitor><visitor>b</visitor>",
                    "element Envelope/Body/Greet/visitor: expected one element of this name"}}) {
        const Message message(Enveloped("<Greet>" + target + parameters + "</Greet>"), {});
        try {
            message.GetParameters(Method("Greet"));
            ADD_FAILURE() << parameters;
        } catch (const Tessim::InvalidArgumentException& refused) {
            EXPECT_STREQ(refused.what(), expected);
        }
    }
}

// Responses.

TEST(SoapMessage, AnswersItsOwnMethodOnly) {
    const Message message(Enveloped("<GetThingsResponse/>"), {});
    EXPECT_TRUE(message.IsReplyTo(Method("GetThings")));
    EXPECT_FALSE(message.IsReplyTo(Method("GetOwner")));
    EXPECT_FALSE(Message(Enveloped("<GetThings/>"), {}).IsReplyTo(Method("GetThings")));
}

TEST(SoapMessage, OfAFaultAnswersEveryMethod) {
    EXPECT_TRUE(Message(Enveloped("<Fault/>"), {}).IsReplyTo(Method("GetThings")));
}

TEST(SoapMessage, GivesTheResponseAndPassesOverWhatIsNew) {
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

class EveryFault : public testing::TestWithParam<const DataObjectType*> {};

TEST_P(EveryFault, ComesOutAsTheExceptionOfItsTypeWithItsMembers) {
    const Tessim::Ref<DataObject> made = GetParam()->create();
    auto& fault = static_cast<Fault::MethodFault&>(*made);
    fault.SetMessage("what went wrong: <&> \xc3\xbc");
    if (auto* missing = dynamic_cast<Fault::ManagedObjectNotFound*>(&fault)) {
        missing->SetObj(Tessim::MakeRef<MoRef>("Shop", "shop-9"));
    }
    const std::string text = EncodeFault(fault);
    const Message message(text, {});
    EXPECT_TRUE(message.IsReplyTo(Method("Sweep")));
    try {
        message.GetResponse(Method("Sweep"));
        ADD_FAILURE() << "no fault";
    } catch (const Fault::MethodFault::Exception& thrown) {
        EXPECT_STREQ(thrown.what(), "what went wrong: <&> \xc3\xbc");
        EXPECT_EQ(thrown.GetFault()->GetDataObjectType(), GetParam());
        EXPECT_EQ(EncodeFault(*thrown.GetFault()), text);
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, EveryFault,
                         testing::ValuesIn(Fault::AllDataObjectTypes().begin(),
                                           Fault::AllDataObjectTypes().end()),
                         [](const auto& tested) { return std::string(tested.param->name); });

TEST(SoapFault, IsCaughtByItsOwnClass) {
    const auto raise = [](const std::string& name) {
        Message(Enveloped("<Fault><faultstring>t</faultstring><detail><" + name + "/></detail></Fault>"), {})
            .GetResponse(Method("Sweep"));
    };
    EXPECT_THROW(raise("InvalidLogin"), Fault::InvalidLogin::Exception);
    EXPECT_THROW(raise("NotAuthenticated"), Fault::NotAuthenticated::Exception);
    EXPECT_THROW(raise("ManagedObjectNotFound"), Fault::ManagedObjectNotFound::Exception);
    EXPECT_THROW(raise("InvalidArgument"), Fault::InvalidArgument::Exception);
    EXPECT_THROW(raise("InvalidRequest"), Fault::InvalidRequest::Exception);
    EXPECT_THROW(raise("InvalidResponse"), Fault::InvalidResponse::Exception);
    EXPECT_THROW(raise("HostCommunication"), Fault::HostCommunication::Exception);
    EXPECT_THROW(raise("SystemError"), Fault::SystemError::Exception);
    EXPECT_THROW(raise("RuntimeFault"), Fault::RuntimeFault::Exception);
    EXPECT_THROW(raise("MethodFault"), Fault::MethodFault::Exception);
}

// What the fault in `content` is raised as, and its text.
std::pair<const DataObjectType*, std::string> Raised(const std::string& content) {
    try {
        Message(Enveloped("<s:Fault>" + content + "</s:Fault>"), {}).GetResponse(Method("Sweep"));
    } catch (const Fault::MethodFault::Exception& thrown) {
        return {thrown.GetFault()->GetDataObjectType(), thrown.what()};
    }
    return {nullptr, "nothing"};
}

TEST(SoapFault, OfAnUnknownTypeIsARuntimeFaultWithItsText) {
    EXPECT_EQ(Raised("<faultstring>all <![CDATA[is]]> "
                     "lost</faultstring><detail><Flood><depth>3</depth></Flood></detail>"),
              std::pair(GetType<Fault::RuntimeFault>(), std::string("all is lost")));
    // A type of the API that is no fault is none either.
    EXPECT_EQ(Raised("<faultstring>t</faultstring><detail><Thing><name>a</name></Thing></detail>"),
              std::pair(GetType<Fault::RuntimeFault>(), std::string("t")));
}

TEST(SoapFault, IsToldInOneLine) {
    EXPECT_EQ(Raised("<faultstring>no\nInitialized.</faultstring>"),
              std::pair(GetType<Fault::RuntimeFault>(), std::string("no\\x0aInitialized.")));
    EXPECT_EQ(Raised("<faultstring>t</faultstring>"
                     "<detail><InvalidLogin><message>no&#13;&#10;\xC2\x9B"
                     "1m</message></InvalidLogin></detail>"),
              std::pair(GetType<Fault::InvalidLogin>(), std::string("no\\x0d\\x0a\\u009b1m")));
}

TEST(SoapFault, WithoutDetailIsARuntimeFaultWithItsText) {
    EXPECT_EQ(Raised("<faultcode>c</faultcode><faultstring>gone</faultstring>"),
              std::pair(GetType<Fault::RuntimeFault>(), std::string("gone")));
    EXPECT_EQ(Raised("<faultstring>gone</faultstring><detail/>"),
              std::pair(GetType<Fault::RuntimeFault>(), std::string("gone")));
    EXPECT_EQ(Raised(""), std::pair(GetType<Fault::RuntimeFault>(), std::string("fault without a text")));
}

TEST(SoapFault, IsFoundBehindOtherDetails) {
    EXPECT_EQ(Raised("<detail><trace/> <o:InvalidLogin "
                     "xmlns:o=\"u\"><o:message>no</o:message></o:InvalidLogin></detail>"),
              std::pair(GetType<Fault::InvalidLogin>(), std::string("no")));
}

TEST(SoapFault, WithIllTypedMembersDoesNotFit) {
    EXPECT_THROW(Raised("<detail><ManagedObjectNotFound><obj>shop-9</obj></ManagedObjectNotFound></detail>"),
                 Tessim::InvalidArgumentException);
    EXPECT_THROW(Raised("<detail><InvalidLogin xsi:type=\"Thing\"/></detail>"),
                 Tessim::InvalidArgumentException);
}

// What is no message.

TEST(SoapMessage, RefusesWhatIsNoXml) {
    EXPECT_THAT(Refusal(""), StartsWith("no XML: "));
    EXPECT_THAT(Refusal(" \n "), StartsWith("no XML: "));
    EXPECT_THAT(Refusal("plain text"), StartsWith("no XML: "));
    EXPECT_THAT(Refusal("<Envelope><Body><Sweep/></Body>"), StartsWith("no XML: "));
    EXPECT_THAT(Refusal("<Envelope><Body><Sweep></Body></Sweep></Envelope>"), StartsWith("no XML: "));
    EXPECT_THAT(Refusal("<Envelope><Body><Sweep a=b/></Body></Envelope>"), StartsWith("no XML: "));
    EXPECT_THAT(Refusal(Enveloped("<Sweep/>") + "</Envelope>"), StartsWith("no XML: "));
}

TEST(SoapMessage, RefusesNoEnvelopeAndTwo) {
    EXPECT_EQ(Refusal("<Body><Sweep/></Body>"), "a SOAP message without envelope");
    EXPECT_EQ(Refusal("<envelope><Body><Sweep/></Body></envelope>"), "a SOAP message without envelope");
    EXPECT_EQ(Refusal(Enveloped("<Sweep/>") + Enveloped("<Sweep/>")),
              "a SOAP message with more than one envelope");
    EXPECT_EQ(Refusal("<x/>" + Enveloped("<Sweep/>")), "a SOAP message with more than one envelope");
}

TEST(SoapMessage, RefusesNoBodyAndTwo) {
    EXPECT_EQ(Refusal("<Envelope/>"), "a SOAP message without body");
    EXPECT_EQ(Refusal("<Envelope><Header><Body/></Header></Envelope>"), "a SOAP message without body");
    EXPECT_EQ(Refusal("<Envelope><Body><Sweep/></Body><Body/></Envelope>"),
              "a SOAP message with more than one body");
}

TEST(SoapMessage, RefusesNoCallAndTwo) {
    EXPECT_EQ(Refusal(Enveloped("")), "a SOAP message without call");
    EXPECT_EQ(Refusal(Enveloped(" text <!-- <Sweep/> --> ")), "a SOAP message without call");
    EXPECT_EQ(Refusal(Enveloped("<Sweep/><Sweep/>")), "a SOAP message with more than one call");
}

TEST(SoapMessage, RefusesADocumentTypeAnywhere) {
    const std::string message = Enveloped("<Sweep/>");
    EXPECT_EQ(Refusal("<!DOCTYPE Envelope>" + message), "a document type declaration is not allowed");
    EXPECT_EQ(Refusal("<!DOCTYPE e [<!ENTITY a \"b\"><!ENTITY c SYSTEM \"file:///etc/passwd\">]>" + message),
              "a document type declaration is not allowed");
    EXPECT_EQ(Refusal("<?xml version=\"1.0\"?> <!DOCTYPE e SYSTEM \"http://localhost/e.dtd\">" + message),
              "a document type declaration is not allowed");
    EXPECT_EQ(Refusal(message + "<!DOCTYPE Envelope>"), "a document type declaration is not allowed");
    EXPECT_THAT(Refusal("<Envelope><!DOCTYPE x><Body><Sweep/></Body></Envelope>"), StartsWith("no XML: "));
    EXPECT_THAT(Refusal(Enveloped("<Sweep><!DOCTYPE x></Sweep>")), StartsWith("no XML: "));
    EXPECT_THAT(Refusal("<!doctype Envelope>" + message), StartsWith("no XML: "));
}

TEST(SoapMessage, ExpandsNoEntity) {
    const std::string text =
        R"(<!DOCTYPE l [<!ENTITY a "lol"><!ENTITY b "&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;">]>)" +
        Enveloped("<Sweep>&b;</Sweep>");
    EXPECT_EQ(Refusal(text), "a document type declaration is not allowed");
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

TEST(SoapMessage, MayHoldAsManyElementsAsTheLimitSays) {
    const Limits limits{.maxElements = 10};
    EXPECT_EQ(Refusal(Enveloped("<Sweep>" + Repeated("<a/>", 7) + "</Sweep>"), limits), "nothing");
    EXPECT_EQ(Refusal(Enveloped("<Sweep>" + Repeated("<a></a>", 7) + "</Sweep>"), limits), "nothing");
    EXPECT_EQ(Refusal(Enveloped("<Sweep>" + Repeated("<a/>", 8) + "</Sweep>"), limits),
              "a SOAP message of more than 10 elements or attributes");
}

TEST(SoapMessage, MayHoldAsManyAttributesAsTheLimitSays) {
    const Limits limits{.maxElements = 10};
    EXPECT_EQ(Refusal(Enveloped("<Sweep" + Repeated(" a='1'", 10) + "/>"), limits), "nothing");
    EXPECT_EQ(Refusal(Enveloped("<Sweep" + Repeated(" a='1'", 11) + "/>"), limits),
              "a SOAP message of more than 10 elements or attributes");
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
    const auto response = Method("Store").response->create();
    response->GetDataObjectType()->ownMembers[0].append(*response, Value(static_cast<Any*>(source.Get())));
    const std::string whole = EncodeResponse(Method("Store"), *response);
    int allowed = 0;
    for (std::string text; text != whole; ++allowed) {
        const XmlMemory memory(allowed);
        try {
            text = EncodeResponse(Method("Store"), *response);
            EXPECT_EQ(text, whole);
        } catch (const std::bad_alloc&) {
            continue;
        }
    }
    EXPECT_GT(allowed, 1);
}

TEST(SoapMessage, TellsAShortageOfMemoryFromABadMessage) {
    const std::string text = Enveloped("<Sweep><_this type=\"Shop\">shop-1</_this></Sweep>");
    const XmlMemory memory(0);
    EXPECT_THROW(Message(text, {}), std::bad_alloc);
}

// Broken off.

TEST(SoapMessage, CutAtAnyByteIsRefused) {
    const auto response = Method("Store").response->create();
    response->GetDataObjectType()->ownMembers[0].append(
        *response, Value(static_cast<Any*>(Sample::MakeEverything().Get())));
    for (const std::string& whole :
         {EncodeResponse(Method("Store"), *response), EncodeFault(*Tessim::MakeRef<Fault::InvalidLogin>()),
          EncodeRequest(MoRef("Shop", "shop-1"), Method("Sweep"), *Method("Sweep").request->create())}) {
        ASSERT_EQ(Refusal(whole), "nothing");
        for (std::size_t length = 0; length < whole.size(); ++length) {
            EXPECT_THAT(Refusal(whole.substr(0, length)), StartsWith("no XML: ")) << length;
        }
    }
}

TEST(SoapMessage, WithAnyByteChangedNeverCrashes) {
    const auto response = Method("Store").response->create();
    response->GetDataObjectType()->ownMembers[0].append(
        *response, Value(static_cast<Any*>(Sample::MakeEverything().Get())));
    const std::string whole = EncodeResponse(Method("Store"), *response);
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
