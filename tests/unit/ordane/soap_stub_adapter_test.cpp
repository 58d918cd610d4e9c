#include "runtime/ordane/soap_stub_adapter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <new>

#include "tests/unit/ordane/messages.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane {
namespace {

using Sample::Enveloped;
using testing::ElementsAre;

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

class SoapStubAdapterTest : public testing::Test {
  protected:
    SoapStubAdapterTest() { Connect(); }

    void Connect(bool loggedIn = true) {
        adapter = Tessim::MakeRef<FakeAdapter>();
        stub = Sample::Shop::MakeStub(Tessim::Ref<StubAdapter>(adapter), "shop-1");
        if (loggedIn) {
            ReplyWith(Enveloped("<LoginResponse/>"));
            MethodInfo login = Sample::Method("Sweep");
            login.name = "Login";
            adapter->Invoke(*stub->GetMoRef(), login, *login.request->create());
            adapter->exchanges = 0;
        }
        adapter->reply = [this](const std::string& request) { return HandleCall(request, source).text; };
    }

    void ReplyWith(const std::string& reply) {
        adapter->reply = [reply](const std::string& /*request*/) { return reply; };
    }

    // Why the next call fails.
    std::string Failure() {
        return Sample::FailureOf<Fault::HostCommunication::Exception>([this] { stub->Sweep(); });
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

    Tessim::Ref<DataArray<Sample::Thing>> things;
    stub->GetThings(things);
    ASSERT_NE(things, nullptr);
    EXPECT_EQ(things->GetLength(), 0);
}

TEST_F(SoapStubAdapterTest, ThrowsAFaultLeavesTheResultAloneAndGoesOn) {
    source.loggedIn = false;
    const auto kept = Tessim::MakeRef<MoRef>("Person", "ann");
    Tessim::Ref<MoRef> out = kept;
    EXPECT_THROW(stub->GetOwner(out), Fault::NotAuthenticated::Exception);
    EXPECT_EQ(out, kept);
    source.loggedIn = true;
    EXPECT_NO_THROW(stub->Sweep());
}

TEST_F(SoapStubAdapterTest, SendsNothingThatNeedsALoginBeforeOne) {
    Connect(false);
    Tessim::Ref<MoRef> owner;
    EXPECT_EQ(Sample::FailureOf<Fault::NotAuthenticated::Exception>([&] { stub->GetOwner(owner); }),
              "log in first");
    EXPECT_EQ(adapter->exchanges, 0);
    EXPECT_FALSE(adapter->IsBroken());
    stub->Sweep();
    EXPECT_EQ(adapter->exchanges, 1);
}

TEST_F(SoapStubAdapterTest, ThrowsInvalidResponseForAReplyThatDoesNotFitAndIgnoresUnknownElements) {
    Tessim::Ref<Sample::Thing> thing;
    for (const auto& [reply, failure] : Sample::ReadCases("unusable_responses")) {
        ReplyWith(Enveloped(reply));
        EXPECT_EQ(Sample::FailureOf<Fault::InvalidResponse::Exception>([&] { stub->Greet("ann", thing); }),
                  failure);
        EXPECT_FALSE(thing);
    }
    ReplyWith(
        Enveloped("<GreetResponse><since>2.0</since><returnval xsi:type=\"RedToy\"><name>ball</name>"
                  "<count>2</count><shade>dark</shade></returnval></GreetResponse>"));
    stub->Greet("ann", thing);
    EXPECT_EQ(thing->GetName(), "ball");
    EXPECT_EQ(thing->GetDataObjectType(), GetType<Sample::RedToy>());
}

TEST_F(SoapStubAdapterTest, StaysBrokenAfterAMalformedReply) {
    const std::string sent = "the daemon sent ";
    const std::string name(10'000, 'n');
    for (const auto& [reply, failure] : {
             std::pair{Enveloped("<GetOwnerResponse/>"), sent + "GetOwnerResponse as its reply to Sweep"},
             {Enveloped("<Sweep/>"), sent + "Sweep as its reply to Sweep"},
             {Enveloped("<" + name + "/>"), sent + name.substr(0, 64) + " as its reply to Sweep"},
             {"<html><body>It works!</body></html>",
              "the daemon's reply is unusable: a SOAP message without envelope"},
         }) {
        Connect();
        ReplyWith(reply);
        EXPECT_EQ(Failure(), failure);
        ReplyWith(Enveloped("<SweepResponse/>"));
        EXPECT_EQ(Failure(), failure);
        adapter->Close();
        EXPECT_EQ(Failure(), failure);
        EXPECT_EQ(adapter->exchanges, 1);
    }
}

// The reply of an interrupted call is still to come: it must not become the next call's.
TEST_F(SoapStubAdapterTest, IsBrokenForGoodWhenACallIsInterrupted) {
    adapter->reply = [](const std::string& /*request*/) -> std::string { throw std::bad_alloc(); };
    EXPECT_THROW(stub->Sweep(), std::bad_alloc);
    ReplyWith(Enveloped("<SweepResponse/>"));
    EXPECT_EQ(Failure(), "an earlier call was interrupted");
    EXPECT_EQ(adapter->exchanges, 1);
}

}  // namespace
}  // namespace Ordane
