#include "runtime/ordane/soap_stub_adapter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <new>

#include "runtime/tessim/exception.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// Gets each reply from a function.
class FakeAdapter final : public SoapStubAdapter {
  public:
    std::function<std::string(const std::string&)> reply;
    int exchanges = 0;

  protected:
    std::string Exchange(const std::string& request) override {
        ++exchanges;
        return reply(request);
    }
};

std::string ReplyOf(const std::string& body) {
    return "<Envelope><Body>" + body + "</Body></Envelope>";
}

class SoapStubAdapterTest : public testing::Test {
  protected:
    SoapStubAdapterTest() { Connect(); }

    void Connect() {
        adapter = Tessim::MakeRef<FakeAdapter>();
        stub = Sample::Shop::MakeStub(Tessim::Ref<StubAdapter>(adapter), "shop-1");
        adapter->reply = [this](const std::string& request) { return HandleCall(request, source).text; };
    }

    void ReplyWith(const std::string& reply) {
        adapter->reply = [reply](const std::string& /*request*/) { return reply; };
    }

    // What the next call is broken by.
    std::string Failure() {
        try {
            stub->Sweep();
        } catch (const Fault::HostCommunication::Exception& thrown) {
            return thrown.what();
        }
        return "nothing";
    }

    Sample::ShopSource source;
    Tessim::Ref<FakeAdapter> adapter;
    Tessim::Ref<Sample::Shop> stub;
};

TEST_F(SoapStubAdapterTest, CarriesEveryKindOfParameterAndResult) {
    const auto toy = Tessim::MakeRef<Sample::RedToy>();
    toy->SetName("ball");
    const auto owner = Tessim::MakeRef<MoRef>("Person", "ann");
    Tessim::Ref<Sample::Everything> all;
    stub->Store(true, -5, 6'000'000'000, Sample::Shop::State::sold, toy.Get(), owner.Get(), {"red", ""}, all);
    EXPECT_THAT(source.shop->calls, ElementsAre("Store true -5 6000000000 2 RedToy:ball ann red "));
    ASSERT_TRUE(all);
    EXPECT_EQ(all->GetLargeMaybe(), INT64_MAX);

    source.shop->owner = owner;
    Tessim::Ref<MoRef> returned;
    stub->GetOwner(returned);
    EXPECT_EQ(returned->GetId(), "ann");
    source.shop->owner = nullptr;
    stub->GetOwner(returned);
    EXPECT_EQ(returned, nullptr);
}

TEST_F(SoapStubAdapterTest, ReturnsAnEmptyListForNoElements) {
    Tessim::Ref<DataArray<Sample::Thing>> things;
    stub->GetThings(things);
    ASSERT_NE(things, nullptr);
    EXPECT_EQ(things->GetLength(), 0);
}

TEST_F(SoapStubAdapterTest, KnowsItsObject) {
    EXPECT_EQ(stub->GetMoRef()->GetType(), "Shop");
    EXPECT_EQ(stub->GetMoRef()->GetId(), "shop-1");
    EXPECT_EQ(stub->GetManagedType(), &Sample::Shop::staticType);
}

TEST_F(SoapStubAdapterTest, ThrowsAFaultAndGoesOn) {
    source.loggedIn = false;
    EXPECT_THROW(stub->Sweep(), Fault::NotAuthenticated::Exception);
    source.loggedIn = true;
    EXPECT_NO_THROW(stub->Sweep());
}

TEST_F(SoapStubAdapterTest, LeavesTheResultAloneWhenTheCallFails) {
    source.shop->failure = [] { throw Fault::SystemError::Exception("no"); };
    auto kept = Tessim::MakeRef<MoRef>("Person", "ann");
    Tessim::Ref<MoRef> out = kept;
    EXPECT_THROW(stub->GetOwner(out), Fault::SystemError::Exception);
    EXPECT_EQ(out, kept);
}

TEST_F(SoapStubAdapterTest, ThrowsInvalidResponseForAReplyThatDoesNotFitAndGoesOn) {
    ReplyWith(ReplyOf("<GreetResponse/>"));
    Tessim::Ref<Sample::Thing> thing;
    try {
        stub->Greet("ann", thing);
        ADD_FAILURE();
    } catch (const Fault::InvalidResponse::Exception& thrown) {
        EXPECT_STREQ(thrown.what(),
                     "Greet: element Envelope/Body/GreetResponse: expected the member returnval");
    }
    ReplyWith(ReplyOf("<GreetResponse><returnval xsi:type=\"Everything\"/></GreetResponse>"));
    EXPECT_THROW(stub->Greet("ann", thing), Fault::InvalidResponse::Exception);
    ReplyWith(ReplyOf("<Fault><detail><InvalidLogin><message/><message/></InvalidLogin></detail></Fault>"));
    EXPECT_THROW(stub->Greet("ann", thing), Fault::InvalidResponse::Exception);
    EXPECT_FALSE(thing);
    ReplyWith(ReplyOf("<GreetResponse><returnval><name>hello</name></returnval></GreetResponse>"));
    stub->Greet("ann", thing);
    EXPECT_EQ(thing->GetName(), "hello");
}

TEST_F(SoapStubAdapterTest, IsBrokenForGoodByAReplyThatIsNone) {
    for (const auto& [reply, failure] : {
             std::pair{ReplyOf("<GetOwnerResponse/>"),
                       std::string("the daemon sent GetOwnerResponse as its reply to Sweep")},
             {ReplyOf("<Sweep/>"), "the daemon sent Sweep as its reply to Sweep"},
             {ReplyOf("<" + std::string(10'000, 'n') + "/>"),
              "the daemon sent " + std::string(64, 'n') + " as its reply to Sweep"},
             {"<html><body>It works!</body></html>",
              "the daemon's reply is unusable: a SOAP message without envelope"},
         }) {
        Connect();
        ReplyWith(reply);
        EXPECT_EQ(Failure(), failure);
        ReplyWith(ReplyOf("<SweepResponse/>"));
        EXPECT_EQ(Failure(), failure);
        EXPECT_EQ(adapter->exchanges, 1);
    }
}

TEST_F(SoapStubAdapterTest, IsBrokenForGoodByAFailureOfTheStream) {
    const std::function<void()> failures[] = {[] { throw Tessim::StreamException("failed"); },
                                              [] { throw Tessim::TimeoutException("failed"); },
                                              [] { throw Tessim::SystemException("failed"); }};
    for (const auto& fail : failures) {
        Connect();
        adapter->reply = [&](const std::string& /*request*/) {
            fail();
            return std::string();
        };
        EXPECT_EQ(Failure(), "failed");
        EXPECT_EQ(Failure(), "failed");
        EXPECT_EQ(adapter->exchanges, 1);
    }
}

// The reply of an interrupted call is still to come: it must not become the next call's.
TEST_F(SoapStubAdapterTest, IsBrokenForGoodWhenACallIsInterrupted) {
    adapter->reply = [](const std::string& /*request*/) -> std::string { throw std::bad_alloc(); };
    EXPECT_THROW(stub->Sweep(), std::bad_alloc);
    ReplyWith(ReplyOf("<SweepResponse/>"));
    EXPECT_EQ(Failure(), "an earlier call was interrupted");
    EXPECT_EQ(adapter->exchanges, 1);
}

TEST_F(SoapStubAdapterTest, CallsNothingOnceItIsClosed) {
    stub->Sweep();
    adapter->Close();
    adapter->Close();
    EXPECT_EQ(Failure(), "the connection is closed");
    EXPECT_EQ(adapter->exchanges, 1);
}

TEST_F(SoapStubAdapterTest, KeepsItsFirstFailureWhenItIsClosed) {
    ReplyWith("");
    const std::string failure = Failure();
    EXPECT_THAT(failure, HasSubstr("the daemon's reply is unusable: no XML: "));
    adapter->Close();
    EXPECT_EQ(Failure(), failure);
}

}  // namespace
}  // namespace Ordane
