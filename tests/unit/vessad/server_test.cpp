#include "tests/unit/vessad/server_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/system/error_code.hpp>
#include <cerrno>
#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "runtime/tessim/preamble.h"

namespace Vessad {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using VessadTest::Await;
using VessadTest::FilesIn;
using VessadTest::RawClient;
using VessadTest::ServerTest;

const std::string requestLine = "POST /tesk/api/ordane/ HTTP/1.1\r\n";

TEST_F(ServerTest, KeepsTheLoginsOfConnectionsApart) {
    RawClient first(port);
    RawClient second(port);
    EXPECT_NE(first.Open(), second.Open());
    EXPECT_EQ(first.LogIn(first.AcquireTicket()).status, 200);
    EXPECT_EQ(ListVms(first), 200);
    EXPECT_EQ(ListVms(second), 500);
    EXPECT_THAT(TicketFiles(), IsEmpty());
}

TEST_F(ServerTest, ServesClientsConcurrently) {
    std::atomic<int> served{0};
    std::deque<std::jthread> clients;
    for (int count = 0; count < 8; ++count) {
        clients.emplace_back([&] {
            for (int round = 0; round < 5; ++round) {
                const auto client = LoggedIn();
                for (int call = 0; call < 5; ++call) {
                    served += ListVms(*client) == 200 ? 1 : 0;
                }
            }
        });
    }
    clients.clear();
    EXPECT_EQ(served, 8 * 5 * 5);
    EXPECT_THAT(TicketFiles(), IsEmpty());
}

TEST_F(ServerTest, RequiresTls12) {
    EXPECT_FALSE(RawClient(port).Handshake(TLS1_1_VERSION));
    EXPECT_TRUE(RawClient(port).Handshake(TLS1_2_VERSION));
    EXPECT_TRUE(RawClient(port).Handshake(TLS1_3_VERSION));
}

TEST_F(ServerTest, RejectsOtherPreambles) {
    const std::string frame = "OPEN 2 \"\" \"\"\r\n";
    const std::string filler(Tessim::Authd::maxPreambleLine - frame.size(), 'x');
    EXPECT_THAT(RawClient(port).Open("OPEN 2 \"" + filler + "\" \"\"\r\n"), StartsWith("200 "));
    for (const auto& [line, reply] : std::vector<std::pair<std::string, std::string>>{
             {"OPEN 1 \"\" \"\"\r\n", "404 no service 1"},
             {"HELO\r\n", "400 expected OPEN <selector> \"<text>\" \"<text>\""},
             {"OPEN 2 \"" + filler + "x\" \"\"\r\n", "400 the line is too long"}}) {
        RawClient client(port);
        EXPECT_EQ(client.Open(line), reply);
        EXPECT_TRUE(client.IsClosed(5000));
    }
    EXPECT_THAT(log.GetText(), HasSubstr("preamble \"HELO\\x0d\\x0a\" rejected, closing: 400 "));
}

TEST_F(ServerTest, AcceptsARequestTogetherWithThePreamble) {
    RawClient client(port);
    const std::string request = "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n";
    EXPECT_THAT(client.Open("OPEN 2 \"\" \"\"\r\n" + request), StartsWith("200 "));
    EXPECT_EQ(client.Exchange("").status, 404);
}

// A request before the login, and the reply to it.
struct RequestCase {
    std::string name;
    std::string request;
    int status = 0;
    std::string reply = {};  // a part of header or body; empty: the connection is closed
};

void PrintTo(const RequestCase& request, std::ostream* stream) {
    *stream << request.name;
}

std::string Post(const std::string& body) {
    return requestLine + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string Repeat(const std::string& text, int count) {
    std::string repeated;
    for (int index = 0; index < count; ++index) {
        repeated += text;
    }
    return repeated;
}

class ServerRequestTest : public ServerTest, public ::testing::WithParamInterface<RequestCase> {};

TEST_P(ServerRequestTest, IsRejectedAndTheConnectionClosedIfItsEndIsUnknown) {
    const auto client = Opened();
    const auto reply = client->Exchange(GetParam().request);
    EXPECT_EQ(reply.status, GetParam().status);
    EXPECT_THAT(reply.header + reply.body, HasSubstr(GetParam().reply));
    if (GetParam().reply.empty()) {
        EXPECT_TRUE(client->IsClosed(5000));
        EXPECT_TRUE(AwaitLog("info Connection 1: request rejected, closing: "));
    } else {
        EXPECT_EQ(client->Call("ServiceInstance", "ServiceInstance", "RetrieveContent").status, 200);
    }
}

INSTANTIATE_TEST_SUITE_P(
    BeforeLogin, ServerRequestTest,
    ::testing::ValuesIn(std::vector<RequestCase>{
        {"OtherPath", "POST /other HTTP/1.1\r\nContent-Length: 2\r\n\r\nhi", 404,
         "The API is at /tesk/api/ordane/\n"},
        {"OtherMethod", "GET /tesk/api/ordane/ HTTP/1.1\r\n\r\n", 405, "Allow: POST\r\n"},
        {"NoBody", Post(""), 500, "<InvalidRequest"},
        {"LargestBody", Post(std::string(16384, ' ')), 500, "<InvalidRequest"},
        {"TooManyElements", Post("<Envelope><Body>" + Repeat("<x/>", 100) + "</Body></Envelope>"), 500,
         "more than 100 elements"},
        {"TooDeep", Post(Repeat("<x>", 17) + Repeat("</x>", 17)), 500, "nested deeper than 16"},
        {"NoHttp", "nonsense\r\n\r\n", 400},
        {"NegativeLength", requestLine + "Content-Length: -1\r\n\r\n", 400},
        {"TwoLengths", requestLine + "Content-Length: 1\r\nContent-Length: 2\r\n\r\nxx", 400},
        {"BadChunk", requestLine + "Transfer-Encoding: chunked\r\n\r\nzz\r\n", 400},
        {"LargeHeader", requestLine + "X: " + std::string(9000, 'x') + "\r\n\r\n", 431},
        {"LargeBody", requestLine + "Content-Length: 16385\r\n\r\n", 413}}),
    [](const auto& info) { return info.param.name; });

TEST_F(ServerTest, AcceptsLargerRequestsAfterLogin) {
    const auto client = LoggedIn();
    EXPECT_EQ(client->Post(std::string(1024UL * 1024, ' ')).status, 500);
    EXPECT_EQ(client->Post(Repeat("<x>", 100'000) + Repeat("</x>", 100'000)).status, 500);
    EXPECT_EQ(ListVms(*client), 200);
    EXPECT_EQ(client->Exchange(requestLine + "Content-Length: 8388609\r\n\r\n").status, 413);
}

TEST_F(ServerTest, RemovesTheTicketOfAClosedConnection) {
    auto client = Opened();
    EXPECT_NE(client->AcquireTicket(), "");
    EXPECT_EQ(TicketFiles().size(), 1U);
    client.reset();
    EXPECT_TRUE(Await([&] { return TicketFiles().empty(); }));
}

TEST_F(ServerTest, DelaysTheReplyToARejectedLoginWithoutBlockingOthers) {
    StartServer({.rejectedLogin = 300ms});
    const auto other = LoggedIn();
    std::atomic<int> rejected{0};
    std::atomic<int> early{0};
    std::deque<std::jthread> guessers;
    for (int count = 0; count < 12; ++count) {  // more than the server has threads
        guessers.emplace_back([&] {
            const auto guesser = Opened();
            const auto start = steady_clock::now();
            rejected += guesser->LogIn("guess").status == 500 ? 1 : 0;
            early += steady_clock::now() - start < 300ms ? 1 : 0;
        });
    }
    int served = 0;
    while (rejected == 0) {
        served += ListVms(*other) == 200 ? 1 : 0;
    }
    guessers.clear();
    EXPECT_GT(served, 0);
    EXPECT_EQ(rejected, 12);
    EXPECT_EQ(early, 0);
}

TEST_F(ServerTest, ClosesConnectionsThatTimeOut) {
    StartServer({.preamble = 100ms, .login = 200ms});
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int count = 0; count < 3; ++count) {
        clients.push_back(std::make_unique<RawClient>(port));
    }
    clients[1]->SendRaw("\x16\x03\x01");
    clients[2]->Handshake();
    clients.push_back(Opened());
    clients.push_back(Opened());
    clients.back()->Send(requestLine);
    for (const auto& client : clients) {
        EXPECT_TRUE(client->IsClosed(5000));
    }
    for (const std::string step : {"TLS handshake", "preamble", "wait for a request", "request"}) {
        EXPECT_TRUE(AwaitLog(": " + step + " timed out, closing\n")) << step;
    }
}

TEST_F(ServerTest, ClosesASlowSenderHoweverSteadyItIs) {
    StartServer({.login = 300ms});
    const auto client = Opened();
    const std::string request = requestLine + "X: " + std::string(4000, 'x');
    bool closed = false;
    for (std::size_t at = 0; at < request.size() && !closed; ++at) {
        client->Send(request.substr(at, 1));
        closed = client->IsClosed(10);
    }
    EXPECT_TRUE(closed);
}

TEST_F(ServerTest, KeepsAnIdleSessionButLimitsItsRequests) {
    StartServer({.preamble = 100ms, .login = 150ms, .request = 150ms});
    const auto client = LoggedIn();
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(ListVms(*client), 200);
    client->Send("POST /tesk/");
    EXPECT_TRUE(client->IsClosed(5000));
}

TEST_F(ServerTest, LimitsTheTimeBetweenLogoutAndNextLogin) {
    StartServer({.login = 300ms});
    const auto client = LoggedIn();
    EXPECT_EQ(client->Call("SessionManager", "ha-sessionmgr", "Logout").status, 200);
    EXPECT_EQ(ListVms(*client), 500);
    EXPECT_TRUE(client->IsClosed(5000));
}

// A server beside more connections than it has places for.
class CrowdedServerTest : public ServerTest {
  protected:
    void SetUp() override {
        options.connections = RaiseFileLimit();  // both ends are in this process
        rlimit files{};
        ::getrlimit(RLIMIT_NOFILE, &files);
        files.rlim_cur = std::min<rlim_t>(files.rlim_max, 16384);
        ::setrlimit(RLIMIT_NOFILE, &files);
        ServerTest::SetUp();
    }

    void ExpectService() const { EXPECT_EQ(ListVms(*LoggedIn()), 200); }

    static std::size_t OpenFiles() { return FilesIn("/proc/self/fd").size(); }

    std::vector<std::unique_ptr<RawClient>> crowd;
};

TEST_F(CrowdedServerTest, ServesClientsBesideTwoThousandIdleAndSlowConnections) {
    const auto before = LoggedIn();
    for (int count = 0; count < 2000; ++count) {
        crowd.push_back(std::make_unique<RawClient>(port));
    }
    ExpectService();
    for (auto& client : crowd) {
        client = std::make_unique<RawClient>(port);
        client->Open();
        client->Send("P");
    }
    ExpectService();
    EXPECT_EQ(ListVms(*before), 200);
}

TEST_F(CrowdedServerTest, ServesClientsWhileOthersConnectEndlessly) {
    std::atomic<bool> stop{false};
    std::atomic<int> connected{0};
    std::jthread flood([&] {
        std::deque<std::unique_ptr<RawClient>> open;
        while (!stop) {
            open.push_back(std::make_unique<RawClient>(port));
            ++connected;
            if (open.size() > 1500) {
                open.pop_front();
            }
        }
    });
    while (connected < 3000) {
        ExpectService();
    }
    stop = true;
}

TEST_F(CrowdedServerTest, RecoversFromRunningOutOfFiles) {
    constexpr std::size_t crowdSize = 40;
    const std::size_t before = OpenFiles();
    ExpectService();
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    for (std::size_t count = 0; count < crowdSize; ++count) {
        crowd.push_back(std::make_unique<RawClient>(port));
    }
    ASSERT_TRUE(Await([&] { return OpenFiles() == before + 2 * crowdSize; }));
    // A sanitizer needs a descriptor to look at an object whose type it sees for the first time.
    ASSERT_TRUE(boost::system::error_code(EMFILE, boost::system::system_category()).failed());
    // One descriptor is left: connecting takes it, and accepting finds none.
    const int next = ::dup(0);
    ::close(next);
    const rlimit tight{static_cast<rlim_t>(next) + 1, files.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &tight);
    {
        RawClient starved(port);
        EXPECT_TRUE(AwaitLog("warning Cannot accept connections, evicting those without a login: "));
    }
    ::setrlimit(RLIMIT_NOFILE, &files);
    ExpectService();
}

TEST_F(ServerTest, ClosesEverythingWhenItStops) {
    RawClient silent(port);
    const auto waiting = Opened();
    EXPECT_NE(waiting->AcquireTicket(), "");
    const auto session = LoggedIn();
    server->Stop();
    EXPECT_TRUE(silent.IsClosed(5000));
    EXPECT_TRUE(waiting->IsClosed(5000));
    EXPECT_TRUE(session->IsClosed(5000));
    EXPECT_THAT(TicketFiles(), IsEmpty());
    EXPECT_THROW(RawClient{port}, std::runtime_error);
    server->Stop();
}

TEST_F(ServerTest, StopsWhileClientsAreBusy) {
    std::atomic<bool> stop{false};
    std::deque<std::jthread> clients;
    for (int count = 0; count < 4; ++count) {
        clients.emplace_back([&] {
            while (!stop) {
                try {
                    RawClient client(port);
                    client.Open();
                    client.LogIn(client.AcquireTicket());
                    ListVms(client);
                } catch (const std::runtime_error&) {
                    // cannot connect after the stop
                }
            }
        });
    }
    std::this_thread::sleep_for(200ms);
    server->Stop();
    EXPECT_THAT(TicketFiles(), IsEmpty());
    stop = true;
    clients.clear();
}

TEST_F(ServerTest, NamesAddressAndReasonWhenItCannotListen) {
    ServerOptions second = options;
    second.listen = server->GetEndpoint();
    EXPECT_THAT([&] { Server(second, backend); },
                ::testing::ThrowsMessage<std::runtime_error>(
                    HasSubstr("cannot listen on 127.0.0.1 port " + std::to_string(port) + ": ")));
}

}  // namespace
}  // namespace Vessad
