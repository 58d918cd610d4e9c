#include "runtime/tessim/authd.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "runtime/tessim/crypto.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/file_descriptor.h"
#include "runtime/tessim/peer.h"
#include "runtime/tessim/ssl.h"
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
using ::testing::ContainsRegex;
using ::testing::StartsWith;

// How an attempt to open a stream ends: "opened", or the kind and the message of the failure.
std::string Try(std::uint16_t port, const std::string& host = "localhost") {
    const auto descriptors = OpenDescriptors(0, port);
    const auto start = Clock::now();
    std::string outcome = "opened";
    try {
        OpenStream(port, host);
    } catch (const TimeoutException& thrown) {
        outcome = std::string("timeout: ") + thrown.what();
    } catch (const StreamException& thrown) {
        outcome = std::string("error: ") + thrown.what();
    }
    EXPECT_LT(Clock::now() - start, soon);
    EXPECT_EQ(OpenDescriptors(0, port), descriptors) << "a descriptor leaked";
    EXPECT_EQ(ERR_peek_error(), 0U) << "OpenSSL's errors were left in the queue";
    return outcome;
}

Ref<Authd::Client> MakeTrustingClient(const std::string& certificate) {
    Ref<Crypto::KeyStore> keys;
    Crypto::CreateKeyStore("", "", {certificate}, keys);
    Ref<Ssl::SSLContext> context;
    Ssl::CreateSSLContext(keys.Get(), Ssl::SupportedVersion::Tls12OrNewer, context);
    Ref<Authd::Client> client;
    Authd::CreateClient(context.Get(), client);
    return client;
}

void Serve(ServedConnection& connection) {
    connection.Serve();
}

TEST(AuthdClient, RequestsTheServiceAndOpensTheStreamBehindTheReply) {
    std::string line;
    TlsTestServer server([&](ServedConnection& connection) {
        line = connection.ReadLine();
        connection.Send("200 /c\r\nHTTP/1.1 200 OK\r\n\r\n");
        connection.StaySilent();
    });
    const auto inherited = OpenDescriptors(FD_CLOEXEC, server.GetPort()).size();
    const auto client = MakeClient();
    ERR_raise(ERR_LIB_USER, 1);  // an error that somebody else left in the queue
    auto stream = OpenStream(server.GetPort(), "127.0.0.1", client, "first text", "~second");
    EXPECT_EQ(ERR_peek_error(), 0U);
    EXPECT_EQ(OpenDescriptors(FD_CLOEXEC, server.GetPort()).size(), inherited + 1);
    const auto* service = NarrowToType<Authd::ServiceStream>(stream);
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->GetConnectionPath(), "/c");
    EXPECT_EQ(service->GetPeerOwner(), ::getuid());
    EXPECT_TRUE(stream->IsOwn());
    EXPECT_EQ(ReadBytes(*stream, 19), "HTTP/1.1 200 OK\r\n\r\n");
    stream.Reset();
    server.WaitForScripts(1);
    EXPECT_EQ(line, "OPEN 2 \"first text\" \"~second\"\r\n");
}

TEST(AuthdClient, AcceptsOnlyAPeerThatTheTrustedCertificatesVouchFor) {
    TlsTestServer server(Serve);
    EXPECT_TRUE(OpenStream(server.GetPort(), "localhost", MakeTrustingClient(server.GetCertificate())));
    const auto other = MakeTrustingClient(KelvTest::Identity().certificate);
    EXPECT_THAT(MessageOf<StreamException>([&] { OpenStream(server.GetPort(), "localhost", other); }),
                ContainsRegex("TLS handshake.*self-signed certificate"));
}

TEST(AuthdClient, RejectsInvalidArgumentsWithoutAConnection) {
    Ref<Authd::Client> client;
    EXPECT_THROW(Authd::CreateClient(nullptr, client), InvalidArgumentException);
    TlsTestServer server(Serve);
    client = MakeClient();
    EXPECT_THROW(OpenStream(server.GetPort(), "localhost", client, "", "a\"b"), InvalidArgumentException);
    for (const char* host :
         {"localhost.", "example.org", "", "127.1", "1.2.3", "::1%lo", "[::1]", "LOCALHOST"}) {
        EXPECT_THROW(OpenStream(server.GetPort(), host, client), InvalidArgumentException) << host;
    }
    EXPECT_EQ(server.GetAccepted(), 0);
}

// Interrupts this thread's system calls every millisecond.
class Interrupting {
  public:
    Interrupting() {
        struct sigaction action {};
        action.sa_handler = [](int) { interrupted = 1; };  // and no SA_RESTART
        ::sigaction(SIGALRM, &action, &before);
        ::ualarm(1000, 1000);
    }
    ~Interrupting() {
        ::ualarm(0, 0);
        ::sigaction(SIGALRM, &before, nullptr);
        EXPECT_EQ(interrupted, 1);
    }
    Interrupting(const Interrupting&) = delete;
    Interrupting& operator=(const Interrupting&) = delete;

  private:
    static inline volatile sig_atomic_t interrupted = 0;
    struct sigaction before {};
};

// What a server does, and how an attempt to open a stream to it ends.
struct Attempt {
    const char* name;
    TlsTestServer::Script script;
    const char* outcome;                      // a regular expression for a part of it
    std::chrono::milliseconds budget = soon;  // over at the end of an attempt that times out, and of no other
    int newestVersion = 0;
    bool interrupted = false;
};

class AuthdAttempt : public testing::TestWithParam<Attempt> {};

TEST_P(AuthdAttempt, OpensAStreamOrThrowsTheKindAndMessageOfItsFailure) {
    const Attempt& attempt = GetParam();
    TlsTestServer server(attempt.script, attempt.newestVersion);
    std::optional<Interrupting> interrupting;
    if (attempt.interrupted) {
        interrupting.emplace();
    }
    const TimeBudget budget(attempt.budget);
    const std::string outcome = Try(server.GetPort());
    EXPECT_THAT(outcome, ContainsRegex(attempt.outcome));
    EXPECT_EQ(Clock::now() >= TimeBudget::Deadline(), outcome.starts_with("timeout"));
}

TlsTestServer::Script SlowlyByteByByte(std::chrono::microseconds interval) {
    return [interval](ServedConnection& connection) {
        connection.SetWire({.byteInterval = interval});
        connection.Serve();
    };
}

const Attempt attempts[] = {
    {"UnderSignals", SlowlyByteByByte(1ms), "^opened$", soon, 0, true},
    {"WithTls12", Serve, "^opened$", soon, TLS1_2_VERSION},
    {"WithTls11", Serve, "^error: .*TLS handshake.*version", soon, TLS1_1_VERSION},
    {"WithTls10", Serve, "^error: .*TLS handshake.*version", soon, TLS1_VERSION},
    {"WithoutTls",
     [](ServedConnection& connection) {
         connection.SendRaw("HTTP/1.0 400 Bad Request\r\n\r\n");
         connection.StaySilent();
     },
     "^error: localhost:[0-9]+: TLS handshake: .*wrong version number"},
    {"ThatIsClosedBeforeTheReply",
     [](ServedConnection& connection) {
         connection.ReadLine();
         connection.Send("200 /c");
         SSL_shutdown(connection.GetNative());
     },
     "^error: localhost:[0-9]+: no authentication service: it closed the connection without a reply$"},
    {"WithoutAHandshakeUnderSignals", &ServedConnection::StaySilent, "^timeout: .*TLS handshake", 200ms, 0,
     true},
    {"WithAnEndlessHandshake", SlowlyByteByByte(50ms), "^timeout: .*TLS handshake", 500ms},
    {"WithAnEndlessReply",
     [](ServedConnection& connection) {
         connection.ReadLine();
         while (connection.Send("2")) {  // each byte in a record of its own
             std::this_thread::sleep_for(50ms);
         }
     },
     "^timeout: .*reading", 1s},
    {"WithEndlessRecordsWithoutData",
     [](ServedConnection& connection) {
         ssl_st* const tls = connection.GetNative();
         SSL_do_handshake(tls);
         while (SSL_new_session_ticket(tls) == 1 && SSL_do_handshake(tls) > 0) {
         }
     },
     "^timeout: ", 500ms},
    {"WithoutTime", Serve, "^timeout: ", 0ms},
};

INSTANTIATE_TEST_SUITE_P(Authd, AuthdAttempt, testing::ValuesIn(attempts),
                         [](const auto& tested) { return std::string(tested.param.name); });

// The TLS version, and whether the connection is cut by a reset.
class BrokenOff : public testing::TestWithParam<std::tuple<int, bool>> {};

TEST_P(BrokenOff, IsAStreamErrorAtEveryByte) {
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
    ASSERT_EQ(Try(server.GetPort()), "opened");
    server.WaitForScripts(1);
    ASSERT_TRUE(served);
    ASSERT_GT(sent, 500U);
    // Signatures and session tickets differ in length from one handshake to the next.
    const std::size_t end = sent + 40;
    wire.reset = reset;
    for (wire.limit = 0; wire.limit < end; ++wire.limit) {
        const int before = server.GetAccepted();
        const std::string outcome = Try(server.GetPort());
        server.WaitForScripts(before + 1);
        // A reset may overtake a reply that was sent whole.
        ASSERT_THAT(outcome, ContainsRegex(!served ? "^error"
                                           : reset ? "^(opened|error)"
                                                   : "^opened"))
            << "after " << wire.limit << " bytes";
    }
}

INSTANTIATE_TEST_SUITE_P(Authd, BrokenOff,
                         testing::Combine(testing::Values(TLS1_2_VERSION, TLS1_3_VERSION), testing::Bool()));

TEST(AuthdClient, ReportsThatNobodyListensAndLeavesTheHandleAsItWas) {
    TlsTestServer server(Serve);
    Ref<System::Stream> stream = OpenStream(server.GetPort());
    const System::Stream* const before = stream.Get();
    const auto port = FreePort();
    for (int i = 0; i < 2; ++i) {  // without a backoff
        EXPECT_EQ(MessageOf<StreamException>([&] {
                      MakeClient()->Open(Authd::Selector::ManagementApi, "localhost", port, "", "", stream);
                  }),
                  "cannot connect to localhost:" + std::to_string(port) + ": Connection refused");
        EXPECT_EQ(stream.Get(), before);
    }
}

TEST(AuthdClient, SendsNothingToAPeerOfAnotherUser) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    constexpr uid_t other = 65534;
    std::string line = "none";
    TlsTestServer server([&](ServedConnection& connection) {
        if (::setfsuid(other) == 0) {  // of this thread, from its next connection on
            connection.Serve();
        } else {
            line = connection.ReadLine();
        }
    });
    EXPECT_EQ(Try(server.GetPort()), "opened");
    const std::string name = "localhost:" + std::to_string(server.GetPort());
    EXPECT_EQ(MessageOf<SystemException>([&] { OpenStream(server.GetPort()); }),
              name + " belongs to user 65534, who does not run the daemon");
    server.WaitForScripts(2);
    EXPECT_EQ(line, "");
}

TEST(AuthdClient, ThrowsWithoutADescriptor) {
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const auto client = MakeClient();
    // The same calls and exceptions once with descriptors: the sanitizer needs some when it first meets a
    // type.
    EXPECT_THROW(OpenStream(FreePort(), "localhost", client), StreamException);
    Ref<System::Stream> stream;
    EXPECT_THROW(System::GetSystemFactory()->OpenSecretFile("", {}, stream), SystemException);
    rlimit none = limit;
    none.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_THROW(OpenStream(902, "localhost", client), SystemException);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST(AuthdClient, ConnectsOverIpv6) {
    std::uint16_t port = 0;
    const FileDescriptor listener = KelvTest::BindLoopback(port, AF_INET6);
    if (!listener) {
        GTEST_SKIP() << "no IPv6 here";
    }
    ASSERT_EQ(::listen(listener.Get(), 1), 0);
    const TimeBudget budget(100ms);
    EXPECT_EQ(Try(port, "::1"),
              "timeout: [::1]:" + std::to_string(port) + ": no reply in time (TLS handshake)");
}

TEST(AuthdDeadline, EndsAWaitForTheConnection) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::uint16_t port = 0;
    const FileDescriptor listener = KelvTest::BindLoopback(port);
    address.sin_port = htons(port);
    ASSERT_EQ(::listen(listener.Get(), 0), 0);
    std::vector<FileDescriptor> waiting;
    for (int i = 0; i < 4; ++i) {
        // The first fill the listener's queue; the others wait for room in it.
        waiting.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
        EXPECT_TRUE(::connect(waiting.back().Get(), generic, sizeof address) == 0 || errno == EINPROGRESS);
    }
    const TimeBudget budget(200ms);
    EXPECT_THAT(Try(port), ContainsRegex("^timeout: .*connecting"));
}

TEST(Backoff, DoublesWithEachTimeoutUpTo20SecondsUntilAMinuteWithoutOne) {
    Backoff backoff;
    Clock::time_point now{1h};
    EXPECT_FALSE(backoff.IsActive(now));
    const std::chrono::nanoseconds minute = 1min;
    for (const auto& [length, next] : {std::pair{5s, minute},
                                       {10s, minute},
                                       {20s, minute},
                                       {20s, minute + 1ns},
                                       {5s, minute},
                                       {10s, minute}}) {
        backoff.Start(now, "late");
        EXPECT_TRUE(backoff.IsActive(now + length - 1ns));
        EXPECT_FALSE(backoff.IsActive(now + length));
        EXPECT_EQ(backoff.GetMessage(), "late");
        now += length + next;
    }
}

TEST(Backoff, EndsAfterFiveSecondsOnceForAReplyAndOnceForTheEndOfTheConnection) {
    using namespace std::string_literals;
    Backoff backoff;
    Clock::time_point now{1h};
    backoff.Start(now, "late");
    now += 5s;
    const auto descriptors = OpenDescriptors();
    for (const auto& [calm, sign, pause] : {std::tuple{0s, "nothing"s, 10s},
                                            {0s, "reply"s, 5s},
                                            {20s, "reply"s, 20s},
                                            {0s, "end"s, 5s},
                                            {20s, "end"s, 20s},
                                            {21s, "end"s, 5s},
                                            {0s, "reply"s, 5s},
                                            {61s, "nothing"s, 5s}}) {
        now += calm;
        std::array<int, 2> ends{};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        FileDescriptor peer(ends[1]);
        backoff.Start(now, "late", FileDescriptor(ends[0]));
        if (sign == "reply") {
            ASSERT_EQ(::write(peer.Get(), "x", 1), 1);
        } else if (sign == "end") {
            peer.Close();
        }
        ExpectInChild([&, isFirst = calm == 61s] { return backoff.IsActive(now + 5s) || isFirst; });
        EXPECT_TRUE(backoff.IsActive(now + pause - 1ns)) << sign;
        EXPECT_FALSE(backoff.IsActive(now + pause)) << sign;
        now += pause;
        peer.Close();
        EXPECT_EQ(OpenDescriptors(), descriptors) << sign;
    }
}

TEST(AuthdBackoff, EndsWhenThePeerGoesOn) {
    std::atomic<bool> goesOn = false;
    TlsTestServer server([&](ServedConnection& connection) {
        while (!goesOn) {
            std::this_thread::sleep_for(10ms);
        }
        Serve(connection);
    });
    const auto opens = [&] {
        const TimeBudget budget(1s);
        try {
            return OpenStream(server.GetPort()).Get() != nullptr;
        } catch (const TimeoutException&) {
            return false;
        }
    };
    EXPECT_FALSE(opens());
    std::this_thread::sleep_for(5s);
    EXPECT_FALSE(opens());
    const auto start = Clock::now();  // of a backoff of 10 s
    goesOn = true;
    while (!opens()) {
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_LT(Clock::now() - start, 9s);
}

TEST(AuthdBackoff, FailsAttemptsAtThatPortAtOnceWithTheSameMessageForFiveSeconds) {
    bool isSilent = true;
    TlsTestServer server(
        [&](ServedConnection& connection) { isSilent ? connection.StaySilent() : Serve(connection); });
    std::string first;
    {
        const TimeBudget budget(100ms);
        first = Try(server.GetPort());
    }
    const auto start = Clock::now();
    ASSERT_THAT(first, StartsWith("timeout"));
    server.WaitForScripts(1);
    isSilent = false;

    TlsTestServer other(Serve);
    EXPECT_EQ(Try(other.GetPort()), "opened");
    while (Clock::now() - start < 4s) {  // attempts prolong nothing
        for (const char* host : {"localhost", "127.0.0.1"}) {
            EXPECT_EQ(Try(server.GetPort(), host), first);
        }
        EXPECT_EQ(server.GetAccepted(), 1);
        std::this_thread::sleep_for(100ms);
    }
    std::string last;
    while ((last = Try(server.GetPort())) == first && Clock::now() - start < soon) {
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_EQ(last, "opened");
}

}  // namespace
}  // namespace Tessim
