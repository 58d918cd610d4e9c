#include "runtime/ordane/dispatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "runtime/tessim/exception.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string CallOf(const std::string& method, const std::string& parameters = {},
                   const std::string& target = "<_this type=\"Shop\">shop-1</_this>") {
    return "<Envelope><Body><" + method + ">" + target + parameters + "</" + method + "></Body></Envelope>";
}

class DispatcherTest : public testing::Test {
  protected:
    Reply Handle(const std::string& text, const Soap::Limits& limits = {}) {
        return HandleCall(text, source, limits);
    }

    // The type and the message of the fault in the reply to `text`.
    std::pair<std::string, std::string> FaultOf(const std::string& text) {
        const Reply reply = Handle(text);
        EXPECT_TRUE(reply.fault);
        const Soap::Message message(reply.text, {});
        try {
            message.GetResponse(*Sample::Shop::staticType.FindMethod("Sweep"));
        } catch (const Fault::MethodFault::Exception& thrown) {
            return {std::string(thrown.GetFault()->GetDataObjectType()->name), thrown.what()};
        }
        return {"", reply.text};
    }

    Sample::ShopSource source;
};

using Fields = std::pair<std::string, std::string>;

TEST_F(DispatcherTest, CallsTheObjectWithEveryParameterInOrder) {
    const Reply reply = Handle(
        CallOf("Store",
               "<tags>red</tags><flag>1</flag><small>-5</small><large>6000000000</large><state>sold</state>"
               "<thing xsi:type=\"SharpTool\"><name>saw</name></thing><owner type=\"Person\">ann</owner>"
               "<tags>old</tags>"));
    EXPECT_FALSE(reply.fault);
    EXPECT_THAT(source.shop->calls, ElementsAre("Store true -5 6000000000 2 SharpTool:saw ann red old"));
    EXPECT_THAT(reply.text, HasSubstr("<StoreResponse xmlns=\"urn:ordane\"><returnval><flag>true</flag>"));
}

TEST_F(DispatcherTest, LeavesAbsentParametersUnset) {
    Handle(CallOf("Store",
                  "<flag>false</flag><small>0</small><state>closed</state><thing><name>cup</name></thing>"));
    EXPECT_THAT(source.shop->calls, ElementsAre("Store false 0 none 0 Thing:cup nobody"));
}

TEST_F(DispatcherTest, RepliesWithAnEmptyResponseWithoutAResult) {
    const Reply reply = Handle(CallOf("Sweep"));
    EXPECT_FALSE(reply.fault);
    EXPECT_THAT(reply.text, HasSubstr("<SweepResponse xmlns=\"urn:ordane\"/>"));
    EXPECT_THAT(source.shop->calls, ElementsAre("Sweep"));
}

TEST_F(DispatcherTest, LeavesANullResultOut) {
    EXPECT_THAT(Handle(CallOf("GetOwner")).text, HasSubstr("<GetOwnerResponse xmlns=\"urn:ordane\"/>"));
    source.shop->things = nullptr;
    EXPECT_THAT(Handle(CallOf("GetThings")).text, HasSubstr("<GetThingsResponse xmlns=\"urn:ordane\"/>"));
}

TEST_F(DispatcherTest, LeavesNullElementsOfAListOut) {
    source.shop->things->Append(nullptr);
    const auto toy = Tessim::MakeRef<Sample::Toy>();
    toy->SetName("top");
    source.shop->things->Append(Tessim::Ref<Sample::Thing>(toy));
    EXPECT_THAT(
        Handle(CallOf("GetThings")).text,
        HasSubstr("<GetThingsResponse xmlns=\"urn:ordane\"><returnval xsi:type=\"Toy\"><name>top</name>"
                  "<count>0</count></returnval></GetThingsResponse>"));
}

// Before login.

TEST_F(DispatcherTest, CallsMarkedMethodsBeforeLogin) {
    source.loggedIn = false;
    const Reply reply = Handle(CallOf("Greet", "<visitor>ann</visitor>"));
    EXPECT_FALSE(reply.fault);
    EXPECT_THAT(reply.text, HasSubstr("<returnval><name>hello ann</name></returnval>"));
}

TEST_F(DispatcherTest, ShowsNothingBeforeLogin) {
    source.loggedIn = false;
    const Reply known = Handle(CallOf("Sweep"));
    EXPECT_EQ(FaultOf(CallOf("Sweep")), Fields("NotAuthenticated", "log in first"));
    for (const std::string& call :
         {CallOf("Sweep", "", "<_this type=\"Shop\">shop-2</_this>"),
          CallOf("Sweep", "", "<_this type=\"Person\">shop-1</_this>"),
          CallOf("Greet", "<visitor>ann</visitor>", "<_this type=\"Shop\">shop-2</_this>"), CallOf("Burn"),
          CallOf("Sweep", "<unknown/>"), CallOf("Store")}) {
        EXPECT_EQ(Handle(call).text, known.text) << call;
    }
    EXPECT_THAT(source.shop->calls, IsEmpty());
}

// Calls that cannot be carried out.

TEST_F(DispatcherTest, NamesTheMissingObject) {
    EXPECT_EQ(FaultOf(CallOf("Sweep", "", "<_this type=\"Shop\">shop-2</_this>")),
              Fields("ManagedObjectNotFound", "no Shop shop-2"));
    EXPECT_EQ(FaultOf(CallOf("Sweep", "", "<_this type=\"Person\">shop-1</_this>")),
              Fields("ManagedObjectNotFound", "no Person shop-1"));
    EXPECT_THAT(Handle(CallOf("Sweep", "", "<_this type=\"Shop\">shop-2</_this>")).text,
                HasSubstr("<obj type=\"Shop\">shop-2</obj>"));
}

TEST_F(DispatcherTest, TruncatesAndEscapesTheNamesOfAPeer) {
    const std::string longName(10'000, 'n');
    EXPECT_EQ(FaultOf(CallOf("Sweep", "", "<_this type=\"Shop\">a&#10;b" + longName + "</_this>")),
              Fields("ManagedObjectNotFound", "no Shop a\\x0ab" + longName.substr(0, 61)));
    EXPECT_EQ(FaultOf(CallOf(longName)),
              Fields("InvalidRequest", "Shop has no method " + longName.substr(0, 64)));
}

TEST_F(DispatcherTest, RefusesAMethodThatTheObjectDoesNotHave) {
    EXPECT_EQ(FaultOf(CallOf("Wait")), Fields("InvalidRequest", "Shop has no method Wait"));
    EXPECT_EQ(FaultOf(CallOf("sweep")), Fields("InvalidRequest", "Shop has no method sweep"));
}

TEST_F(DispatcherTest, RefusesBadParametersWithTheirPlace) {
    EXPECT_EQ(FaultOf(CallOf("Greet")),
              Fields("InvalidRequest", "element Envelope/Body/Greet: expected the member visitor"));
    EXPECT_EQ(FaultOf(CallOf("Sweep", "<broom/>")),
              Fields("InvalidRequest", "element Envelope/Body/Sweep/broom: expected a member of Sweep"));
    EXPECT_EQ(
        FaultOf(CallOf("Greet", "<visitor>&#7;</visitor>")),
        Fields("InvalidRequest", "element Envelope/Body/Greet/visitor: expected a text that XML can carry"));
    EXPECT_THAT(source.shop->calls, IsEmpty());
}

TEST_F(DispatcherTest, RefusesWhatIsNoCall) {
    EXPECT_EQ(FaultOf("hello").first, "InvalidRequest");
    EXPECT_EQ(FaultOf("<Envelope><Body/></Envelope>"),
              Fields("InvalidRequest", "a SOAP message without call"));
    EXPECT_EQ(FaultOf(CallOf("Sweep", "", "")),
              Fields("InvalidRequest", "a SOAP message without target object"));
    EXPECT_EQ(FaultOf(CallOf("Sweep", "<_this type=\"Shop\">shop-1</_this>")),
              Fields("InvalidRequest", "a SOAP message with more than one target object"));
    EXPECT_EQ(FaultOf(CallOf("Sweep", "", "<_this>shop-1</_this>")),
              Fields("InvalidRequest",
                     "element Envelope/Body/Sweep/_this: expected a reference with the type of its object"));
    EXPECT_EQ(FaultOf("<!DOCTYPE x>" + CallOf("Sweep")),
              Fields("InvalidRequest", "a document type declaration is not allowed"));
}

TEST_F(DispatcherTest, HoldsACallToItsLimits) {
    EXPECT_FALSE(Handle(CallOf("Sweep"), {.maxElements = 4, .maxDepth = 4}).fault);
    EXPECT_TRUE(Handle(CallOf("Sweep"), {.maxElements = 3, .maxDepth = 4}).fault);
    EXPECT_TRUE(Handle(CallOf("Sweep"), {.maxElements = 4, .maxDepth = 3}).fault);
}

// Methods that fail.

TEST_F(DispatcherTest, RepliesWithTheFaultOfAMethod) {
    source.shop->failure = [] { throw Fault::InvalidLogin::Exception("who are you"); };
    EXPECT_EQ(FaultOf(CallOf("Sweep")), Fields("InvalidLogin", "who are you"));
}

TEST_F(DispatcherTest, RepliesToAnyOtherExceptionWithASystemError) {
    source.shop->failure = [] { throw Tessim::SystemException("no broom"); };
    EXPECT_EQ(FaultOf(CallOf("Sweep")), Fields("SystemError", "no broom"));
    source.shop->failure = [] { throw std::runtime_error("broken broom"); };
    EXPECT_EQ(FaultOf(CallOf("Sweep")), Fields("SystemError", "broken broom"));
    // It is no fault of the caller.
    source.shop->failure = [] { throw Tessim::InvalidArgumentException("bad broom"); };
    EXPECT_EQ(FaultOf(CallOf("Sweep")), Fields("SystemError", "bad broom"));
}

TEST_F(DispatcherTest, ThrowsBadAlloc) {
    source.shop->failure = [] { throw std::bad_alloc(); };
    EXPECT_THROW(Handle(CallOf("Sweep")), std::bad_alloc);
}

}  // namespace
}  // namespace Ordane
