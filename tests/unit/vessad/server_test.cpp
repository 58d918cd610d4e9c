#include "apps/vessad/Server.h"

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
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "runtime/tessim/preamble.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/raw_client.h"
#include "tests/unit/vessad/sample_host.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using VessadTest::FilesIn;
using VessadTest::RawClient;
using VessadTest::ReadAll;

const std::string requestLine = "POST /tesk/api/ordane/ HTTP/1.1\r\n";

class ServerTest : public ::testing::Test {
  protected:
    void StartServer() {
        options.listen = ParseListenAddress("127.0.0.1:0");
        options.tickets.directory = directory.GetPath() / "tickets";
        server = std::make_unique<Server>(options, backend);
        server->Start();
        port = server->GetEndpoint().port();
    }

    static bool Await(const std::function<bool()>& condition) {
        for (int tries = 0; tries < 500; ++tries) {
            if (condition()) {
                return true;
            }
            std::this_thread::sleep_for(10ms);
        }
        return false;
    }

    bool AwaitLog(const std::string& text) const {
        return Await([&] { return log.GetText().find(text) != std::string::npos; });
    }

    std::vector<std::string> TicketFiles() const { return FilesIn(options.tickets.directory); }

    // A client whose preamble has been accepted.
    std::unique_ptr<RawClient> Opened() const {
        auto client = std::make_unique<RawClient>(port);
        EXPECT_THAT(client->Open(), StartsWith("200 /ordane/connection/"));
        return client;
    }

    // A client that has logged in.
    std::unique_ptr<RawClient> LoggedIn() const {
        auto client = Opened();
        EXPECT_EQ(client->LogIn(ReadAll(client->AcquireTicket())), 200);
        return client;
    }

    static int ListVms(RawClient& client) {
        return client.Call("Folder", "ha-folder-vm", "GetChildEntity").status;
    }

    VessadTest::LogLines log;
    VessadTest::TemporaryDirectory directory;
    VessadTest::TestBackend backend;
    ServerOptions options;
    std::unique_ptr<Server> server;
    std::uint16_t port = 0;
};

TEST_F(ServerTest, KeepsTheLoginsOfConnectionsApart) {
    StartServer();
    RawClient first(port);
    RawClient second(port);
    EXPECT_NE(first.Open(), second.Open());
    const std::string password = ReadAll(first.AcquireTicket());
    EXPECT_EQ(first.LogIn(password), 200);
    EXPECT_EQ(ListVms(first), 200);
    EXPECT_EQ(ListVms(second), 500);
    EXPECT_THAT(TicketFiles(), IsEmpty());
}

TEST_F(ServerTest, ServesClientsConcurrently) {
    StartServer();
    std::atomic<int> served{0};
    std::vector<std::thread> clients;
    constexpr std::size_t clientCount = 8;
    clients.reserve(clientCount);
    while (clients.size() < clientCount) {
        clients.emplace_back([&] {
            for (int round = 0; round < 5; ++round) {
                const auto client = LoggedIn();
                for (int call = 0; call < 5; ++call) {
                    served += ListVms(*client) == 200 ? 1 : 0;
                }
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(served, 8 * 5 * 5);
    EXPECT_THAT(TicketFiles(), IsEmpty());
}

TEST_F(ServerTest, RequiresTls12) {
    StartServer();
    EXPECT_FALSE(RawClient(port).Handshake(TLS1_1_VERSION));
    EXPECT_TRUE(RawClient(port).Handshake(TLS1_2_VERSION));
    EXPECT_TRUE(RawClient(port).Handshake(TLS1_3_VERSION));
}

TEST_F(ServerTest, RejectsOtherPreambles) {
    StartServer();
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
    StartServer();
    RawClient client(port);
    const std::string request = "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n";
    EXPECT_THAT(client.Open("OPEN 2 \"\" \"\"\r\n" + request), StartsWith("200 "));
    EXPECT_EQ(client.Exchange("").status, 404);
}

TEST_F(ServerTest, AllowsOnlyTicketLoginAndServiceContentBeforeLogin) {
    StartServer();
    const auto client = Opened();
    EXPECT_THAT(client->Call("ServiceInstance", "ServiceInstance", "RetrieveContent").body,
                HasSubstr("1.2.3"));
    for (const auto& [type, id, method] : std::vector<std::array<std::string, 3>>{
             {"Folder", "ha-folder-vm", "GetChildEntity"},
             {"VirtualMachine", "16", "GetConfig"},
             {"VirtualMachine", "gone", "GetConfig"},
             {"VirtualMachine", "16", "NoSuchMethod"},
             {"Datastore", "ds-1", "GetInfo"},
             {"HostSystem", "ha-host", "GetHardware"},
             {"MemoryManagerSystem", "memoryManagerSystem", "GetConsoleReservationInfo"},
             {"PerformanceManager", "ha-perfmgr", "GetPerfCounter"},
             {"PerformanceManager", "ha-perfmgr", "QueryPerf"},
             {"SessionManager", "ha-sessionmgr", "Logout"}}) {
        const auto reply = client->Call(type, id, method);
        EXPECT_EQ(reply.status, 500) << method;
        EXPECT_THAT(reply.body, HasSubstr("<NotAuthenticated")) << method;
        EXPECT_THAT(reply.body, Not(HasSubstr("web"))) << method;
    }
}

// A request before the login, and the reply to it.
struct RequestCase {
    std::string name;
    std::string request;
    int status = 0;
    std::string reply;  // a part of header or body
    bool closes = false;
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
    StartServer();
    const auto client = Opened();
    const auto reply = client->Exchange(GetParam().request);
    EXPECT_EQ(reply.status, GetParam().status);
    EXPECT_THAT(reply.header + reply.body, HasSubstr(GetParam().reply));
    if (GetParam().closes) {
        EXPECT_TRUE(client->IsClosed(5000));
        EXPECT_TRUE(AwaitLog("info Connection 1: request rejected, closing: "));
    } else {
        EXPECT_EQ(client->Call("ServiceInstance", "ServiceInstance", "RetrieveContent").status, 200);
    }
}

INSTANTIATE_TEST_SUITE_P(
    BeforeLogin, ServerRequestTest,
    ::testing::Values(
        RequestCase{"OtherPath", "POST /other HTTP/1.1\r\nContent-Length: 2\r\n\r\nhi", 404,
                    "The API is at /tesk/api/ordane/\n"},
        RequestCase{"OtherMethod", "GET /tesk/api/ordane/ HTTP/1.1\r\n\r\n", 405, "Allow: POST\r\n"},
        RequestCase{"NoBody", Post(""), 500, "<InvalidRequest"},
        RequestCase{"NoXml", Post("nonsense"), 500, "<InvalidRequest"},
        RequestCase{"NoEnvelope", Post("<a/>"), 500, "<InvalidRequest"},
        RequestCase{"DocumentType", Post("<!DOCTYPE a><a/>"), 500, "<InvalidRequest"},
        RequestCase{"LargestBody", Post(std::string(16384, ' ')), 500, "<InvalidRequest"},
        RequestCase{"TooManyElements", Post("<Envelope><Body>" + Repeat("<x/>", 100) + "</Body></Envelope>"),
                    500, "more than 100 elements"},
        RequestCase{"TooDeep", Post(Repeat("<x>", 17) + Repeat("</x>", 17)), 500, "nested deeper than 16"},
        RequestCase{"NoHttp", "nonsense\r\n\r\n", 400, "", true},
        RequestCase{"NegativeLength", requestLine + "Content-Length: -1\r\n\r\n", 400, "", true},
        RequestCase{"TwoLengths", requestLine + "Content-Length: 1\r\nContent-Length: 2\r\n\r\nxx", 400, "",
                    true},
        RequestCase{"BadChunk", requestLine + "Transfer-Encoding: chunked\r\n\r\nzz\r\n", 400, "", true},
        RequestCase{"LargeHeader", requestLine + "X: " + std::string(9000, 'x') + "\r\n\r\n", 431, "", true},
        RequestCase{"LargeBody", requestLine + "Content-Length: 16385\r\n\r\n", 413, "", true}),
    [](const auto& info) { return info.param.name; });

TEST_F(ServerTest, AcceptsLargerRequestsAfterLogin) {
    StartServer();
    const auto client = LoggedIn();
    EXPECT_EQ(client->Post(std::string(1024UL * 1024, ' ')).status, 500);
    EXPECT_EQ(client->Post(Repeat("<x>", 100'000) + Repeat("</x>", 100'000)).status, 500);
    EXPECT_EQ(ListVms(*client), 200);
    EXPECT_EQ(client->Exchange(requestLine + "Content-Length: 8388609\r\n\r\n").status, 413);
}

TEST_F(ServerTest, RemovesTheTicketOfAClosedConnection) {
    StartServer();
    auto client = Opened();
    EXPECT_NE(client->AcquireTicket(), "");
    EXPECT_EQ(TicketFiles().size(), 1U);
    client.reset();
    EXPECT_TRUE(Await([&] { return TicketFiles().empty(); }));
}

TEST_F(ServerTest, DelaysTheReplyToARejectedLoginWithoutBlockingOthers) {
    options.timeouts.rejectedLogin = 300ms;
    StartServer();
    const auto other = LoggedIn();
    std::atomic<int> rejected{0};
    std::atomic<int> early{0};
    std::vector<std::thread> threads;
    constexpr std::size_t guesserCount = 12;  // more than the server has threads
    threads.reserve(guesserCount);
    while (threads.size() < guesserCount) {
        threads.emplace_back([&] {
            const auto guesser = Opened();
            const auto start = steady_clock::now();
            rejected += guesser->LogIn("guess") == 500 ? 1 : 0;
            early += steady_clock::now() - start < 300ms ? 1 : 0;
        });
    }
    int served = 0;
    while (rejected == 0) {
        served += ListVms(*other) == 200 ? 1 : 0;
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(served, 0);
    EXPECT_EQ(rejected, 12);
    EXPECT_EQ(early, 0);
}

TEST_F(ServerTest, ClosesConnectionsThatTimeOut) {
    options.timeouts.preamble = 100ms;
    options.timeouts.login = 200ms;
    StartServer();
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
    options.timeouts.login = 300ms;
    StartServer();
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
    options.timeouts.preamble = 100ms;
    options.timeouts.login = 150ms;
    options.timeouts.request = 150ms;
    StartServer();
    const auto client = LoggedIn();
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(ListVms(*client), 200);
    client->Send("POST /tesk/");
    EXPECT_TRUE(client->IsClosed(5000));
}

TEST_F(ServerTest, LimitsTheTimeBetweenLogoutAndNextLogin) {
    options.timeouts.login = 300ms;
    StartServer();
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
        StartServer();
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
    for (int count = 0; count < 2000; ++count) {
        crowd[static_cast<std::size_t>(count)] = std::make_unique<RawClient>(port);
        crowd[static_cast<std::size_t>(count)]->Open();
        crowd[static_cast<std::size_t>(count)]->Send("P");
        if (count % 500 == 0) {
            ExpectService();
        }
    }
    ExpectService();
    EXPECT_EQ(ListVms(*before), 200);
}

TEST_F(CrowdedServerTest, ServesClientsWhileOthersConnectEndlessly) {
    std::atomic<bool> stop{false};
    std::atomic<int> connected{0};
    std::thread flood([&] {
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
    flood.join();
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
    StartServer();
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
    StartServer();
    std::atomic<bool> stop{false};
    std::vector<std::thread> clients;
    constexpr std::size_t clientCount = 4;
    clients.reserve(clientCount);
    while (clients.size() < clientCount) {
        clients.emplace_back([&] {
            while (!stop) {
                try {
                    RawClient client(port);
                    client.Open();
                    client.LogIn(ReadAll(client.AcquireTicket()));
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
    for (std::thread& client : clients) {
        client.join();
    }
}

TEST_F(ServerTest, NamesAddressAndReasonWhenItCannotListen) {
    StartServer();
    ServerOptions second = options;
    second.listen = server->GetEndpoint();
    try {
        const Server other(second, backend);
        FAIL() << "two servers on one port";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(),
                    HasSubstr("cannot listen on 127.0.0.1 port " + std::to_string(port) + ": "));
    }
}

}  // namespace
}  // namespace Vessad
