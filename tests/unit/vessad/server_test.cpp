#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

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
#include "tests/unit/vessad/server_fixture.h"

namespace Vessad {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::StartsWith;
using VessadTest::Await;
using VessadTest::FilesIn;
using VessadTest::RawClient;
using VessadTest::ServerTest;

const std::string requestLine = "POST /tesk/api/ordane/ HTTP/1.1\r\n";

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

TEST_F(ServerTest, ServesClientsConcurrentlyAndStopsWhileTheyAreBusy) {
    std::atomic<int> served{0};
    std::atomic<bool> stop{false};
    std::deque<std::jthread> clients;
    for (int count = 0; count < 8; ++count) {
        clients.emplace_back([&] {
            while (!stop) {
                try {
                    RawClient client(port);
                    client.Open();
                    client.LogIn(client.AcquireTicket());
                    for (int call = 0; call < 5; ++call) {
                        const int status = ListVms(client);
                        EXPECT_TRUE(status == 200 || stop);
                        served += status == 200 ? 1 : 0;
                    }
                } catch (const std::runtime_error&) {
                    EXPECT_TRUE(stop) << "cannot connect";
                }
            }
        });
    }
    EXPECT_TRUE(Await([&] { return served > 8 * 5 * 5; }));
    stop = true;
    server->Stop();
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
             {"HELO\r\n", R"(400 expected OPEN <selector> "<text>" "<text>")"},
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

TEST_F(ServerTest, RejectsRequestsBeforeTheLoginAndServesTheNext) {
    const auto client = Opened();
    for (const auto& [request, reply] : std::vector<std::pair<std::string, std::string>>{
             {"POST /other HTTP/1.1\r\nContent-Length: 2\r\n\r\nhi", "The API is at /tesk/api/ordane/\n"},
             {"GET /tesk/api/ordane/ HTTP/1.1\r\n\r\n", "HTTP/1.1 405 Method Not Allowed\r\n"},
             {"GET /tesk/api/ordane/ HTTP/1.1\r\n\r\n", "Allow: POST\r\n"},
             {Post(""), "<InvalidRequest"},
             {Post(std::string(16384, ' ')), "<InvalidRequest"},
             {Post("<Envelope><Body>" + Repeat("<x/>", 100) + "</Body></Envelope>"),
              "more than 100 elements"},
             {Post(Repeat("<x>", 17) + Repeat("</x>", 17)), "nested deeper than 16"}}) {
        const auto response = client->Exchange(request);
        EXPECT_THAT(response.header + response.body, HasSubstr(reply));
        EXPECT_EQ(response.status == 500, request.starts_with(requestLine));
    }
}

TEST_F(ServerTest, ClosesTheConnectionAfterARequestWhoseEndIsUnknown) {
    for (const auto& [request, status] : std::vector<std::pair<std::string, int>>{
             {"nonsense\r\n\r\n", 400},
             {requestLine + "Content-Length: -1\r\n\r\n", 400},
             {requestLine + "Content-Length: 1\r\nContent-Length: 2\r\n\r\nxx", 400},
             {requestLine + "Transfer-Encoding: chunked\r\n\r\nzz\r\n", 400},
             {requestLine + "X: " + std::string(9000, 'x') + "\r\n\r\n", 431},
             {requestLine + "Content-Length: 16385\r\n\r\n", 413}}) {
        const auto client = Opened();
        EXPECT_EQ(client->Exchange(request).status, status) << request;
        EXPECT_TRUE(client->IsClosed(5000)) << request;
    }
    EXPECT_TRUE(log.AwaitLine("info Connection 6: request rejected, closing: "));
}

TEST_F(ServerTest, AcceptsLargerRequestsAfterLogin) {
    const auto client = LoggedIn();
    EXPECT_EQ(client->Post(std::string(1024UL * 1024, ' ')).status, 500);
    EXPECT_EQ(client->Post(Repeat("<x>", 100'000) + Repeat("</x>", 100'000)).status, 500);
    EXPECT_EQ(ListVms(*client), 200);
    EXPECT_EQ(client->Exchange(requestLine + "Content-Length: 8388609\r\n\r\n").status, 413);
}

TEST_F(ServerTest, RemovesTheTicketOfAClosedConnection) {
    EXPECT_NE(Opened()->AcquireTicket(), "");
    EXPECT_TRUE(Await([&] { return TicketFiles().empty(); }));
}

TEST_F(ServerTest, DelaysTheReplyToARejectedLoginWithoutBlockingOthers) {
    StartServer({.rejectedLogin = 1s});
    const auto other = LoggedIn();
    std::atomic<int> replies{0};
    std::deque<std::jthread> guessers;
    for (int count = 0; count < 12; ++count) {  // more than the server has threads
        guessers.emplace_back([&] {
            const auto guesser = Opened();
            const auto start = steady_clock::now();
            EXPECT_EQ(guesser->LogIn("guess").status, 500);
            EXPECT_GE(steady_clock::now() - start, 1s);
            ++replies;
        });
    }
    EXPECT_TRUE(Await([&] { return log.Count(" rejected: not the password") == 12; }));
    EXPECT_EQ(ListVms(*other), 200);
    EXPECT_EQ(replies, 0);
}

TEST_F(ServerTest, ClosesConnectionsThatTimeOut) {
    StartServer({.preamble = 100ms, .login = 200ms});
    std::vector<std::unique_ptr<RawClient>> clients(3);
    for (auto& client : clients) {
        client = std::make_unique<RawClient>(port);
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
        EXPECT_TRUE(log.AwaitLine(": " + step + " timed out, closing")) << step;
    }
}

TEST_F(ServerTest, NamesTheTicketThatWasNotUsedAndWhoCanReadIt) {
    for (const std::string& group : {std::string(), std::string(::getgrgid(::getegid())->gr_name)}) {
        options.tickets.group = group;
        StartServer({.login = 300ms});
        const auto client = Opened();
        EXPECT_NE(client->AcquireTicket(), "");
        const std::string ticket = options.tickets.directory / TicketFiles().at(0);
        EXPECT_TRUE(log.AwaitLine(
            "warning Connection 1: login timed out, closing: the ticket " + ticket + " was not used; " +
            (group.empty() ? "only root and this user can read it"
                           : "root, this user and the group " + group + " can read it")));
    }
}

TEST_F(ServerTest, ClosesASlowSenderHoweverSteadyItIs) {
    StartServer({.login = 300ms});
    const auto client = Opened();
    client->Send(requestLine + "X: ");
    int sent = 0;
    for (; sent < 4000 && !client->IsClosed(10); ++sent) {
        client->Send("x");
    }
    EXPECT_LT(sent, 4000);
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

TEST_F(ServerTest, ServesClientsBesideMoreConnectionsThanItHasPlacesFor) {
    StartServer({}, {.preamble = 4, .login = 3, .session = 4});
    const auto session = LoggedIn();
    std::vector<std::unique_ptr<RawClient>> silent;
    std::vector<std::unique_ptr<RawClient>> slow;
    for (int count = 0; count < 20; ++count) {
        silent.push_back(std::make_unique<RawClient>(port));
        slow.push_back(Opened());
        slow.back()->Send("P");
        EXPECT_EQ(ListVms(*LoggedIn()), 200);
        EXPECT_EQ(ListVms(*session), 200);
    }
    const auto countClosed = [](const auto& clients) {
        return std::count_if(clients.begin(), clients.end(),
                             [](auto& client) { return client->IsClosed(20); });
    };
    // The clients that have been served took one place more at each stage, and another one where their end
    // was not seen before the next one's beginning.
    EXPECT_THAT(countClosed(silent), AllOf(Ge(17), Le(18)));
    EXPECT_THAT(countClosed(slow), AllOf(Ge(18), Le(19)));
    EXPECT_FALSE(silent.back()->IsClosed(20));
    EXPECT_THAT(log.GetText(), HasSubstr("debug Connection 2: closing: too many connections\n"));
}

TEST_F(ServerTest, RecoversFromRunningOutOfFiles) {
    StartServer({}, RaiseFileLimit());
    const auto openFiles = [] { return FilesIn("/proc/self/fd").size(); };
    constexpr std::size_t crowdSize = 40;
    const std::size_t before = openFiles();
    EXPECT_EQ(ListVms(*LoggedIn()), 200);
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    std::vector<std::unique_ptr<RawClient>> crowd;
    for (std::size_t count = 0; count < crowdSize; ++count) {
        crowd.push_back(std::make_unique<RawClient>(port));
    }
    ASSERT_TRUE(Await([&] { return openFiles() == before + 2 * crowdSize; }));
    // A sanitizer needs a descriptor to look at an object whose type it sees for the first time.
    ASSERT_TRUE(boost::system::error_code(EMFILE, boost::system::system_category()).failed());
    // One descriptor is left: connecting takes it, and accepting finds none.
    const int next = ::dup(0);
    ::close(next);
    const rlimit tight{static_cast<rlim_t>(next) + 1, files.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &tight);
    {
        RawClient starved(port);
        EXPECT_TRUE(log.AwaitLine("warning Cannot accept connections, evicting those without a login: "));
    }
    ::setrlimit(RLIMIT_NOFILE, &files);
    EXPECT_EQ(ListVms(*LoggedIn()), 200);
}

TEST_F(ServerTest, FitsItsConnectionsIntoTheLimitOfOpenFiles) {
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    const rlim_t enough = ConnectionTable::Limits().Total() + 192;
    ASSERT_GE(files.rlim_max, enough);
    std::string served;
    for (const auto& [soft, hard] : std::vector<std::pair<rlim_t, rlim_t>>{
             {256, enough}, {256, enough - 1}, {256, 524}, {200, 200}, {192, 192}}) {
        const rlimit given{soft, hard};
        ::setrlimit(RLIMIT_NOFILE, &given);
        const auto limits = RaiseFileLimit();
        ::getrlimit(RLIMIT_NOFILE, &files);
        served += std::to_string(files.rlim_cur) + " files: " + std::to_string(limits.preamble) + " " +
                  std::to_string(limits.login) + " " + std::to_string(limits.session) + "\n";
    }
    EXPECT_EQ(served,
              "4288 files: 1024 512 2560\n4287 files: 1023 511 2559\n524 files: 83 41 207\n"
              "200 files: 2 1 5\n192 files: 1 1 1\n");
    EXPECT_THAT(log.GetText(),
                HasSubstr("warning Limit of 524 open files, serving at most 331 connections\n"));
}

TEST_F(ServerTest, FitsAllItsConnectionsIntoTheLimitOfTheUnit) {
    const std::string unit = VessadTest::ReadAll(VESSAD_TEST_UNIT);
    const std::string setting = "\nLimitNOFILE=";
    ASSERT_THAT(unit, HasSubstr(setting));
    const rlim_t files = std::stoul(unit.substr(unit.find(setting) + setting.size()));
    const rlimit given{files, files};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &given), 0);
    EXPECT_EQ(RaiseFileLimit().Total(), ConnectionTable::Limits().Total());
    const std::string guide = VessadTest::ReadAll(VESSAD_TEST_GUIDE);
    EXPECT_NE(guide.find("below the service's " + std::to_string(files) + " |"), std::string::npos);
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

}  // namespace
}  // namespace Vessad
