#include "runtime/ordane/zarn_stub_adapter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/memory_stream.h"
#include "tests/unit/ordane/sample_shop.h"

namespace Ordane {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::size_t maxReplyBytes = 32UL * 1024 * 1024;
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
const std::string sweepReply = "<Envelope><Body><SweepResponse/></Body></Envelope>";

std::string WithLength(const std::string& body, const std::string& more = {}) {
    return "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n" + more + "\r\n" + body;
}

// The body in chunks of `size` bytes.
std::string Chunked(const std::string& body, std::size_t size, const std::string& trailer = {}) {
    std::string reply = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (std::size_t at = 0; at < body.size(); at += size) {
        const std::string chunk = body.substr(at, size);
        constexpr const char* digits = "0123456789abcdef";
        std::string length;
        for (std::size_t left = chunk.size(); left > 0; left /= 16) {
            length.insert(length.begin(), digits[left % 16]);
        }
        reply.append(length).append("\r\n").append(chunk).append("\r\n");
    }
    return reply + "0\r\n" + trailer + "\r\n";
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

    // Makes a call of the method "Login" with the reply `body`.
    void LogIn(const std::string& body = "<Envelope><Body><LoginResponse/></Body></Envelope>") {
        MethodInfo login = *Sample::Shop::staticType.FindMethod("Sweep");
        login.name = "Login";
        stream->replies = {WithLength(body)};
        adapter->Invoke(*stub->GetMoRef(), login, *login.request->create());
    }
    // What a call with the reply `reply` on a new connection after the login is broken by.
    std::string FailureOf(const std::string& reply) {
        Connect();
        LogIn();
        stream->replies = {reply};
        return Failure();
    }
    // The same without a login.
    std::string FailureBeforeLoginOf(const std::string& reply) {
        Connect();
        stream->replies = {reply};
        return Failure();
    }
    std::string Failure() {
        try {
            stub->Sweep();
        } catch (const Fault::HostCommunication::Exception& thrown) {
            return thrown.what();
        }
        return "nothing";
    }

    Tessim::Ref<TestSupport::MemoryStream> stream;
    Tessim::Ref<FakeLogger> logger;
    Tessim::Ref<StubAdapter> adapter;
    Tessim::Ref<Sample::Shop> stub;
};

// Requests.

TEST_F(ZarnStubAdapterTest, PostsTheMessageToThePathOfTheMapping) {
    stream->replies = {WithLength(sweepReply)};
    stub->Sweep();
    const std::string& sent = stream->written;
    const std::size_t end = sent.find("\r\n\r\n");
    ASSERT_NE(end, std::string::npos);
    const std::string header = sent.substr(0, end + 2);
    const std::string body = sent.substr(end + 4);
    EXPECT_THAT(header, StartsWith("POST /far/api/ HTTP/1.1\r\n"));
    EXPECT_THAT(header, HasSubstr("\r\nHost: localhost\r\n"));
    EXPECT_THAT(header, HasSubstr("\r\nContent-Type: text/xml; charset=utf-8\r\n"));
    EXPECT_THAT(header, HasSubstr("\r\nSOAPAction: \"urn:ordane\"\r\n"));
    EXPECT_THAT(header, HasSubstr("\r\nContent-Length: " + std::to_string(body.size()) + "\r\n"));
    EXPECT_EQ(header.find("Transfer-Encoding"), std::string::npos);
    const Soap::Message message(body, {});
    EXPECT_EQ(message.GetName(), "Sweep");
    EXPECT_EQ(message.GetTarget()->GetId(), "shop-1");
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

TEST_F(ZarnStubAdapterTest, NeedsAPathThatIsMapped) {
    const auto service = TestSupport::MakeService(*stream, "/far/", "/near/");
    Tessim::Ref<StubAdapter> out = adapter;
    EXPECT_THROW(CreateZarnStubAdapter(nullptr, service.Get(), "/elsewhere/", out),
                 Tessim::InvalidArgumentException);
    EXPECT_EQ(out, adapter);
}

TEST_F(ZarnStubAdapterTest, OutlivesTheService) {
    auto service = TestSupport::MakeService(*stream, "/far/", "/near/");
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

// Replies that are accepted.

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
    const std::string fault =
        Soap::EncodeFault(*Fault::NotAuthenticated::Exception("log in first").GetFault());
    stream->replies = {"HTTP/1.1 500 Internal Server Error\r\nContent-Length: " +
                           std::to_string(fault.size()) + "\r\n\r\n" + fault,
                       WithLength(sweepReply)};
    EXPECT_THROW(stub->Sweep(), Fault::NotAuthenticated::Exception);
    EXPECT_NO_THROW(stub->Sweep());
}

TEST_F(ZarnStubAdapterTest, AcceptsAReplyThatEndsWithTheConnection) {
    EXPECT_EQ(FailureOf("HTTP/1.1 200 OK\r\n\r\n" + sweepReply), "nothing");
    EXPECT_TRUE(stream->IsClosed());
}

TEST_F(ZarnStubAdapterTest, ClosesTheConnectionWhenTheDaemonRequestsIt) {
    EXPECT_EQ(FailureOf(WithLength(sweepReply, "Connection: close\r\n")), "nothing");
    EXPECT_TRUE(stream->IsClosed());
    EXPECT_EQ(Failure(), "the stream is closed");
    EXPECT_EQ(FailureOf("HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(sweepReply.size()) +
                        "\r\n\r\n" + sweepReply),
              "nothing");
    EXPECT_TRUE(stream->IsClosed());
}

// Replies that break the connection.

TEST_F(ZarnStubAdapterTest, RefusesAReplyOfUnclearLength) {
    const std::string length = "Content-Length: " + std::to_string(sweepReply.size()) + "\r\n";
    const std::string chunked = "Transfer-Encoding: chunked\r\n";
    const std::string two = "multiple Content-Length";
    const std::string bad = "bad Content-Length";
    for (const auto& [fields, reason] : {std::pair<std::string, std::string>{length + chunked, ""},
                                         {chunked + length, ""},
                                         {"Content-Length: 50\r\nContent-Length: 51\r\n", two},
                                         {"Content-Length: 50, 51\r\n", two},
                                         {"Content-Length: -1\r\n", bad},
                                         {"Content-Length: +50\r\n", bad},
                                         {"Content-Length: 0x32\r\n", bad},
                                         {"Content-Length: fifty\r\n", bad},
                                         {"Content-Length: 50 0\r\n", bad},
                                         {"Content-Length: \r\n", bad},
                                         {"Content-Length: 18446744073709551616\r\n", bad},
                                         {"Content-Length: 99999999999999999999999999\r\n", bad}}) {
        EXPECT_THAT(FailureOf("HTTP/1.1 200 OK\r\n" + fields + "\r\n" + sweepReply),
                    StartsWith(unusable + reason))
            << fields;
    }
}

TEST_F(ZarnStubAdapterTest, RefusesALengthBeyondTheLimitBeforeItReadsTheBody) {
    for (const char* length : {"33554433", "100000000", "18446744073709551615"}) {
        const std::string body(100'000, ' ');
        EXPECT_EQ(FailureOf(std::string("HTTP/1.1 200 OK\r\nContent-Length: ") + length + "\r\n\r\n" + body),
                  bodyLimit)
            << length;
        EXPECT_GT(stream->GetUnread(), 50'000U);
    }
}

TEST_F(ZarnStubAdapterTest, HasALimitOfTheBodyHoweverItComes) {
    const std::string fitting = sweepReply + std::string(maxReplyBytes - sweepReply.size(), ' ');
    const std::string larger = fitting + ' ';
    constexpr std::size_t chunk = 1024UL * 1024;
    EXPECT_EQ(FailureOf(WithLength(fitting)), "nothing");
    EXPECT_EQ(FailureOf(Chunked(fitting, chunk)), "nothing");
    EXPECT_EQ(FailureOf("HTTP/1.1 200 OK\r\n\r\n" + fitting), "nothing");
    for (const std::string& reply :
         {Chunked(larger, chunk), Chunked(larger, larger.size()), "HTTP/1.1 200 OK\r\n\r\n" + larger,
          std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nfffffffffffffff0\r\n")}) {
        EXPECT_EQ(FailureOf(reply), bodyLimit);
    }
}

TEST_F(ZarnStubAdapterTest, RefusesALongReplyBeforeTheLogin) {
    const std::string fitting = sweepReply + std::string(maxReplyBytesBeforeLogin - sweepReply.size(), ' ');
    EXPECT_EQ(FailureBeforeLoginOf(WithLength(fitting)), "nothing");
    EXPECT_EQ(FailureBeforeLoginOf(WithLength(fitting + ' ')), bodyLimit);
    EXPECT_EQ(FailureBeforeLoginOf(Chunked(fitting + ' ', 1000)), bodyLimit);
    EXPECT_EQ(FailureOf(WithLength(fitting + ' ')), "nothing");
}

TEST_F(ZarnStubAdapterTest, RefusesALongReplyAfterARefusedLogin) {
    const std::string refusal =
        "<Envelope><Body><Fault><faultstring>no</faultstring><detail><InvalidLogin/></detail></Fault>"
        "</Body></Envelope>";
    EXPECT_THROW(LogIn(refusal), Fault::InvalidLogin::Exception);
    stream->replies = {WithLength(sweepReply + std::string(maxReplyBytesBeforeLogin, ' '))};
    EXPECT_EQ(Failure(), bodyLimit);
}

TEST_F(ZarnStubAdapterTest, RefusesAHeaderWithoutEnd) {
    const std::string manyFields = [] {
        std::string fields = "HTTP/1.1 200 OK\r\n";
        while (fields.size() < 1'000'000) {
            fields += "X-Field: value\r\n";
        }
        return fields;
    }();
    for (const std::string& header : {manyFields, "HTTP/1.1 200 OK\r\nX-Long: " + std::string(1'000'000, 'x'),
                                      "HTTP/1.1 200 " + std::string(1'000'000, 'x')}) {
        EXPECT_EQ(FailureOf(header), unusable + "header limit exceeded");
        EXPECT_GT(stream->GetUnread(), 900'000U);
    }
}

TEST_F(ZarnStubAdapterTest, RefusesAHeaderBeyondTheLimit) {
    const auto withHeaderOf = [](std::size_t size) {
        const std::string bare = WithLength(sweepReply, "X-Long: \r\n");
        return WithLength(sweepReply,
                          "X-Long: " + std::string(size - (bare.size() - sweepReply.size()), 'x') + "\r\n");
    };
    EXPECT_EQ(FailureOf(withHeaderOf(maxHeaderBytes)), "nothing");
    EXPECT_EQ(FailureOf(withHeaderOf(maxHeaderBytes + 1)), unusable + "header limit exceeded");
}

TEST_F(ZarnStubAdapterTest, RefusesBadChunks) {
    const std::string header = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (const char* chunks : {"zz\r\nabc\r\n0\r\n\r\n", "\r\nabc\r\n0\r\n\r\n", "-3\r\nabc\r\n0\r\n\r\n",
                               "3\r\nabcdef\r\n0\r\n\r\n", "3\nabc\n0\n\n", "3 3\r\nabc\r\n0\r\n\r\n",
                               "10000000000000000\r\nabc\r\n0\r\n\r\n", "3;\r\nabc\r\n0\r\n\r\n"}) {
        EXPECT_THAT(FailureOf(header + chunks), StartsWith(unusable)) << chunks;
    }
}

TEST_F(ZarnStubAdapterTest, RefusesChunkHeadersAndTrailersWithoutEnd) {
    const std::string header = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string endless(1'000'000, 'x');
    for (const std::string& chunks : {"5;name=" + endless, std::string(1'000'000, '0'), "0;name=" + endless,
                                      "0\r\nX-Trailer: " + endless}) {
        EXPECT_EQ(FailureOf(header + chunks), unusable + "buffer overflow");
        EXPECT_GT(stream->GetUnread(), 900'000U);
    }
}

TEST_F(ZarnStubAdapterTest, RefusesWhatIsNoHttp) {
    for (const char* reply :
         {"220 localhost ready\r\n", "SSH-2.0-x\r\n", "HTTP/2.0 200 OK\r\n\r\n", "\r\n\r\n",
          "HTTP/1.1 2000 OK\r\n\r\n", "HTTP/1.1 OK\r\n\r\n", "HTTP/1.1 200 OK\nA: b\n\n",
          "HTTP/1.1 200 OK\r\nNo colon\r\n\r\n", "HTTP/1.1 200 OK\r\nA : b\r\n\r\n",
          "<Envelope><Body><SweepResponse/></Body></Envelope>"}) {
        EXPECT_THAT(FailureOf(reply), StartsWith(unusable)) << reply;
    }
}

TEST_F(ZarnStubAdapterTest, RefusesEveryOtherStatus) {
    for (const char* status :
         {"100 Continue", "201 Created", "204 No Content", "301 Moved", "304 Not Modified", "400 Bad",
          "401 Unauthorized", "404 Not Found", "503 Busy", "999 Odd"}) {
        EXPECT_EQ(FailureOf(std::string("HTTP/1.1 ") + status + "\r\nContent-Length: 0\r\n\r\n"),
                  "the daemon replied with HTTP status " + std::string(status).substr(0, 3));
    }
}

TEST_F(ZarnStubAdapterTest, RefusesDataBehindTheReply) {
    EXPECT_EQ(FailureOf(WithLength(sweepReply) + "x"), "the daemon sent more than its reply");
    EXPECT_EQ(FailureOf(WithLength(sweepReply) + WithLength(sweepReply)),
              "the daemon sent more than its reply");
    EXPECT_EQ(FailureOf(Chunked(sweepReply, 16) + "\r\n"), "the daemon sent more than its reply");
}

TEST_F(ZarnStubAdapterTest, RefusesAReplyWithoutABody) {
    EXPECT_THAT(FailureOf("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"),
                StartsWith("the daemon's reply is unusable: no XML: "));
}

TEST_F(ZarnStubAdapterTest, AnswersNothingOfAReplyThatEndsAtAnyByte) {
    for (const std::string& whole : {WithLength(sweepReply), Chunked(sweepReply, 16, "X-Trailer: a\r\n"),
                                     "HTTP/1.1 200 OK\r\n\r\n" + sweepReply}) {
        for (std::size_t length = 0; length < whole.size(); ++length) {
            const std::string failure = FailureOf(whole.substr(0, length));
            EXPECT_THAT(failure, HasSubstr("unusable: ")) << length << "\n" << whole;
            // Nothing more is tried on such a connection.
            const std::size_t sent = stream->written.size();
            EXPECT_EQ(Failure(), failure);
            EXPECT_EQ(stream->written.size(), sent);
        }
    }
}

TEST_F(ZarnStubAdapterTest, ReturnsNothingOfAReplyThatIsResetAtAnyByte) {
    const std::string whole = Chunked(sweepReply, 16);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        Connect();
        stream->replies = {whole.substr(0, length)};
        stream->atEnd = []() -> std::size_t { throw Tessim::StreamException("reset by peer"); };
        EXPECT_EQ(Failure(), "reset by peer") << length;
    }
}

TEST_F(ZarnStubAdapterTest, IsBrokenForGoodByALateReply) {
    stream->replies = {WithLength(sweepReply).substr(0, 20)};
    stream->atEnd = []() -> std::size_t { throw Tessim::TimeoutException("no reply in time"); };
    EXPECT_EQ(Failure(), "no reply in time");
    const std::size_t sent = stream->written.size();
    EXPECT_EQ(Failure(), "no reply in time");
    EXPECT_EQ(stream->written.size(), sent);
}

TEST_F(ZarnStubAdapterTest, LogsOnceThatTheConnectionIsLost) {
    FailureOf("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    Failure();
    EXPECT_THAT(logger->lines,
                ElementsAre("Connection to the daemon is lost: the daemon replied with HTTP status 404"));
}

TEST_F(ZarnStubAdapterTest, ReleasesTheStreamWhenItIsClosed) {
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
