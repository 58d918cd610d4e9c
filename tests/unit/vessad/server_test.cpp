#include "apps/vessad/Server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

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

#include "runtime/hask/host_agent.h"
#include "runtime/hask/mo_factory.h"
#include "runtime/ordane/faults.h"
#include "runtime/ordane/zarn_stub_adapter.h"
#include "runtime/tessim/authd.h"
#include "runtime/tessim/zarn.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/raw_client.h"
#include "tests/unit/vessad/sample_host.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using VessadTest::FilesIn;
using VessadTest::RawClient;
using VessadTest::ReadAll;

// The agent's own way to the daemon: its stack, from the preamble to the login.
class AgentClient {
  public:
    explicit AgentClient(std::uint16_t port) {
        Tessim::Ref<Tessim::Crypto::KeyStore> keys;
        Tessim::Crypto::CreateKeyStore("", "", {}, keys);
        Tessim::Ref<Tessim::Ssl::SSLContext> context;
        Tessim::Ssl::CreateSSLContext(keys.Get(), Tessim::Ssl::SupportedVersion::Tls12OrNewer, context);
        Tessim::Ref<Tessim::Authd::Client> client;
        Tessim::Authd::CreateClient(context.Get(), client);
        client->Open(Tessim::Authd::Selector::ManagementApi, "localhost", port, "", "", stream);
        Tessim::Zarn::CreateZarnSvc(nullptr, nullptr, service);
        service->Startup();
        path = service->GetConnectionPath(stream.Get(), 0);
        service->MapPath(path, Hask::HostAgent::apiPath, "/ordane/");
        Tessim::Ref<Ordane::StubAdapter> adapter;
        Ordane::CreateZarnStubAdapter(nullptr, service.Get(), "/ordane/", adapter);
        Hask::GetMoStubFactory("solo", adapter.Get(), factory);
    }

    void LogIn() {
        Tessim::Ref<Hask::SessionManager> sessions;
        factory->GetSessionManager(sessions);
        Tessim::Ref<Hask::SessionManager::LocalTicket> ticket;
        sessions->AcquireLocalTicket("root", ticket);
        Tessim::Ref<Hask::UserSession> userSession;
        sessions->Login("root", ReadAll(ticket->GetPasswordFilePath()), "en", userSession);
    }

    int CountVms() {
        Tessim::Ref<Hask::Folder> folder;
        factory->GetVmFolder(folder);
        Tessim::Ref<Ordane::DataArray<Ordane::MoRef>> children;
        folder->GetChildEntity(children);
        return children->GetLength();
    }

    const std::string& GetPath() const { return path; }

  private:
    Tessim::Ref<Tessim::System::Stream> stream;
    Tessim::Ref<Tessim::Zarn::ZarnSvc> service;
    std::string path;
    Tessim::Ref<Hask::MoFactory> factory;
};

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

    std::vector<std::string> TicketFiles() const { return FilesIn(directory.GetPath() / "tickets"); }

    // A client that has logged in.
    std::unique_ptr<RawClient> LoggedIn() {
        auto client = std::make_unique<RawClient>(port);
        EXPECT_THAT(client->Open(), StartsWith("200 "));
        EXPECT_EQ(client->LogIn(ReadAll(client->AskForTicket())), 200);
        return client;
    }

    VessadTest::LogLines log;
    VessadTest::TemporaryDirectory directory;
    VessadTest::TestBackend backend;
    ServerOptions options;
    std::unique_ptr<Server> server;
    std::uint16_t port = 0;
};

TEST_F(ServerTest, ServesTheAgent) {
    StartServer();
    AgentClient agent(port);
    EXPECT_THAT(agent.GetPath(), StartsWith("/ordane/connection/"));
    agent.LogIn();
    EXPECT_EQ(agent.CountVms(), 3);
    EXPECT_EQ(agent.CountVms(), 3);
    EXPECT_TRUE(TicketFiles().empty());
}

TEST_F(ServerTest, TellsConnectionsApart) {
    StartServer();
    AgentClient first(port);
    AgentClient second(port);
    EXPECT_NE(first.GetPath(), second.GetPath());
    first.LogIn();
    EXPECT_EQ(first.CountVms(), 3);
    EXPECT_THROW(second.CountVms(), Ordane::Fault::NotAuthenticated::Exception);
}

TEST_F(ServerTest, ServesManyAgentsAtOnce) {
    StartServer();
    std::atomic<int> served{0};
    std::vector<std::thread> agents;
    constexpr std::size_t agentCount = 8;
    agents.reserve(agentCount);
    while (agents.size() < agentCount) {
        agents.emplace_back([&] {
            for (int round = 0; round < 5; ++round) {
                AgentClient agent(port);
                agent.LogIn();
                for (int call = 0; call < 5; ++call) {
                    served += agent.CountVms() == 3 ? 1 : 0;
                }
            }
        });
    }
    for (std::thread& agent : agents) {
        agent.join();
    }
    EXPECT_EQ(served, 8 * 5 * 5);
    EXPECT_TRUE(TicketFiles().empty());
}

TEST_F(ServerTest, RefusesOldTls) {
    StartServer();
    EXPECT_FALSE(RawClient(port).Handshake(TLS1_1_VERSION));
    EXPECT_TRUE(RawClient(port).Handshake(TLS1_2_VERSION));
    EXPECT_TRUE(RawClient(port).Handshake(TLS1_3_VERSION));
}

TEST_F(ServerTest, RefusesOtherServices) {
    StartServer();
    RawClient client(port);
    EXPECT_EQ(client.Open("OPEN 1 \"\" \"\"\r\n"), "404 no service 1");
    EXPECT_TRUE(client.IsEnded(5000));
}

TEST_F(ServerTest, RefusesWhatIsNoFirstLine) {
    StartServer();
    RawClient client(port);
    EXPECT_THAT(client.Open("HELO\r\n"), StartsWith("400 "));
    EXPECT_TRUE(client.IsEnded(5000));
    EXPECT_THAT(log.GetText(), HasSubstr("refused the first line \"HELO\\x0d\\x0a\": 400 "));
}

TEST_F(ServerTest, TakesAFirstLineOfTheLargestSizeAndNoLonger) {
    StartServer();
    const std::string frame = "OPEN 2 \"\" \"\"\r\n";
    const std::string filler(Tessim::Authd::maxPreambleLine - frame.size(), 'x');
    EXPECT_THAT(RawClient(port).Open("OPEN 2 \"" + filler + "\" \"\"\r\n"), StartsWith("200 "));
    RawClient client(port);
    EXPECT_EQ(client.Open("OPEN 2 \"" + filler + "x\" \"\"\r\n"), "400 the line is too long");
}

TEST_F(ServerTest, TakesARequestThatCameWithTheFirstLine) {
    StartServer();
    RawClient client(port);
    const std::string request = "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n";
    EXPECT_THAT(client.Open("OPEN 2 \"\" \"\"\r\n" + request), StartsWith("200 "));
    EXPECT_EQ(client.Exchange("").status, 404);
}

TEST_F(ServerTest, AnswersOnlyPostsToTheApi) {
    StartServer();
    RawClient client(port);
    client.Open();
    EXPECT_EQ(
        client.Exchange("POST /other HTTP/1.1\r\nHost: localhost\r\nContent-Length: 2\r\n\r\nhi").status,
        404);
    const auto reply = client.Exchange("GET /tesk/api/ordane/ HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_EQ(reply.status, 405);
    EXPECT_THAT(reply.header, HasSubstr("Allow: POST\r\n"));
    EXPECT_EQ(client.Call("ServiceInstance", "ServiceInstance", "RetrieveContent").status, 200);
}

TEST_F(ServerTest, AnswersOnlyTicketLoginAndServiceContentBeforeLogin) {
    StartServer();
    RawClient client(port);
    client.Open();
    EXPECT_THAT(client.Call("ServiceInstance", "ServiceInstance", "RetrieveContent").body,
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
        const auto reply = client.Call(type, id, method);
        EXPECT_EQ(reply.status, 500) << method;
        EXPECT_THAT(reply.body, HasSubstr("<NotAuthenticated")) << method;
        EXPECT_THAT(reply.body, ::testing::Not(HasSubstr("web"))) << method;
    }
}

TEST_F(ServerTest, AnswersNonsenseWithAFault) {
    StartServer();
    RawClient client(port);
    client.Open();
    for (const char* body : {"", "nonsense", "<a/>", "<!DOCTYPE a><a/>"}) {
        const auto reply = client.Post(body);
        EXPECT_EQ(reply.status, 500) << body;
        EXPECT_THAT(reply.body, HasSubstr("<InvalidRequest")) << body;
    }
}

TEST_F(ServerTest, RefusesBrokenHttp) {
    StartServer();
    for (const char* request :
         {"nonsense\r\n\r\n", "POST /tesk/api/ordane/ HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
          "POST /tesk/api/ordane/ HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nxx",
          "POST /tesk/api/ordane/ HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"}) {
        RawClient client(port);
        client.Open();
        EXPECT_EQ(client.Exchange(request).status, 400) << request;
        EXPECT_TRUE(client.IsEnded(5000)) << request;
    }
}

TEST_F(ServerTest, LimitsWhatARequestMayCostBeforeLogin) {
    StartServer();
    {
        RawClient client(port);
        client.Open();
        EXPECT_EQ(
            client.Exchange("POST /tesk/api/ordane/ HTTP/1.1\r\nX: " + std::string(9000, 'x') + "\r\n\r\n")
                .status,
            431);
    }
    {
        RawClient client(port);
        client.Open();
        EXPECT_EQ(client.Exchange("POST /tesk/api/ordane/ HTTP/1.1\r\nContent-Length: 16385\r\n\r\n").status,
                  413);
        EXPECT_TRUE(client.IsEnded(5000));
    }
    {
        RawClient client(port);
        client.Open();
        EXPECT_EQ(client.Post(std::string(16384, ' ')).status, 500);  // read, and no message
        std::string many;
        for (int count = 0; count < 300; ++count) {
            many += "<x/>";
        }
        EXPECT_THAT(client.Call("ServiceInstance", "ServiceInstance", "RetrieveContent", many).body,
                    HasSubstr("more than 100 elements"));
    }
}

TEST_F(ServerTest, TakesLargerRequestsAfterLogin) {
    StartServer();
    const auto client = LoggedIn();
    EXPECT_EQ(client->Post(std::string(1024UL * 1024, ' ')).status, 500);
    EXPECT_EQ(client->Call("Folder", "ha-folder-vm", "GetChildEntity").status, 200);
    EXPECT_EQ(client->Exchange("POST /tesk/api/ordane/ HTTP/1.1\r\nContent-Length: 8388609\r\n\r\n").status,
              413);
}

TEST_F(ServerTest, RefusesDeepMessages) {
    StartServer();
    const auto client = LoggedIn();
    std::string deep;
    for (int count = 0; count < 100'000; ++count) {
        deep += "<x>";
    }
    for (int count = 0; count < 100'000; ++count) {
        deep += "</x>";
    }
    EXPECT_EQ(client->Call("Folder", "ha-folder-vm", "GetChildEntity", deep).status, 500);
    EXPECT_EQ(client->Call("Folder", "ha-folder-vm", "GetChildEntity").status, 200);
}

TEST_F(ServerTest, TakesATicketOnceAndFromItsOwnConnection) {
    options.times.refusedLogin = 0ms;
    StartServer();
    RawClient owner(port);
    RawClient thief(port);
    owner.Open();
    thief.Open();
    const std::string password = ReadAll(owner.AskForTicket());
    EXPECT_EQ(password.size(), 64U);
    EXPECT_EQ(thief.LogIn(password), 500);
    EXPECT_EQ(owner.LogIn(password), 200);
    EXPECT_TRUE(TicketFiles().empty());
    EXPECT_EQ(owner.LogIn(password), 500);
}

TEST_F(ServerTest, RemovesTheTicketOfAConnectionThatEnds) {
    StartServer();
    {
        RawClient client(port);
        client.Open();
        EXPECT_FALSE(client.AskForTicket().empty());
        EXPECT_EQ(TicketFiles().size(), 1U);
    }
    for (int tries = 0; tries < 500 && !TicketFiles().empty(); ++tries) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_TRUE(TicketFiles().empty());
}

TEST_F(ServerTest, AnswersARefusedLoginLateWithoutHoldingOthersUp) {
    options.times.refusedLogin = 300ms;
    StartServer();
    std::vector<std::unique_ptr<RawClient>> guessers;
    std::atomic<int> refused{0};
    std::atomic<int> tooSoon{0};
    std::vector<std::thread> threads;
    for (int count = 0; count < 12; ++count) {  // more than the server has threads
        guessers.push_back(std::make_unique<RawClient>(port));
        guessers.back()->Open();
    }
    const auto agent = LoggedIn();
    threads.reserve(guessers.size());
    for (const auto& guesser : guessers) {
        threads.emplace_back([&, client = guesser.get()] {
            const auto start = steady_clock::now();
            refused += client->LogIn("guess") == 500 ? 1 : 0;
            tooSoon += steady_clock::now() - start < 300ms ? 1 : 0;
        });
    }
    // Served in between, although every thread of the server could be waiting.
    int answered = 0;
    while (refused == 0) {
        answered += agent->Call("Folder", "ha-folder-vm", "GetChildEntity").status == 200 ? 1 : 0;
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(answered, 0);
    EXPECT_EQ(refused, 12);
    EXPECT_EQ(tooSoon, 0);
}

TEST_F(ServerTest, EndsConnectionsThatTakeTooLong) {
    options.times.preamble = 100ms;
    options.times.login = 200ms;
    StartServer();
    RawClient silent(port);
    RawClient halfShaken(port);
    halfShaken.SendRaw("\x16\x03\x01");
    RawClient withoutLine(port);
    withoutLine.Handshake();
    RawClient withoutLogin(port);
    withoutLogin.Open();
    RawClient withHalfARequest(port);
    withHalfARequest.Open();
    withHalfARequest.Send("POST /tesk/api/ordane/ HTTP/1.1\r\n");
    for (RawClient* client : {&silent, &halfShaken, &withoutLine, &withoutLogin, &withHalfARequest}) {
        EXPECT_TRUE(client->IsEnded(5000));
    }
    EXPECT_TRUE(AwaitLog("timed out: TLS handshake"));
    EXPECT_TRUE(AwaitLog("timed out: reading the first line"));
    EXPECT_TRUE(AwaitLog("timed out: waiting for a request"));
    EXPECT_TRUE(AwaitLog("timed out: reading a request"));
}

TEST_F(ServerTest, EndsASlowSenderHoweverSteadyItIs) {
    options.times.login = 300ms;
    StartServer();
    RawClient client(port);
    client.Open();
    const std::string request = "POST /tesk/api/ordane/ HTTP/1.1\r\nX: " + std::string(4000, 'x');
    bool ended = false;
    for (std::size_t at = 0; at < request.size() && !ended; ++at) {
        client.Send(request.substr(at, 1));
        ended = client.IsEnded(10);
    }
    EXPECT_TRUE(ended);
}

TEST_F(ServerTest, KeepsASessionThatIsIdle) {
    options.times.preamble = 100ms;
    options.times.login = 150ms;
    options.times.request = 150ms;
    StartServer();
    const auto client = LoggedIn();
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(client->Call("Folder", "ha-folder-vm", "GetChildEntity").status, 200);
    client->Send("POST /tesk/");
    EXPECT_TRUE(client->IsEnded(5000));  // a request must come within its time
}

TEST_F(ServerTest, GivesAClientThatLoggedOutTheTimeForANewLogin) {
    options.times.login = 300ms;
    StartServer();
    const auto client = LoggedIn();
    EXPECT_EQ(client->Call("SessionManager", "ha-sessionmgr", "Logout").status, 200);
    EXPECT_EQ(client->Call("Folder", "ha-folder-vm", "GetChildEntity").status, 500);
    EXPECT_TRUE(client->IsEnded(5000));
}

// Opens many connections at a stage and leaves them there.
class ServerUnderCrowdTest : public ServerTest {
  protected:
    void SetUp() override {
        ConnectionTable::Limits wanted = RaiseFileLimit();  // both ends are in this process
        rlimit files{};
        ::getrlimit(RLIMIT_NOFILE, &files);
        files.rlim_cur = std::min<rlim_t>(files.rlim_max, 16384);
        ::setrlimit(RLIMIT_NOFILE, &files);
        options.connections = wanted;
        StartServer();
    }

    void ExpectAgentServed() {
        AgentClient agent(port);
        agent.LogIn();
        EXPECT_EQ(agent.CountVms(), 3);
    }

    static std::size_t OpenFiles() { return FilesIn("/proc/self/fd").size(); }

    std::vector<std::unique_ptr<RawClient>> crowd;
};

TEST_F(ServerUnderCrowdTest, ServesTheAgentBesideTwoThousandHalfOpenConnections) {
    AgentClient before(port);
    before.LogIn();
    for (int count = 0; count < 2000; ++count) {
        crowd.push_back(std::make_unique<RawClient>(port));
    }
    ExpectAgentServed();
    EXPECT_EQ(before.CountVms(), 3);
}

TEST_F(ServerUnderCrowdTest, ServesTheAgentBesideTwoThousandSlowConnections) {
    AgentClient before(port);
    before.LogIn();
    for (int count = 0; count < 2000; ++count) {
        crowd.push_back(std::make_unique<RawClient>(port));
        crowd.back()->Open();
        crowd.back()->Send("P");
        if (count % 500 == 0) {
            ExpectAgentServed();
        }
    }
    ExpectAgentServed();
    EXPECT_EQ(before.CountVms(), 3);
}

TEST_F(ServerUnderCrowdTest, ServesTheAgentWhileOthersConnectWithoutEnd) {
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
        ExpectAgentServed();
    }
    stop = true;
    flood.join();
}

TEST_F(ServerUnderCrowdTest, ServesTheAgentAgainAfterItRanOutOfFiles) {
    constexpr std::size_t crowdSize = 40;
    const std::size_t before = OpenFiles();
    ExpectAgentServed();
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    for (std::size_t count = 0; count < crowdSize; ++count) {
        crowd.push_back(std::make_unique<RawClient>(port));
    }
    // Both ends of each are open, and those of the agent no more.
    ASSERT_TRUE(Await([&] { return OpenFiles() == before + 2 * crowdSize; }));
    // A sanitizer needs a descriptor to look at an object whose type it sees for the first time.
    ASSERT_TRUE(boost::system::error_code(EMFILE, boost::system::system_category()).failed());
    // As many as are open now, so that connecting takes the last one and accepting finds none.
    const int next = ::dup(0);
    ::close(next);
    const rlimit tight{static_cast<rlim_t>(next) + 1, files.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &tight);
    {
        RawClient starved(port);
        EXPECT_TRUE(AwaitLog("warning Cannot take connections: "));
    }
    ::setrlimit(RLIMIT_NOFILE, &files);
    ExpectAgentServed();
}

TEST_F(ServerTest, EndsEverythingWhenItStops) {
    StartServer();
    RawClient silent(port);
    RawClient waiting(port);
    waiting.Open();
    EXPECT_FALSE(waiting.AskForTicket().empty());
    const auto session = LoggedIn();
    server->Stop();
    EXPECT_TRUE(silent.IsEnded(5000));
    EXPECT_TRUE(waiting.IsEnded(5000));
    EXPECT_TRUE(session->IsEnded(5000));
    EXPECT_TRUE(TicketFiles().empty());
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
                    client.LogIn(ReadAll(client.AskForTicket()));
                    client.Call("Folder", "ha-folder-vm", "GetChildEntity");
                } catch (const std::runtime_error&) {
                    // not there any more
                }
            }
        });
    }
    std::this_thread::sleep_for(200ms);
    server->Stop();
    EXPECT_TRUE(TicketFiles().empty());
    stop = true;
    for (std::thread& client : clients) {
        client.join();
    }
}

TEST_F(ServerTest, SaysWhyItCannotListen) {
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
