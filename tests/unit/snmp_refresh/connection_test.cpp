#include "apps/snmp/client/Connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
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

class ConnectionTest : public testing::Test {
  protected:
    ConnectionTest() {
        Tessim::Service::InitApp();
        Tessim::Service::SetDefaultLogger(logger.Get());
        daemon.events.clear();
    }

    // The text that the connection gave as its message when the ticket failed.
    static std::string TicketFailure(const std::string& reason) {
        return "Failed to acquire local ticket: " + reason;
    }

    FakeDaemon daemon;
    Ref<MemoryLogger> logger = MakeRef<MemoryLogger>();
    Ref<Connection> connection = MakeRef<Connection>();
};

// The first connection of a process makes the application object too.
TEST(ConnectionOfANewProcess, MakesEverythingInOrder) {
    FakeDaemon daemon;
    const auto writer = MakeRef<NullWriter>();
    const auto connection = MakeRef<Connection>();
    connection->Init(writer.Get());
    EXPECT_THAT(daemon.events,
                ElementsAre("create service logging to SNMP", "start service", "open stream",
                            "get connection path, flags 0", "map /connection/1, /tesk/api/ordane/, /ordane/",
                            "create adapter on /ordane/ to /tesk/api/ordane/ logging to SNMP", "get factory",
                            "call AcquireLocalTicket", "call Login"));
    EXPECT_EQ(Tessim::Service::GetApp()->GetDefaultLogger()->GetName(), "SNMP");
}

TEST_F(ConnectionTest, OpensTheManagementServiceOnTheLoopbackPort) {
    connection->Init(nullptr);
    ASSERT_EQ(daemon.openings.size(), 1U);
    EXPECT_EQ(daemon.openings[0].host, "localhost");
    EXPECT_EQ(daemon.openings[0].port, 902);
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

TEST_F(ConnectionTest, MayTakeOneSecondInAll) {
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

TEST_F(ConnectionTest, MakesALoggerOnTheWriterItIsGiven) {
    connection->Init(MakeRef<NullWriter>().Get());
    EXPECT_EQ(Count(daemon.events, "create service logging to SNMP"), 1);
    EXPECT_EQ(Tessim::Service::GetApp()->GetDefaultLogger()->GetName(), "SNMP");
    EXPECT_EQ(Tessim::Service::GetApp()->GetDefaultLogger()->GetName(), "SNMP");
}

TEST_F(ConnectionTest, AsksForARootTicketAndLogsInWithIt) {
    daemon.host.ticketUser = "ticket-user";
    daemon.host.ticketContent = "s3cret";
    connection->Init(nullptr);
    EXPECT_THAT(daemon.host.ticketRequests, ElementsAre("root"));
    EXPECT_THAT(daemon.host.logins, ElementsAre(LoginCall{"ticket-user", "s3cret", "en"}));
    EXPECT_THAT(logger->messages, IsEmpty());
}

TEST_F(ConnectionTest, AcceptsATicketOf1023Bytes) {
    daemon.host.ticketContent = std::string(1023, 'x');
    connection->Init(nullptr);
    EXPECT_THAT(daemon.host.logins, ElementsAre(LoginCall{"root", std::string(1023, 'x'), "en"}));
    EXPECT_THAT(logger->messages, IsEmpty());
}

TEST_F(ConnectionTest, RefusesATicketOf1024BytesOrMore) {
    for (const std::size_t size : {1024U, 1025U, 5000U}) {
        logger->messages.clear();
        daemon.host.ticketContent = std::string(size, 'x');
        connection = MakeRef<Connection>();
        EXPECT_NO_THROW(connection->Init(nullptr)) << size;
        EXPECT_THAT(daemon.host.logins, IsEmpty()) << size;
        ASSERT_FALSE(logger->messages.empty()) << size;
        EXPECT_EQ(logger->messages.back(), (Message{3, "Failed to read ticket. Ticket file too long."}))
            << size;
    }
}

TEST_F(ConnectionTest, CutsThePasswordAtItsFirstNul) {
    daemon.host.ticketContent = std::string("before\0after", 12);
    connection->Init(nullptr);
    EXPECT_THAT(daemon.host.logins, ElementsAre(LoginCall{"root", "before", "en"}));
}

TEST_F(ConnectionTest, CountsBytesBeyondANulAsLength) {
    daemon.host.ticketContent = std::string("short\0", 6) + std::string(1018, 'x');
    connection->Init(nullptr);
    EXPECT_THAT(daemon.host.logins, IsEmpty());
    EXPECT_THAT(logger->messages, ElementsAre(Message{3, "Failed to read ticket. Ticket file too long."}));
}

TEST_F(ConnectionTest, NeverSendsWhatIsNoPassword) {
    for (const std::string content : {"root:x:0:0:root\n", "two words", "t\xc3\xa4st"}) {
        logger->messages.clear();
        daemon.host.ticketContent = content;
        connection = MakeRef<Connection>();
        EXPECT_NO_THROW(connection->Init(nullptr));
        EXPECT_THAT(daemon.host.logins, IsEmpty()) << content;
        ASSERT_FALSE(logger->messages.empty());
        EXPECT_EQ(logger->messages.back(),
                  (Message{3, TicketFailure("the ticket file does not hold a password")}));
    }
}

TEST_F(ConnectionTest, SendsPrintableCharactersWithoutBlanksAlone) {
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

TEST_F(ConnectionTest, LooksAtEveryByteOfThePassword) {
    for (const std::string content : {" word", "word ", " ", "\x7f", "word\x7f", "\nword"}) {
        daemon.host.ticketContent = content;
        connection = MakeRef<Connection>();
        connection->Init(nullptr);
        EXPECT_THAT(daemon.host.logins, IsEmpty()) << content;
    }
    // What stands behind the first NUL byte is not of the password.
    daemon.host.ticketContent = std::string("word\0 \x7f\n", 8);
    connection = MakeRef<Connection>();
    connection->Init(nullptr);
    EXPECT_THAT(daemon.host.logins, ElementsAre(LoginCall{"root", "word", "en"}));
}

TEST_F(ConnectionTest, TakesNoEmptyTicket) {
    daemon.host.ticketContent = "";
    EXPECT_NO_THROW(connection->Init(nullptr));
    EXPECT_THAT(daemon.host.logins, IsEmpty());
    ASSERT_EQ(logger->messages.size(), 1U);
    EXPECT_EQ(logger->messages[0].level, 3);
    EXPECT_THAT(logger->messages[0].text, testing::StartsWith(TicketFailure("")));
    EXPECT_THAT(logger->messages[0].text, HasSubstr("empty"));
}

TEST_F(ConnectionTest, LeavesAPasswordThatEndsAtOnceToTheDaemon) {
    daemon.host.ticketContent = std::string("\0after", 6);
    connection->Init(nullptr);
    EXPECT_THAT(daemon.host.logins, ElementsAre(LoginCall{"root", "", "en"}));
    EXPECT_THAT(logger->messages, IsEmpty());
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

TEST_F(ConnectionTest, TakesNoTicketThatOthersCanRead) {
    daemon.host.ticketPath = "/etc/passwd";
    EXPECT_NO_THROW(connection->Init(nullptr));
    ASSERT_EQ(logger->messages.size(), 1U);
    EXPECT_EQ(logger->messages[0].level, 3);
    EXPECT_THAT(daemon.host.logins, IsEmpty());
}

TEST_F(ConnectionTest, LogsWhyTheTicketWasNotGiven) {
    daemon.host.WhenAsked("AcquireLocalTicket",
                          [] { throw Ordane::Fault::SystemError::Exception("no tickets today"); });
    EXPECT_NO_THROW(connection->Init(nullptr));
    EXPECT_THAT(logger->messages, ElementsAre(Message{3, TicketFailure("no tickets today")}));
}

TEST_F(ConnectionTest, LogsAFailedTicketWithPercentSignsAsItIs) {
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

TEST_F(ConnectionTest, LetsAFailedOpeningPass) {
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
}

TEST_P(FailingStepTest, DoesNotKeepTheNextConnectionFromWorking) {
    daemon.failingStep = GetParam();
    EXPECT_THROW(connection->Init(nullptr), Tessim::Exception);
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

TEST_F(ConnectionTest, KeepsWhatItMadeBeforeAStepFailed) {
    for (const char* step : {"map ", "create adapter", "get factory"}) {
        daemon.failingStep = step;
        connection = MakeRef<Connection>();
        EXPECT_THROW(connection->Init(nullptr), Tessim::Exception);
        EXPECT_TRUE(connection->IsOwn());
        // It has its path, so it takes itself for connected until it is told to disconnect.
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

TEST_F(ConnectionTest, LogsWhenItIsAlreadyConnected) {
    connection->Init(nullptr);
    daemon.events.clear();
    connection->Connect();
    EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Already connected."}));
    EXPECT_THAT(daemon.events, IsEmpty());
}

TEST_F(ConnectionTest, LogsWhenItIsAlreadyLoggedIn) {
    connection->Init(nullptr);
    daemon.events.clear();
    connection->Login();
    EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Already logged in."}));
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

TEST_F(ConnectionTest, KeepsTheSessionThatCouldNotBeEnded) {
    connection->Init(nullptr);
    daemon.host.WhenAsked("Logout", [] { throw Ordane::Fault::SystemError::Exception("not now"); });
    EXPECT_THROW(connection->Logout(), Ordane::Fault::SystemError::Exception);
    connection->Login();
    EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Already logged in."}));
}

TEST_F(ConnectionTest, LogsOutBeforeItCloses) {
    connection->Init(nullptr);
    daemon.events.clear();
    connection->Disconnect();
    EXPECT_THAT(daemon.events, ElementsAre("call Logout", "close adapter", "close stream /connection/1"));
    EXPECT_THAT(logger->messages, IsEmpty());
    EXPECT_FALSE(connection->IsOwn());
}

TEST_F(ConnectionTest, ClosesWithoutALogoutWhenItIsNotLoggedIn) {
    connection->Init(nullptr);
    connection->Logout();
    daemon.events.clear();
    connection->Disconnect();
    EXPECT_THAT(daemon.events, ElementsAre("close adapter", "close stream /connection/1"));
    EXPECT_THAT(logger->messages, IsEmpty());
}

TEST_F(ConnectionTest, ClosesEvenIfTheDaemonCannotBeTold) {
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
    EXPECT_NE(connection->GetMoFactory(), nullptr);
    EXPECT_EQ(Count(daemon.events, "shut service down"), 0);

    daemon.events.clear();
    connection->Connect();
    connection->Login();
    EXPECT_THAT(daemon.events, testing::Contains("map /connection/2, /tesk/api/ordane/, /ordane/"));
    EXPECT_EQ(daemon.host.logins.size(), 2U);
    EXPECT_THAT(logger->messages, IsEmpty());
}

TEST_F(ConnectionTest, LogsWhenThereIsNothingToDisconnect) {
    connection->Disconnect();
    EXPECT_THAT(logger->messages, ElementsAre(Message{5, "Disconnect: not connected."}));
}

TEST_F(ConnectionTest, LogsAtItsEndThatItNeverConnected) {
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

TEST_F(ConnectionTest, SaysNothingToTheDaemonOfAnotherProcess) {
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

// Work on a daemon's answers.

TEST(LongWork, GoesOnWhileThereIsTime) {
    EXPECT_NO_THROW(Connection::CheckTimeLeft());
    const Tessim::TimeBudget plenty(1h);
    EXPECT_NO_THROW(Connection::CheckTimeLeft());
}

TEST(LongWork, EndsWithTheTimeBudgetAndStartsThePause) {
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
