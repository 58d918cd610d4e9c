#include "runtime/ordane/zarn_stub_adapter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

#include "runtime/ordane/soap.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/memory_stream.h"
#include "tests/unit/ordane/messages.h"

namespace Ordane {
namespace {

using Sample::Enveloped;
using Sample::Method;
using testing::ElementsAre;
using testing::Eq;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr std::size_t maxReplyBytes = Soap::Limits{}.maxBytes;
constexpr std::size_t maxReplyBytesBeforeLogin = 64UL * 1024;
constexpr std::size_t maxHeaderBytes = 8UL * 1024;

// Keeps what is logged.
class FakeLogger final : public virtual Tessim::Service::Logger, public Tessim::ObjectImpl {
  public:
    const std::string& GetName() const override { return name; }
    void Write(LogLevel /*level*/, std::string_view text) override { lines.emplace_back(text); }

    std::vector<std::string> lines;

  private:
    std::string name = "fake";
};

const std::string unusable = "the daemon's HTTP reply is unusable: ";
const std::string bodyLimit = unusable + "body limit exceeded";
const std::string sweepReply = Enveloped("<SweepResponse/>");
const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";

std::string WithLength(const std::string& body, const std::string& more = {}, const std::string& first = ok) {
    return first + "Content-Length: " + std::to_string(body.size()) + "\r\n" + more + "\r\n" + body;
}

std::string UntilTheEnd(const std::string& body) {
    return ok + "\r\n" + body;
}

// The body in chunks of `size` bytes.
std::string Chunked(const std::string& body, std::size_t size, const std::string& trailer = {}) {
    std::ostringstream reply;
    reply << chunked << std::hex;
    for (std::size_t at = 0; at < body.size(); at += size) {
        const std::string chunk = body.substr(at, size);
        reply << chunk.size() << "\r\n" << chunk << "\r\n";
    }
    reply << "0\r\n" << trailer << "\r\n";
    return reply.str();
}

template <class Exception>
std::size_t Throw() {
    throw Exception("stopped");
}

class ZarnStubAdapterTest : public testing::Test {
  protected:
    ZarnStubAdapterTest() { Connect(); }

    void Connect() {
        stream = Tessim::MakeRef<TestSupport::MemoryStream>();
        logger = Tessim::MakeRef<FakeLogger>();
        const auto service = TestSupport::MakeService(*stream, "/far/api/", "/near/");
        CreateZarnStubAdapter(logger.Get(), service.Get(), "/near/", adapter);
        stub = Sample::Shop::MakeStub(adapter, "shop-1");
    }

    // Calls the method "Login", to which the daemon replies with `body`.
    void LogIn(const std::string& body = Enveloped("<LoginResponse/>")) {
        MethodInfo login = Method("Sweep");
        login.name = "Login";
        stream->replies = {WithLength(body)};
        adapter->Invoke(*stub->GetMoRef(), login, *login.request->create());
    }

    // Why the next call fails.
    std::string Failure() {
        return Sample::FailureOf<Fault::HostCommunication::Exception>([this] { stub->Sweep(); });
    }

    // Why a call with the reply `reply` on a new connection fails.
    std::string FailureOf(const std::string& reply, bool loggedIn = true) {
        Connect();
        if (loggedIn) {
            LogIn();
            stream->replies = {WithLength(sweepReply)};
            stub->Sweep();
        }
        stream->replies = {reply};
        return Failure();
    }

    Tessim::Ref<TestSupport::MemoryStream> stream;
    Tessim::Ref<FakeLogger> logger;
    Tessim::Ref<StubAdapter> adapter;
    Tessim::Ref<Sample::Shop> stub;
};

TEST_F(ZarnStubAdapterTest, PostsTheMessageToThePathOfTheMapping) {
    stream->replies = {WithLength(sweepReply)};
    stub->Sweep();
    const MethodInfo& sweep = Method("Sweep");
    EXPECT_EQ(stream->written,
              WithLength(Soap::EncodeRequest(*stub->GetMoRef(), sweep, *sweep.request->create()), {},
                         "POST /far/api/ HTTP/1.1\r\nHost: localhost\r\n"
                         "Content-Type: text/xml; charset=utf-8\r\n"
                         "SOAPAction: \"urn:ordane\"\r\n"));
}

TEST_F(ZarnStubAdapterTest, SendsOneCallAfterTheOtherOnTheSameStream) {
    stream->replies = {WithLength(sweepReply), Chunked(sweepReply, 7), WithLength(sweepReply)};
    stub->Sweep();
    const std::size_t length = stream->written.size();
    stub->Sweep();
    stub->Sweep();
    EXPECT_EQ(stream->written.size(), 3 * length);
    EXPECT_FALSE(stream->IsClosed());
    EXPECT_THAT(logger->lines, IsEmpty());
}

TEST_F(ZarnStubAdapterTest, NeedsAMappedPathAndOutlivesTheService) {
    auto service = TestSupport::MakeService(*stream, "/far/", "/near/");
    const Tessim::Ref<StubAdapter> before = adapter;
    EXPECT_THROW(CreateZarnStubAdapter(nullptr, service.Get(), "/elsewhere/", adapter),
                 Tessim::InvalidArgumentException);
    EXPECT_EQ(adapter, before);
    CreateZarnStubAdapter(nullptr, service.Get(), "/near/", adapter);
    service->Shutdown();
    service.Reset();
    stream->replies = {WithLength(sweepReply)};
    EXPECT_NO_THROW(Sample::Shop::MakeStub(adapter, "shop-1")->Sweep());
}

TEST_F(ZarnStubAdapterTest, KeepsToTheTimeBudgetInForceAndFiveSecondsAtMost) {
    using std::chrono::milliseconds;
    for (const auto& [budgeted, limit] :
         {std::pair{milliseconds(3'600'000), milliseconds(5000)}, {milliseconds(500), milliseconds(500)}}) {
        Connect();
        stream->atEnd = [limit = limit]() -> std::size_t {
            const auto left = Tessim::TimeBudget::Deadline() - Tessim::Clock::now();
            EXPECT_LE(left, limit);
            EXPECT_GT(left, limit - milliseconds(3000));
            throw Tessim::TimeoutException("no reply in time");
        };
        const Tessim::TimeBudget budget(budgeted);
        EXPECT_EQ(Failure(), "no reply in time");
    }
}

TEST_F(ZarnStubAdapterTest, AcceptsAReplyInPiecesOfAnySize) {
    for (const std::string& reply : {WithLength(sweepReply), Chunked(sweepReply, 1), Chunked(sweepReply, 16),
                                     Chunked(sweepReply, 1000, "X-Trailer: a\r\n")}) {
        for (const std::size_t size :
             {std::size_t{1}, std::size_t{2}, std::size_t{3}, std::size_t{64}, reply.size()}) {
            Connect();
            stream->replies = {reply};
            stream->pieceSize = size;
            EXPECT_EQ(Failure(), "nothing") << size << "\n" << reply;
            EXPECT_EQ(stream->GetUnread(), 0U);
        }
    }
}

TEST_F(ZarnStubAdapterTest, ThrowsTheFaultOfAReplyWithStatus500) {
    const std::string fault = Soap::EncodeFault(*Tessim::MakeRef<Fault::NotAuthenticated>());
    stream->replies = {WithLength(fault, {}, "HTTP/1.1 500 Internal Server Error\r\n"),
                       WithLength(sweepReply)};
    EXPECT_THROW(stub->Sweep(), Fault::NotAuthenticated::Exception);
    EXPECT_NO_THROW(stub->Sweep());
}

TEST_F(ZarnStubAdapterTest, ClosesTheConnectionThatTheReplyEnds) {
    for (const std::string& reply : {UntilTheEnd(sweepReply), WithLength(sweepReply, "Connection: close\r\n"),
                                     WithLength(sweepReply, {}, "HTTP/1.0 200 OK\r\n")}) {
        SCOPED_TRACE(reply);
        EXPECT_EQ(FailureOf(reply), "nothing");
        EXPECT_TRUE(stream->IsClosed());
        EXPECT_EQ(Failure(), "the stream is closed");
    }
}

TEST_F(ZarnStubAdapterTest, LimitsTheBodyHoweverItComes) {
    for (const auto& [loggedIn, limit] :
         {std::pair{true, maxReplyBytes}, {false, maxReplyBytesBeforeLogin}}) {
        const std::string fitting = sweepReply + std::string(limit - sweepReply.size(), ' ');
        const std::string larger = fitting + ' ';
        constexpr std::size_t chunk = 1024UL * 1024;
        for (const std::string& reply :
             {WithLength(fitting), Chunked(fitting, chunk), UntilTheEnd(fitting)}) {
            EXPECT_EQ(FailureOf(reply, loggedIn), "nothing") << reply.substr(0, 100);
        }
        for (const std::string& reply :
             {WithLength(larger), Chunked(larger, chunk), Chunked(larger, larger.size()), UntilTheEnd(larger),
              chunked + "fffffffffffffff0\r\n"}) {
            EXPECT_EQ(FailureOf(reply, loggedIn), bodyLimit) << reply.substr(0, 100);
        }
    }
}

TEST_F(ZarnStubAdapterTest, RefusesALongReplyAfterAnotherCallAndARefusedLogin) {
    stream->replies = {WithLength(sweepReply)};
    stub->Sweep();
    EXPECT_THROW(LogIn(Soap::EncodeFault(*Tessim::MakeRef<Fault::InvalidLogin>())),
                 Fault::InvalidLogin::Exception);
    stream->replies = {WithLength(sweepReply + std::string(maxReplyBytesBeforeLogin, ' '))};
    EXPECT_EQ(Failure(), bodyLimit);
}

TEST_F(ZarnStubAdapterTest, RefusesWhatIsTooLongBeforeItIsRead) {
    auto cases = Sample::ReadCases("endless_replies");
    cases.push_back({ok + Sample::Repeated("X-Field: value\r\n", 62'500), "header limit exceeded"});
    for (const auto& [reply, reason] : cases) {
        EXPECT_THAT(FailureOf(reply + std::string(1'000'000, reply.back())), MatchesRegex(unusable + reason));
        EXPECT_GT(stream->GetUnread(), 900'000U) << reply.substr(0, 100);
    }
}

TEST_F(ZarnStubAdapterTest, RefusesAHeaderBeyondTheLimit) {
    const std::size_t bare = WithLength({}, "X-Long: \r\n").size() + 1;  // the length has two digits
    const auto withHeaderOf = [&](std::size_t size) {
        return WithLength(sweepReply, "X-Long: " + std::string(size - bare, 'x') + "\r\n");
    };
    EXPECT_EQ(FailureOf(withHeaderOf(maxHeaderBytes)), "nothing");
    EXPECT_EQ(FailureOf(withHeaderOf(maxHeaderBytes + 1)), unusable + "header limit exceeded");
}

TEST_F(ZarnStubAdapterTest, RefusesMalformedRepliesAndEveryOtherStatus) {
    auto cases = Sample::ReadCases("malformed_replies");
    for (const std::string& reply :
         {WithLength(sweepReply) + "x", WithLength(sweepReply) + WithLength(sweepReply),
          Chunked(sweepReply, 16) + "\r\n"}) {
        cases.push_back({reply, "the daemon sent more than its reply"});
    }
    for (const auto& [reply, failure] : cases) {
        EXPECT_EQ(FailureOf(reply), failure) << reply;
    }
}

TEST_F(ZarnStubAdapterTest, IsBrokenForGoodByAReplyThatStopsAtAnyByte) {
    using Stop = std::pair<testing::Matcher<std::string>, std::function<std::size_t()>>;
    for (const auto& [expected, stop] :
         {Stop{HasSubstr("unusable: "), stream->atEnd}, Stop{Eq("stopped"), Throw<Tessim::StreamException>},
          Stop{Eq("stopped"), Throw<Tessim::TimeoutException>},
          Stop{Eq("stopped"), Throw<Tessim::SystemException>}}) {
        for (const std::string& whole :
             {WithLength(sweepReply), Chunked(sweepReply, 16, "X-Trailer: a\r\n"), UntilTheEnd(sweepReply)}) {
            for (std::size_t length = 0; length < whole.size(); ++length) {
                Connect();
                stream->replies = {whole.substr(0, length)};
                stream->atEnd = stop;
                const std::string failure = Failure();
                EXPECT_TRUE(expected.Matches(failure)) << failure << length << "\n" << whole;
                const std::size_t sent = stream->written.size();
                EXPECT_EQ(Failure(), failure);
                EXPECT_EQ(stream->written.size(), sent);
            }
        }
    }
}

TEST_F(ZarnStubAdapterTest, LogsOnceThatTheConnectionIsLost) {
    FailureOf(WithLength({}, {}, "HTTP/1.1 404 Not Found\r\n"));
    Failure();
    EXPECT_THAT(logger->lines,
                ElementsAre("Connection to the daemon is lost: the daemon replied with HTTP status 404"));
}

TEST_F(ZarnStubAdapterTest, SendsNothingOnceItIsClosed) {
    stream->replies = {WithLength(sweepReply)};
    stub->Sweep();
    const std::size_t sent = stream->written.size();
    adapter->Close();
    adapter->Close();
    EXPECT_EQ(Failure(), "the connection is closed");
    EXPECT_EQ(stream->written.size(), sent);
}

}  // namespace
}  // namespace Ordane
