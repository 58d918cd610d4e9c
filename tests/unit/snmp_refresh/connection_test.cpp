#include "apps/snmp/client/Connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <ostream>
#include <stdexcept>

#include "runtime/hask/host_agent.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/peer.h"
#include "runtime/tessim/service.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/api_objects.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/tls_test_server.h"

namespace SNMP {
namespace {

using namespace std::chrono_literals;
using Tessim::MakeRef;
using Tessim::Ref;
using Tessim::Service::Logger;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using TestSupport::FakeDaemon;
using TestSupport::LoginCall;

// A message of the connection with its level.
struct Message {
    int level;
    std::string text;

    friend bool operator==(const Message&, const Message&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const Message& message) {
        return stream << message.level << " \"" << message.text << '"';
    }
};

// Keeps what is logged.
class MemoryLogger final : public virtual Logger, public Tessim::ObjectImpl {
  public:
    const std::string& GetName() const override { return name; }
    void Write(LogLevel level, std::string_view text) override {
        messages.push_back({static_cast<int>(level), std::string(text)});
    }

    std::vector<Message> messages;

  private:
    std::string name = "memory";
};

class NullWriter final : public virtual Tessim::Writer, public Tessim::ObjectImpl {
  public:
    void Write(const char* /*text*/, int /*length*/) override {}
    void Close() override {}
    std::string ToString() const override { return "nowhere"; }
};

// Counts the entries that are `event`.
int Count(const std::vector<std::string>& events, const std::string& event) {
    return static_cast<int>(std::count(events.begin(), events.end(), event));
}

// The message about a ticket that was not acquired.
std::string TicketFailure(const std::string& reason) {
    return "Failed to acquire local ticket: " + reason;
}

class ConnectionTest : public testing::Test {
  protected:
    ConnectionTest() {
        Tessim::Service::InitApp();
        Tessim::Service::SetDefaultLogger(logger.Get());
        daemon.events.clear();
    }

    FakeDaemon daemon;
    Ref<MemoryLogger> logger = MakeRef<MemoryLogger>();
    Ref<Connection> connection = MakeRef<Connection>();
};

// The first connection of a process makes the application object too.
TEST(ConnectionOfANewProcess, ConnectsInOrder) {
    FakeDaemon daemon;
    const auto writer = MakeRef<NullWriter>();
    const auto connection = MakeRef<Connection>();
    connection->Init(writer.Get());
    EXPECT_THAT(daemon.events,
                ElementsAre("create service logging to SNMP", "start service", "open stream",
                            "get connection path, flags 0", "map /connection/1, /tesk/api/ordane/, /ordane/",
                            "create adapter on /ordane/ to /tesk/api/ordane/ logging to SNMP", "get factory",
                            "call AcquireLocalTicket", "call Login"));
    ASSERT_EQ(daemon.openings.size(), 1U);
    EXPECT_EQ(daemon.openings[0].host, "localhost");
    EXPECT_EQ(daemon.openings[0].port, 902);
    EXPECT_EQ(Tessim::Service::GetApp()->GetDefaultLogger()->GetName(), "SNMP");
}

TEST(RuntimeEndpoint, RequestsTheManagementApiOverTls) {
    std::string request;
    KelvTest::TlsTestServer server([&](KelvTest::ServedConnection& peer) {
        peer.Handshake();
        request = peer.ReadLine();
        peer.Send("200 /connection/1\r\n");
    });
    Ref<Tessim::System::Stream> stream;
    Endpoint::Current().OpenStream("localhost", server.GetPort(), stream);
    server.WaitForScripts(1);
    EXPECT_EQ(request, "OPEN 2 \"\" \"\"\r\n");
    EXPECT_TRUE(stream->IsOwn());
}

TEST_F(ConnectionTest, HasOneSecondInAll) {
    std::vector<Tessim::Clock::time_point> deadlines;
    for (const char* method : {"AcquireLocalTicket", "Login"}) {
        daemon.WhenSent(method, [&] { deadlines.push_back(Tessim::TimeBudget::Deadline()); });
    }
    // The budget of the caller is longer, that of the connection counts.
    const Tessim::TimeBudget outer(1h);
    const auto begin = Tessim::Clock::now();
    connection->Init(nullptr);
    const auto end = Tessim::Clock::now();
    const auto deadline = daemon.openings.at(0).deadline;
    EXPECT_GE(deadline, begin + 1s);
    EXPECT_LE(deadline, end + 1s);
    EXPECT_THAT(deadlines, ElementsAre(deadline, deadline));
}

TEST_F(ConnectionTest, UsesTheDefaultLoggerWithoutAWriter) {
    connection->Init(nullptr);
    EXPECT_THAT(daemon.events, testing::Contains("create service logging to memory"));
    EXPECT_EQ(Tessim::Service::GetApp()->GetDefaultLogger(), Ref<Logger>(logger));
    connection->Connect();
    EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Already connected."}));
}

TEST_F(ConnectionTest, CreatesALoggerOnTheWriter) {
    connection->Init(MakeRef<NullWriter>().Get());
    EXPECT_EQ(Count(daemon.events, "create service logging to SNMP"), 1);
    EXPECT_EQ(Tessim::Service::GetApp()->GetDefaultLogger()->GetName(), "SNMP");
}

TEST_F(ConnectionTest, RequestsARootTicketAndLogsInWithIt) {
    daemon.host.ticketUser = "ticket-user";
    daemon.host.ticketContent = "s3cret";
    connection->Init(nullptr);
    EXPECT_THAT(daemon.host.ticketRequests, ElementsAre("root"));
    EXPECT_THAT(daemon.host.logins, ElementsAre(LoginCall{"ticket-user", "s3cret", "en"}));
    EXPECT_THAT(logger->messages, IsEmpty());
}

// What a ticket file holds, and what comes of it.
struct TicketCase {
    const char* name;
    std::string content;
    std::optional<std::string> password;  // sent to the daemon; nothing: no login
    std::string message;                  // logged without a login

    friend std::ostream& operator<<(std::ostream& stream, const TicketCase& each) {
        return stream << each.name;
    }
};

class TicketTest : public ConnectionTest, public testing::WithParamInterface<TicketCase> {};

TEST_P(TicketTest, IsSentOrRejected) {
    daemon.host.ticketContent = GetParam().content;
    EXPECT_NO_THROW(connection->Init(nullptr));
    if (GetParam().password) {
        EXPECT_THAT(daemon.host.logins, ElementsAre(LoginCall{"root", *GetParam().password, "en"}));
        EXPECT_THAT(logger->messages, IsEmpty());
    } else {
        EXPECT_THAT(daemon.host.logins, IsEmpty());
        EXPECT_THAT(logger->messages, ElementsAre(Message{3, GetParam().message}));
    }
}

const std::string tooLong = "Failed to read ticket. Ticket file too long.";
const std::string noPassword = TicketFailure("the ticket file does not hold a password");

INSTANTIATE_TEST_SUITE_P(
    Contents, TicketTest,
    testing::Values(TicketCase{"Of1023Bytes", std::string(1023, 'x'), std::string(1023, 'x'), ""},
                    TicketCase{"Of1024Bytes", std::string(1024, 'x'), {}, tooLong},
                    TicketCase{"Of1025Bytes", std::string(1025, 'x'), {}, tooLong},
                    TicketCase{"Of5000Bytes", std::string(5000, 'x'), {}, tooLong},
                    TicketCase{
                        "LongBehindANul", std::string("short\0", 6) + std::string(1018, 'x'), {}, tooLong},
                    TicketCase{"EndsAtItsFirstNul", std::string("before\0after", 12), "before", ""},
                    TicketCase{"UnprintableBehindANul", std::string("word\0 \x7f\n", 8), "word", ""},
                    // The daemon refuses it.
                    TicketCase{"EmptyBeforeANul", std::string("\0after", 6), "", ""},
                    TicketCase{"Line", "root:x:0:0:root\n", {}, noPassword},
                    TicketCase{"TwoWords", "two words", {}, noPassword},
                    TicketCase{"NotAscii", "t\xc3\xa4st", {}, noPassword},
                    TicketCase{"BlankFirst", " word", {}, noPassword},
                    TicketCase{"BlankLast", "word ", {}, noPassword},
                    TicketCase{"Blank", " ", {}, noPassword}, TicketCase{"Delete", "\x7f", {}, noPassword},
                    TicketCase{"DeleteLast", "word\x7f", {}, noPassword},
                    TicketCase{"LineFeedFirst", "\nword", {}, noPassword}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ConnectionTest, SendsPrintableCharactersOnly) {
    for (int byte = 1; byte <= 0xff; ++byte) {
        daemon.host.logins.clear();
        const std::string content = std::string("a") + static_cast<char>(byte) + "z";
        daemon.host.ticketContent = content;
        connection = MakeRef<Connection>();
        connection->Init(nullptr);
        if (byte >= 0x21 && byte <= 0x7e) {
            EXPECT_THAT(daemon.host.logins, ElementsAre(LoginCall{"root", content, "en"})) << byte;
        } else {
            EXPECT_THAT(daemon.host.logins, IsEmpty()) << byte;
        }
    }
}

TEST_F(ConnectionTest, RejectsAnEmptyTicket) {
    daemon.host.ticketContent = "";
    EXPECT_NO_THROW(connection->Init(nullptr));
    EXPECT_THAT(daemon.host.logins, IsEmpty());
    ASSERT_EQ(logger->messages.size(), 1U);
    EXPECT_EQ(logger->messages[0].level, 3);
    EXPECT_THAT(logger->messages[0].text, testing::StartsWith(TicketFailure("")));
    EXPECT_THAT(logger->messages[0].text, HasSubstr("empty"));
}

TEST_F(ConnectionTest, StaysConnectedWithoutASessionWhenTheTicketCannotBeRead) {
    daemon.host.ticketPath = "/nowhere/ticket";
    EXPECT_NO_THROW(connection->Init(nullptr));
    ASSERT_EQ(logger->messages.size(), 1U);
    EXPECT_EQ(logger->messages[0].level, 3);
    EXPECT_THAT(logger->messages[0].text, testing::StartsWith(TicketFailure("")));
    EXPECT_THAT(logger->messages[0].text, HasSubstr("/nowhere/ticket"));
    EXPECT_THAT(daemon.host.logins, IsEmpty());

    logger->messages.clear();
    connection->Connect();
    connection->Logout();
    EXPECT_THAT(logger->messages,
                ElementsAre(Message{5, "Already connected."}, Message{5, "Logout: not logged in."}));

    daemon.host.ticketPath.reset();
    connection->Login();
    EXPECT_EQ(daemon.host.logins.size(), 1U);
}

TEST_F(ConnectionTest, RejectsATicketThatOthersCanRead) {
    daemon.host.ticketPath = "/etc/passwd";
    EXPECT_NO_THROW(connection->Init(nullptr));
    ASSERT_EQ(logger->messages.size(), 1U);
    EXPECT_EQ(logger->messages[0].level, 3);
    EXPECT_THAT(daemon.host.logins, IsEmpty());
}

TEST_F(ConnectionTest, LogsARefusedTicketWithPercentSignsAsTheyAre) {
    daemon.host.WhenAsked("AcquireLocalTicket",
                          [] { throw Ordane::Fault::SystemError::Exception("100%1 %s %2"); });
    connection->Init(nullptr);
    EXPECT_THAT(logger->messages, ElementsAre(Message{3, TicketFailure("100%1 %s %2")}));
}

TEST_F(ConnectionTest, LetsOtherExceptionsOfTheTicketPass) {
    daemon.WhenCalled("AcquireLocalTicket", [] { throw std::runtime_error("not of the runtime"); });
    EXPECT_THROW(connection->Init(nullptr), std::runtime_error);
}

TEST_F(ConnectionTest, LetsARefusedLoginPass) {
    daemon.host.WhenAsked("Login", [] { throw Ordane::Fault::InvalidLogin::Exception("who are you?"); });
    try {
        connection->Init(nullptr);
        ADD_FAILURE() << "the login was accepted";
    } catch (const Ordane::Fault::InvalidLogin::Exception& refused) {
        EXPECT_STREQ(refused.what(), "who are you?");
    }
    EXPECT_THAT(logger->messages, IsEmpty());
    connection->Connect();
    connection->Logout();
    EXPECT_THAT(logger->messages,
                ElementsAre(Message{5, "Already connected."}, Message{5, "Logout: not logged in."}));
}

TEST_F(ConnectionTest, LetsAFailedStreamPass) {
    daemon.down = "connection refused";
    try {
        connection->Init(nullptr);
        ADD_FAILURE() << "a stream was opened";
    } catch (const Tessim::StreamException& failure) {
        EXPECT_STREQ(failure.what(), "connection refused");
    }
    EXPECT_EQ(connection->GetMoFactory(), nullptr);
    EXPECT_FALSE(connection->IsOwn());

    // The service made so far is kept, and shut down in the end.
    daemon.events.clear();
    connection.Reset();
    EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Disconnect: not connected."}));
    EXPECT_THAT(daemon.events, ElementsAre("shut service down"));
}

// Each step that follows the opening of the stream.
class FailingStepTest : public ConnectionTest, public testing::WithParamInterface<const char*> {};

TEST_P(FailingStepTest, PassesAndLeavesNothingBehind) {
    daemon.failingStep = GetParam();
    try {
        connection->Init(nullptr);
        ADD_FAILURE() << "the connection was made";
    } catch (const Tessim::Exception& failure) {
        EXPECT_THAT(failure.what(), testing::StartsWith(GetParam()));
    }
    EXPECT_THAT(daemon.calls, IsEmpty());
    EXPECT_EQ(daemon.streams, 1);
    connection.Reset();
    EXPECT_EQ(daemon.streams, 0);
    EXPECT_EQ(daemon.events.back(), "shut service down");

    daemon.failingStep.clear();
    connection = MakeRef<Connection>();
    EXPECT_NO_THROW(connection->Init(nullptr));
    EXPECT_EQ(daemon.host.logins.size(), 1U);
    EXPECT_EQ(daemon.streams, 1);
    connection.Reset();
    EXPECT_EQ(daemon.streams, 0);
}

INSTANTIATE_TEST_SUITE_P(Steps, FailingStepTest,
                         testing::Values("get connection path", "map ", "create adapter", "get factory"),
                         [](const auto& info) { return "Step" + std::to_string(info.index); });

TEST_F(ConnectionTest, StaysConnectedWithWhatItMadeBeforeAStepFailed) {
    for (const char* step : {"map ", "create adapter", "get factory"}) {
        daemon.failingStep = step;
        connection = MakeRef<Connection>();
        EXPECT_THROW(connection->Init(nullptr), Tessim::Exception);
        EXPECT_TRUE(connection->IsOwn());
        // It has its path, and so is connected until it disconnects.
        daemon.failingStep.clear();
        logger->messages.clear();
        connection->Connect();
        EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Already connected."})) << step;
        logger->messages.clear();
        connection->Disconnect();
        connection->Connect();
        connection->Login();
        EXPECT_THAT(logger->messages, IsEmpty()) << step;
    }
    EXPECT_EQ(daemon.host.logins.size(), 3U);
}

TEST_F(ConnectionTest, LogsWhenItIsAlreadyConnectedOrLoggedIn) {
    connection->Init(nullptr);
    daemon.events.clear();
    connection->Connect();
    connection->Login();
    EXPECT_THAT(logger->messages,
                ElementsAre(Message{5, "Already connected."}, Message{5, "Already logged in."}));
    EXPECT_THAT(daemon.events, IsEmpty());
}

TEST_F(ConnectionTest, LogsOutOnce) {
    connection->Init(nullptr);
    daemon.events.clear();
    connection->Logout();
    EXPECT_THAT(daemon.events, ElementsAre("call Logout"));
    EXPECT_THAT(logger->messages, IsEmpty());
    connection->Logout();
    EXPECT_THAT(daemon.events, ElementsAre("call Logout"));
    EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Logout: not logged in."}));
}

TEST_F(ConnectionTest, KeepsTheSessionWhenALogoutFails) {
    connection->Init(nullptr);
    daemon.host.WhenAsked("Logout", [] { throw Ordane::Fault::SystemError::Exception("not now"); });
    EXPECT_THROW(connection->Logout(), Ordane::Fault::SystemError::Exception);
    connection->Login();
    EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Already logged in."}));
}

TEST_F(ConnectionTest, ClosesWithoutALogoutWhenItIsNotLoggedIn) {
    connection->Init(nullptr);
    connection->Logout();
    daemon.events.clear();
    connection->Disconnect();
    EXPECT_THAT(daemon.events, ElementsAre("close adapter", "close stream /connection/1"));
    EXPECT_THAT(logger->messages, IsEmpty());
}

TEST_F(ConnectionTest, ClosesWhenTheLogoutFails) {
    connection->Init(nullptr);
    daemon.WhenSent("Logout", [] { throw Tessim::StreamException("gone"); });
    daemon.events.clear();
    EXPECT_NO_THROW(connection->Disconnect());
    EXPECT_THAT(daemon.events, ElementsAre("call Logout", "close adapter", "close stream /connection/1"));
    connection->Disconnect();
    EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Disconnect: not connected."}));
}

TEST_F(ConnectionTest, KeepsItsFactoryAndServiceAfterADisconnect) {
    connection->Init(nullptr);
    connection->Disconnect();
    EXPECT_FALSE(connection->IsOwn());
    EXPECT_THAT(logger->messages, IsEmpty());
    EXPECT_NE(connection->GetMoFactory(), nullptr);
    EXPECT_EQ(Count(daemon.events, "shut service down"), 0);

    daemon.events.clear();
    connection->Connect();
    connection->Login();
    EXPECT_THAT(daemon.events, testing::Contains("map /connection/2, /tesk/api/ordane/, /ordane/"));
    EXPECT_EQ(daemon.host.logins.size(), 2U);
    EXPECT_THAT(logger->messages, IsEmpty());
}

TEST_F(ConnectionTest, LogsAtItsEndThatItIsNotConnected) {
    connection.Reset();
    EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Disconnect: not connected."}));
}

TEST_F(ConnectionTest, DisconnectsAtItsEndAndShutsTheServiceDown) {
    connection->Init(nullptr);
    daemon.events.clear();
    connection.Reset();
    EXPECT_THAT(daemon.events, ElementsAre("call Logout", "close adapter", "close stream /connection/1",
                                           "shut service down"));
    EXPECT_THAT(logger->messages, IsEmpty());
}

TEST_F(ConnectionTest, SendsNothingOnAStreamOfAnotherProcess) {
    connection->Init(nullptr);
    EXPECT_TRUE(connection->IsOwn());
    daemon.foreignStreams = true;
    EXPECT_FALSE(connection->IsOwn());
    daemon.events.clear();
    connection.Reset();
    EXPECT_EQ(Count(daemon.events, "call Logout"), 0);
    EXPECT_THAT(daemon.events,
                ElementsAre("close adapter", "close stream /connection/1", "shut service down"));
}

TEST(CheckTimeLeft, PassesWithinTheTimeBudget) {
    EXPECT_NO_THROW(Connection::CheckTimeLeft());
    const Tessim::TimeBudget plenty(1h);
    EXPECT_NO_THROW(Connection::CheckTimeLeft());
}

TEST(CheckTimeLeft, TimesOutWithTheBudgetAndStartsTheBackoff) {
    const Tessim::Peer daemon("localhost", 902);
    EXPECT_NO_THROW(daemon.CheckBackoff());
    {
        const Tessim::TimeBudget spent(0s);
        EXPECT_THROW(Connection::CheckTimeLeft(), Tessim::TimeoutException);
    }
    EXPECT_THROW(daemon.CheckBackoff(), Tessim::TimeoutException);
    EXPECT_NO_THROW(Connection::CheckTimeLeft());
}

TEST(HostAgentIds, AreThoseThatTheDaemonPublishes) {
    namespace Ids = Hask::HostAgent;
    EXPECT_EQ(Ids::moid_cpuschedulersystem, "cpuSchedulerSystem");
    EXPECT_EQ(Ids::moid_memorymanagersystem, "memoryManagerSystem");
    EXPECT_EQ(Ids::moid_firewallsystem, "firewallSystem");
    EXPECT_EQ(Ids::moid_servicesystem, "serviceSystem");
    EXPECT_EQ(Ids::moid_networksystem, "networkSystem");
    EXPECT_EQ(Ids::moid_datetimesystem, "dateTimeSystem");
    EXPECT_EQ(Ids::moid_storagesystem, "storageSystem");
    EXPECT_EQ(Ids::moid_filesystem, "filesystem");
    EXPECT_EQ(Ids::moid_diagnosticsystem, "diagnosticsystem");
    EXPECT_EQ(Ids::moid_kelvrawdiskmapsystem, "kelvrawdiskmapsystem");
    EXPECT_EQ(Ids::moid_vmfolder, "ha-folder-vm");
    EXPECT_EQ(Ids::moid_hostsystem, "ha-host");
    EXPECT_EQ(Ids::moid_mockupsystem, "ha-hostsvc-mockupsystem");
    EXPECT_EQ(Ids::moid_kelvsupportsystem, "kelvsupportsystem");
    EXPECT_EQ(Ids::moid_bootdevicesystem, "bootDeviceSystem");
    EXPECT_EQ(Ids::moid_kernelmodulesystem, "kernelModuleSystem");
    EXPECT_EQ(Ids::moid_healthstatussystem, "healthStatusSystem");
}

}  // namespace
}  // namespace SNMP
