#include "runtime/tessim/authd.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/tls_test_server.h"
#include "tests/unit/tessim/open_stream.h"

namespace Tessim {
namespace {

using namespace std::chrono_literals;
using KelvTest::FreePort;
using KelvTest::ServedConnection;
using KelvTest::TlsTestServer;
using KelvTest::Wire;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

// Long enough for any busy machine, short enough to tell "it waited for the budget" from "it hung".
constexpr auto soon = 20s;

// How an attempt to open a stream ends.
struct Outcome {
    enum Kind { Opened, Stream, Timeout } kind;
    std::string message;
};

Outcome Try(std::uint16_t port, const std::string& host = "localhost") {
    const auto descriptors = OpenDescriptors(0, port);
    const auto start = Clock::now();
    Outcome outcome{Outcome::Opened, ""};
    try {
        OpenStream(port, host);
    } catch (const TimeoutException& thrown) {
        outcome = {Outcome::Timeout, thrown.what()};
    } catch (const StreamException& thrown) {
        outcome = {Outcome::Stream, thrown.what()};
    }
    EXPECT_LT(Clock::now() - start, soon);
    EXPECT_EQ(OpenDescriptors(0, port), descriptors) << "a descriptor leaked";
    EXPECT_EQ(ERR_peek_error(), 0U) << "OpenSSL's errors were left in the queue";
    return outcome;
}

// A server that answers the preamble with `reply` and then waits for the client to go away.
std::unique_ptr<TlsTestServer> ReplyServer(const std::string& reply) {
    return std::make_unique<TlsTestServer>([reply](ServedConnection& connection) {
        connection.Handshake();
        connection.ReadLine();
        connection.Send(reply);
        connection.StaySilent();
    });
}

void Silent(ServedConnection& connection) {
    connection.StaySilent();
}

TEST(AuthdClient, AsksForTheServiceInOneLine) {
    std::vector<std::string> lines;
    TlsTestServer server([&](ServedConnection& connection) {
        connection.Handshake();
        lines.push_back(connection.ReadLine());
        connection.Send("200 /c\r\n");
    });
    Ref<System::Stream> stream;
    const auto client = MakeClient();
    client->Open(Authd::Selector::ManagementApi, "localhost", server.GetPort(), "", "", stream);
    client->Open(Authd::Selector::ManagementApi, "localhost", server.GetPort(), "first text", "~second",
                 stream);
    server.WaitForScripts(2);
    EXPECT_THAT(lines, testing::ElementsAre("OPEN 2 \"\" \"\"\r\n", "OPEN 2 \"first text\" \"~second\"\r\n"));
}

TEST(AuthdClient, AnswersTheConnectionPath) {
    TlsTestServer server([](ServedConnection& connection) { connection.Serve(); });
    const auto stream = OpenStream(server.GetPort());
    const auto* service = NarrowToType<Authd::ServiceStream>(stream);
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->GetConnectionPath(), "/connection/1");
    EXPECT_TRUE(stream->IsOwn());
}

TEST(AuthdClient, LosesNothingThatComesRightBehindTheAnswer) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve("HTTP/1.1 200 OK\r\n\r\n");
        connection.StaySilent();
    });
    const auto stream = OpenStream(server.GetPort());
    EXPECT_EQ(ReadBytes(*stream, 19), "HTTP/1.1 200 OK\r\n\r\n");
}

TEST(AuthdClient, TakesAnAnswerThatComesByteByByte) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.SetWire({.byteInterval = 100us});
        connection.Serve();
    });
    EXPECT_EQ(Try(server.GetPort()).kind, Outcome::Opened);
}

TEST(AuthdClient, SpeaksTls12) {
    TlsTestServer server([](ServedConnection& connection) { connection.Serve(); }, TLS1_2_VERSION);
    EXPECT_EQ(Try(server.GetPort()).kind, Outcome::Opened);
}

TEST(AuthdClient, SpeaksNoOlderTls) {
    for (const int version : {TLS1_1_VERSION, TLS1_VERSION}) {
        TlsTestServer server([](ServedConnection& connection) { connection.Serve(); }, version);
        const Outcome outcome = Try(server.GetPort());
        EXPECT_EQ(outcome.kind, Outcome::Stream);
        EXPECT_THAT(outcome.message, AllOf(HasSubstr("TLS handshake"), HasSubstr("version")));
    }
}

TEST(AuthdClient, SaysThatThePeerSpeaksNoTls) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.SendRaw("HTTP/1.0 400 Bad Request\r\n\r\n");
        connection.StaySilent();
    });
    const Outcome outcome = Try(server.GetPort());
    EXPECT_EQ(outcome.kind, Outcome::Stream);
    EXPECT_THAT(outcome.message, MatchesRegex("localhost:[0-9]+: TLS handshake: .*wrong version number.*"));
}

TEST(AuthdClient, IgnoresErrorsThatSomebodyElseLeftInTheQueue) {
    TlsTestServer server([](ServedConnection& connection) { connection.Serve(); });
    ERR_raise(ERR_LIB_USER, 1);
    EXPECT_EQ(Try(server.GetPort()).kind, Outcome::Opened);
}

TEST(AuthdClient, TakesAPeerThatTheTrustedCertificatesVouchFor) {
    TlsTestServer server([](ServedConnection& connection) { connection.Serve(); });
    Ref<System::Stream> stream;
    MakeClient({server.GetCertificate()})
        ->Open(Authd::Selector::ManagementApi, "localhost", server.GetPort(), "", "", stream);
    EXPECT_TRUE(stream);
}

TEST(AuthdClient, RefusesAPeerThatTheTrustedCertificatesDoNotVouchFor) {
    TlsTestServer server([](ServedConnection& connection) { connection.Serve(); });
    const TlsTestServer other(Silent);
    Ref<System::Stream> stream;
    try {
        MakeClient({other.GetCertificate()})
            ->Open(Authd::Selector::ManagementApi, "localhost", server.GetPort(), "", "", stream);
        FAIL();
    } catch (const StreamException& thrown) {
        EXPECT_THAT(thrown.what(), AllOf(HasSubstr("TLS handshake"), HasSubstr("self-signed certificate")));
    }
}

TEST(AuthdClient, NeedsAContext) {
    Ref<Authd::Client> client;
    EXPECT_THROW(Authd::CreateClient(nullptr, client), InvalidArgumentException);
}

TEST(AuthdClient, TellsTheReasonOfARefusal) {
    const auto server = ReplyServer("403 not for you\r\n");
    const Outcome outcome = Try(server->GetPort());
    EXPECT_EQ(outcome.kind, Outcome::Stream);
    EXPECT_THAT(outcome.message, HasSubstr("refused the stream: 403 not for you"));
}

TEST(AuthdClient, CleansTheReasonOfARefusalForTheLog) {
    const auto server = ReplyServer("503 \x1b[31mred\n\x80" + std::string(400, 'x') + "\r\n");
    const Outcome outcome = Try(server->GetPort());
    EXPECT_EQ(outcome.kind, Outcome::Stream);
    EXPECT_THAT(outcome.message, HasSubstr("503 \\x1b[31mred\\x0a\\x80xxx"));
    EXPECT_LT(outcome.message.size(), 300U);
}

TEST(AuthdClient, TakesNothingButAProperAnswer) {
    const std::vector<std::string> replies = {"\r\n",
                                              "200\r\n",
                                              "200 \r\n",
                                              "20 /c\r\n",
                                              "2000 /c\r\n",
                                              "abc /c\r\n",
                                              " 200 /c\r\n",
                                              "200\t/c\r\n",
                                              "200 /c\x01\r\n",
                                              "200 /c\n/d\r\n",
                                              "200 /\xC3\xA4\r\n",
                                              "+20 /c\r\n",
                                              std::string("200 /c\0\r\n", 9),
                                              "200 /c\r/d\r\n",
                                              "403\r\n"};
    for (const std::string& reply : replies) {
        const auto server = ReplyServer(reply);
        const Outcome outcome = Try(server->GetPort());
        EXPECT_EQ(outcome.kind, Outcome::Stream) << reply;
        EXPECT_THAT(outcome.message, HasSubstr("no authentication service")) << reply;
    }
}

TEST(AuthdClient, TakesALineOfTheGreatestLengthAndNoLongerOne) {
    const std::string path(Authd::maxPreambleLine - std::string("200 \r\n").size(), 'p');
    EXPECT_EQ(Try(ReplyServer("200 " + path + "\r\n")->GetPort()).kind, Outcome::Opened);
    const Outcome outcome = Try(ReplyServer("200 " + path + "p\r\n")->GetPort());
    EXPECT_EQ(outcome.kind, Outcome::Stream);
    EXPECT_THAT(outcome.message, HasSubstr("too long"));
    EXPECT_THAT(Try(ReplyServer(std::string(100000, 'x'))->GetPort()).message, HasSubstr("too long"));
}

TEST(AuthdClient, NoticesThatThePeerSaysGoodbyeInsteadOfAnAnswer) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Handshake();
        connection.ReadLine();
        connection.Send("200 /c");
        connection.SayGoodbye();
    });
    const Outcome outcome = Try(server.GetPort());
    EXPECT_EQ(outcome.kind, Outcome::Stream);
    EXPECT_THAT(outcome.message, HasSubstr("closed the connection without a reply"));
}

// The TLS version, and whether the connection is cut by a reset.
class CutTest : public testing::TestWithParam<std::tuple<int, bool>> {};

TEST_P(CutTest, IsAStreamErrorAtEveryByte) {
    const auto [version, reset] = GetParam();
    Wire wire;
    bool served = false;
    std::size_t sent = 0;
    TlsTestServer server(
        [&](ServedConnection& connection) {
            connection.SetWire(wire);
            served = connection.Serve();
            sent = connection.GetSentBytes();
        },
        version);
    ASSERT_EQ(Try(server.GetPort()).kind, Outcome::Opened);
    server.WaitForScripts(1);
    ASSERT_TRUE(served);
    ASSERT_GT(sent, 500U);
    // Signatures and session tickets differ in length from one handshake to the next.
    const std::size_t end = sent + 40;
    wire.reset = reset;
    for (wire.limit = 0; wire.limit < end; ++wire.limit) {
        const int before = server.GetAccepted();
        const Outcome outcome = Try(server.GetPort());
        server.WaitForScripts(before + 1);
        if (!served || !reset) {  // a reset may overtake an answer that was sent whole
            ASSERT_EQ(outcome.kind, served ? Outcome::Opened : Outcome::Stream)
                << "after " << wire.limit << " bytes: " << outcome.message;
        }
        ASSERT_NE(outcome.kind, Outcome::Timeout) << "after " << wire.limit << " bytes";
    }
}

INSTANTIATE_TEST_SUITE_P(Cut, CutTest,
                         testing::Combine(testing::Values(TLS1_2_VERSION, TLS1_3_VERSION), testing::Bool()));

TEST(AuthdClient, SaysThatNobodyListens) {
    const auto port = FreePort();
    for (int i = 0; i < 2; ++i) {  // and waits for no pause after it
        const Outcome outcome = Try(port);
        EXPECT_EQ(outcome.kind, Outcome::Stream);
        EXPECT_EQ(outcome.message,
                  "cannot connect to localhost:" + std::to_string(port) + ": Connection refused");
    }
}

TEST(AuthdClient, TriesAgainAtOnceAfterAnErrorThatIsNoTimeout) {
    bool fine = false;
    TlsTestServer server([&](ServedConnection& connection) {
        if (fine) {
            connection.Serve();
        }
    });
    EXPECT_EQ(Try(server.GetPort()).kind, Outcome::Stream);
    server.WaitForScripts(1);
    fine = true;
    EXPECT_EQ(Try(server.GetPort()).kind, Outcome::Opened);
}

TEST(AuthdClient, TakesNumericAddresses) {
    TlsTestServer server([](ServedConnection& connection) { connection.Serve(); });
    EXPECT_EQ(Try(server.GetPort(), "127.0.0.1").kind, Outcome::Opened);
}

TEST(AuthdClient, ConnectsOverIpv6) {
    const int listener = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener, generic, length) != 0 || ::listen(listener, 1) != 0) {
        GTEST_SKIP() << "no IPv6 here";
    }
    ASSERT_EQ(::getsockname(listener, generic, &length), 0);
    const auto port = ntohs(address.sin6_port);
    {
        const TimeBudget budget(100ms);
        const Outcome outcome = Try(port, "::1");
        EXPECT_EQ(outcome.kind, Outcome::Timeout);
        EXPECT_EQ(outcome.message, "[::1]:" + std::to_string(port) + ": no answer in time (TLS handshake)");
    }
    ::close(listener);
}

TEST(AuthdClient, AsksNoResolver) {
    for (const char* host :
         {"localhost.", "example.org", "", "127.1", "1.2.3", "::1%lo", "[::1]", "LOCALHOST"}) {
        EXPECT_THROW(OpenStream(902, host), InvalidArgumentException) << host;
    }
}

TEST(AuthdClient, HandsOverOnlyTextsThatFitTheLine) {
    TlsTestServer server([](ServedConnection& connection) { connection.Serve(); });
    const auto client = MakeClient();
    const auto open = [&](const std::string& text) {
        for (const auto& [first, second] : {std::pair{text, std::string()}, std::pair{std::string(), text}}) {
            Ref<System::Stream> stream;
            EXPECT_THROW(client->Open(Authd::Selector::ManagementApi, "localhost", server.GetPort(), first,
                                      second, stream),
                         InvalidArgumentException);
        }
    };
    open("a\"b");
    open("a\r\nOPEN 2");
    open(std::string(1, '\0'));
    open("\xC3\xA4");
    open(std::string(Authd::maxPreambleLine, 'x'));
    EXPECT_EQ(server.GetAccepted(), 0);
}

TEST(AuthdClient, LeavesTheHandleAsItWasWhenItFails) {
    TlsTestServer server([](ServedConnection& connection) { connection.Serve(); });
    Ref<System::Stream> stream = OpenStream(server.GetPort());
    const System::Stream* const before = stream.Get();
    EXPECT_THROW(MakeClient()->Open(Authd::Selector::ManagementApi, "localhost", FreePort(), "", "", stream),
                 StreamException);
    EXPECT_EQ(stream.Get(), before);
}

TEST(AuthdClient, OpensDescriptorsThatOtherProgramsDoNotInherit) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        connection.StaySilent();
    });
    const auto before = OpenDescriptors(FD_CLOEXEC, server.GetPort()).size();
    const auto stream = OpenStream(server.GetPort());
    EXPECT_EQ(OpenDescriptors(FD_CLOEXEC, server.GetPort()).size(), before + 1);
}

TEST(AuthdClient, SaysThatTheProcessHasNoDescriptorLeft) {
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const auto client = MakeClient();
    Ref<System::Stream> stream;
    // The same calls and exceptions once with descriptors: the sanitizer needs some when it first meets a
    // type.
    EXPECT_THROW(client->Open(Authd::Selector::ManagementApi, "localhost", FreePort(), "", "", stream),
                 StreamException);
    EXPECT_THROW(System::GetSystemFactory()->OpenSecretFile("", {}, stream), SystemException);
    rlimit none = limit;
    none.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_THROW(client->Open(Authd::Selector::ManagementApi, "localhost", 902, "", "", stream),
                 SystemException);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// Each way to answer too late, within a budget.
TEST(AuthdDeadline, EndsAWaitForTheHandshake) {
    TlsTestServer server(Silent);
    const TimeBudget budget(200ms);
    const Outcome outcome = Try(server.GetPort());
    EXPECT_EQ(outcome.kind, Outcome::Timeout);
    EXPECT_THAT(outcome.message, HasSubstr("TLS handshake"));
    EXPECT_GE(Clock::now(), TimeBudget::Deadline());
}

TEST(AuthdDeadline, EndsAWaitForTheAnswer) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Handshake();
        connection.StaySilent();
    });
    const TimeBudget budget(500ms);
    const Outcome outcome = Try(server.GetPort());
    EXPECT_EQ(outcome.kind, Outcome::Timeout);
    EXPECT_THAT(outcome.message, HasSubstr("reading"));
}

TEST(AuthdDeadline, EndsAWaitForTheConnection) {
    // A listener whose queue is full answers no connection attempt.
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(::bind(listener, generic, length), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    ASSERT_EQ(::getsockname(listener, generic, &length), 0);
    std::vector<int> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        // The first fill the queue; the others wait for room in it.
        EXPECT_TRUE(::connect(waiting.back(), generic, length) == 0 || errno == EINPROGRESS);
    }
    {
        const TimeBudget budget(200ms);
        const Outcome outcome = Try(ntohs(address.sin_port));
        EXPECT_EQ(outcome.kind, Outcome::Timeout);
        EXPECT_THAT(outcome.message, HasSubstr("connecting"));
    }
    for (const int descriptor : waiting) {
        ::close(descriptor);
    }
    ::close(listener);
}

TEST(AuthdDeadline, IsNotPutOffByADribblingHandshake) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.SetWire({.byteInterval = 50ms});
        connection.Serve();
    });
    const TimeBudget budget(500ms);
    const Outcome outcome = Try(server.GetPort());
    EXPECT_EQ(outcome.kind, Outcome::Timeout);
    EXPECT_THAT(outcome.message, HasSubstr("TLS handshake"));
}

TEST(AuthdDeadline, IsNotPutOffByADribblingAnswer) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Handshake();
        connection.ReadLine();
        for (int i = 0; i < 500; ++i) {  // each byte in a record of its own, so each is an answer of one byte
            connection.Send("2");
            std::this_thread::sleep_for(50ms);
            if (connection.IsGone()) {
                return;
            }
        }
    });
    const TimeBudget budget(1s);
    const Outcome outcome = Try(server.GetPort());
    EXPECT_EQ(outcome.kind, Outcome::Timeout);
    EXPECT_THAT(outcome.message, HasSubstr("reading"));
}

TEST(AuthdDeadline, IsNotPutOffByAPeerThatNeverStopsSending) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Handshake();
        connection.FloodWithTickets();
    });
    const TimeBudget budget(500ms);
    EXPECT_EQ(Try(server.GetPort()).kind, Outcome::Timeout);
}

TEST(AuthdDeadline, IsFiveSecondsAwayOutsideABudget) {
    TlsTestServer server(Silent);
    const auto start = Clock::now();
    EXPECT_EQ(Try(server.GetPort()).kind, Outcome::Timeout);
    EXPECT_GE(Clock::now() - start, 5s);
}

TEST(AuthdDeadline, MayHavePassedAlready) {
    TlsTestServer server([](ServedConnection& connection) { connection.Serve(); });
    const TimeBudget budget(0s);
    const Outcome first = Try(server.GetPort());
    EXPECT_EQ(first.kind, Outcome::Timeout);
    EXPECT_EQ(Try(server.GetPort()).message, first.message);
}

// Interrupts this thread's system calls every millisecond.
class Interrupting {
  public:
    Interrupting() {
        struct sigaction action {};
        action.sa_handler = [](int) { interrupted = 1; };  // and no SA_RESTART
        ::sigaction(SIGALRM, &action, &before);
        const itimerval often{{0, 1000}, {0, 1000}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Interrupting() {
        const itimerval never{};
        ::setitimer(ITIMER_REAL, &never, nullptr);
        ::sigaction(SIGALRM, &before, nullptr);
        EXPECT_EQ(interrupted, 1);
    }
    Interrupting(const Interrupting&) = delete;
    Interrupting& operator=(const Interrupting&) = delete;

  private:
    static inline volatile sig_atomic_t interrupted = 0;
    struct sigaction before {};
};

TEST(AuthdClient, IsNotDisturbedBySignals) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.SetWire({.byteInterval = 1ms});
        connection.Serve();
    });
    const Interrupting interrupting;
    const Outcome outcome = Try(server.GetPort());
    EXPECT_EQ(outcome.kind, Outcome::Opened) << outcome.message;
}

TEST(AuthdDeadline, IsKeptUnderSignals) {
    TlsTestServer server(Silent);
    const Interrupting interrupting;
    const TimeBudget budget(200ms);
    EXPECT_EQ(Try(server.GetPort()).kind, Outcome::Timeout);
    EXPECT_GE(Clock::now(), TimeBudget::Deadline());
}

TEST(AuthdPause, FailsTheNextTriesAtOnceWithTheSameMessage) {
    TlsTestServer server(Silent);
    Outcome first;
    {
        const TimeBudget budget(100ms);
        first = Try(server.GetPort());
    }
    ASSERT_EQ(first.kind, Outcome::Timeout);
    for (const char* host : {"localhost", "127.0.0.1"}) {
        const Outcome next = Try(server.GetPort(), host);
        EXPECT_EQ(next.kind, Outcome::Timeout);
        EXPECT_EQ(next.message, first.message);
    }
    EXPECT_EQ(server.GetAccepted(), 1);
}

TEST(AuthdPause, EndsAfterFiveSecondsHoweverOftenItWasTried) {
    bool fine = false;
    TlsTestServer server(
        [&](ServedConnection& connection) { fine ? void(connection.Serve()) : connection.StaySilent(); });
    {
        const TimeBudget budget(100ms);
        ASSERT_EQ(Try(server.GetPort()).kind, Outcome::Timeout);
    }
    server.WaitForScripts(1);
    fine = true;
    const auto start = Clock::now();
    int tries = 0;
    while (Try(server.GetPort()).kind == Outcome::Timeout) {
        ++tries;
        ASSERT_LT(Clock::now() - start, soon);
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_GT(tries, 1);
    EXPECT_GT(Clock::now() - start, 4s);
    EXPECT_EQ(Try(server.GetPort()).kind, Outcome::Opened);
}

TEST(AuthdPause, ConcernsNoOtherPort) {
    TlsTestServer silent(Silent);
    TlsTestServer fine([](ServedConnection& connection) { connection.Serve(); });
    {
        const TimeBudget budget(100ms);
        ASSERT_EQ(Try(silent.GetPort()).kind, Outcome::Timeout);
    }
    silent.WaitForScripts(1);
    EXPECT_EQ(Try(fine.GetPort()).kind, Outcome::Opened);
}

}  // namespace
}  // namespace Tessim
