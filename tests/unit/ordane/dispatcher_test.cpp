#include "runtime/ordane/dispatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "runtime/tessim/exception.h"
#include "tests/unit/ordane/messages.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane {
namespace {

using Sample::CallOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string otherShop = "<_this type=\"Shop\">shop-2</_this>";
const std::string person = "<_this type=\"Person\">shop-1</_this>";

class DispatcherTest : public testing::Test {
  protected:
    Reply Handle(const std::string& text, const Soap::Limits& limits = {}) {
        return HandleCall(text, source, limits);
    }

    // The type and the message of the fault in the reply to `text`.
    std::string FaultOf(const std::string& text) {
        const Reply reply = Handle(text);
        EXPECT_TRUE(reply.fault);
        return Sample::FaultIn(reply.text);
    }

    Sample::ShopSource source;
};

TEST_F(DispatcherTest, LeavesAbsentParametersUnset) {
    Handle(CallOf("Store",
                  "<flag>false</flag><small>0</small><state>closed</state><thing><name>cup</name></thing>"));
    EXPECT_THAT(source.shop->calls, ElementsAre("Store false 0 none 0 Thing:cup nobody"));
}

TEST_F(DispatcherTest, LeavesOutAnAbsentResultAndNullElements) {
    const auto toy = Tessim::MakeRef<Sample::Toy>();
    toy->SetName("top");
    source.shop->things->Append(nullptr);
    source.shop->things->Append(Tessim::Ref<Sample::Thing>(toy));
    EXPECT_THAT(
        Handle(CallOf("GetThings")).text,
        HasSubstr("<GetThingsResponse xmlns=\"urn:ordane\"><returnval xsi:type=\"Toy\"><name>top</name>"
                  "<count>0</count></returnval></GetThingsResponse>"));
    source.shop->things = nullptr;
    for (const std::string method : {"Sweep", "GetOwner", "GetThings"}) {
        const Reply reply = Handle(CallOf(method));
        EXPECT_FALSE(reply.fault);
        EXPECT_THAT(reply.text, HasSubstr("<" + method + "Response xmlns=\"urn:ordane\"/>"));
    }
    EXPECT_THAT(source.shop->calls, ElementsAre("GetThings", "Sweep", "GetOwner", "GetThings"));
}

TEST_F(DispatcherTest, CallsMarkedMethodsBeforeLogin) {
    source.loggedIn = false;
    const Reply reply = Handle(CallOf("Greet", "<visitor>ann</visitor>"));
    EXPECT_FALSE(reply.fault);
    EXPECT_THAT(reply.text, HasSubstr("<returnval><name>hello ann</name></returnval>"));
}

TEST_F(DispatcherTest, RepliesAlikeToEveryCallBeforeLogin) {
    source.loggedIn = false;
    const std::string known = CallOf("GetOwner");
    EXPECT_EQ(FaultOf(known), "NotAuthenticated: log in first");
    for (const std::string& call : {CallOf("GetOwner", "", otherShop), CallOf("GetOwner", "", person),
                                    CallOf("Greet", "<visitor>ann</visitor>", otherShop), CallOf("Burn"),
                                    CallOf("GetOwner", "<unknown/>"), CallOf("Store")}) {
        EXPECT_EQ(Handle(call).text, Handle(known).text) << call;
    }
    EXPECT_THAT(source.shop->calls, IsEmpty());
}

TEST_F(DispatcherTest, RefusesCallsThatCannotBeCarriedOut) {
    const std::string name(10'000, 'n');
    auto cases = Sample::ReadCases("refused_calls");
    cases.push_back({CallOf("Sweep", "", "<_this type=\"Shop\">a&#10;b" + name + "</_this>"),
                     "ManagedObjectNotFound: no Shop a\\x0ab" + name.substr(0, 61)});
    cases.push_back({CallOf("Sweep", "", "<_this type=\"a&#10;b" + name + "\">shop-1</_this>"),
                     "ManagedObjectNotFound: no a\\x0ab" + name.substr(0, 61) + " shop-1"});
    cases.push_back({CallOf(name), "InvalidRequest: Shop has no method " + name.substr(0, 64)});
    for (const auto& [call, fault] : cases) {
        EXPECT_EQ(FaultOf(call), fault) << call;
    }
    EXPECT_THAT(source.shop->calls, IsEmpty());
    EXPECT_THAT(Handle(CallOf("Sweep", "", otherShop)).text, HasSubstr("<obj type=\"Shop\">shop-2</obj>"));
}

TEST_F(DispatcherTest, RefusesCallsBeyondTheLimits) {
    EXPECT_FALSE(Handle(CallOf("Sweep"), {.maxElements = 4, .maxDepth = 4}).fault);
    EXPECT_TRUE(Handle(CallOf("Sweep"), {.maxElements = 3, .maxDepth = 4}).fault);
    EXPECT_TRUE(Handle(CallOf("Sweep"), {.maxElements = 4, .maxDepth = 3}).fault);
}

TEST_F(DispatcherTest, RepliesWithTheFaultOfAMethodOrASystemError) {
    for (const auto& [fault, fail] : std::vector<std::pair<std::string, std::function<void()>>>{
             {"InvalidLogin: who are you", [] { throw Fault::InvalidLogin::Exception("who are you"); }},
             {"SystemError: no broom", [] { throw Tessim::SystemException("no broom"); }},
             {"SystemError: broken broom", [] { throw std::runtime_error("broken broom"); }},
             {"SystemError: bad broom", [] { throw Tessim::InvalidArgumentException("bad broom"); }}}) {
        source.shop->failure = fail;
        EXPECT_EQ(FaultOf(CallOf("Sweep")), fault);
    }
}

TEST_F(DispatcherTest, ThrowsBadAlloc) {
    source.shop->failure = [] { throw std::bad_alloc(); };
    EXPECT_THROW(Handle(CallOf("Sweep")), std::bad_alloc);
}

}  // namespace
}  // namespace Ordane
