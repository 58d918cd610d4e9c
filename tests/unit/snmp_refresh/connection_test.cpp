#include "apps/snmp/client/Connection.h"

#include <chrono>

#include "apps/snmp/client/SNMPWriter.h"
#include "runtime/hask/host_agent.h"
#include "runtime/tessim/peer.h"
#include "runtime/tessim/service.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/tls_test_server.h"
#include "tests/unit/snmp_refresh/fixture.h"

namespace RefreshTests {
namespace {

using namespace std::chrono_literals;
using SNMP::Connection;

// Makes what is logged events of the daemon: level and text.
class EventLogger final : public virtual Tessim::Service::Logger, public Tessim::ObjectImpl {
  public:
    const std::string& GetName() const override { return name; }
    void Write(LogLevel level, std::string_view text) override {
        FakeDaemon::Record(std::to_string(static_cast<int>(level)) + ' ' + std::string(text));
    }

  private:
    std::string name = "events";
};

// The first connection of a process makes the application object too.
TEST(ConnectionOfANewProcess, ConnectsInOrder) {
    FakeDaemon daemon;
    const auto writer = MakeRef<SNMPWriter>();
    const auto connection = MakeRef<Connection>();
    connection->Init(writer.Get());
    EXPECT_EQ(daemon.events,
              (std::vector<std::string>{"create service logging to SNMP", "start service", "open stream",
                                        "get connection path, flags 0",
                                        "map /connection/1, /tesk/api/ordane/, /ordane/",
                                        "create adapter on /ordane/ to /tesk/api/ordane/ logging to SNMP",
                                        "get factory", "call AcquireLocalTicket", "call Login"}));
    ASSERT_EQ(daemon.openings.size(), 1U);
    EXPECT_EQ(daemon.openings[0].host, "localhost");
    EXPECT_EQ(daemon.openings[0].port, 902);
    EXPECT_EQ(Tessim::Service::GetApp()->GetDefaultLogger()->GetName(), "SNMP");
}

TEST(RuntimeEndpoint, RequestsTheManagementApiOverTls) {
    std::string request;
    KelvTest::TlsTestServer server([&](KelvTest::ServedConnection& peer) {
        request = peer.ReadLine();
        peer.Send("200 /connection/1\r\n");
    });
    Ref<Tessim::System::Stream> stream;
    SNMP::Endpoint::Current().OpenStream("localhost", server.GetPort(), stream);
    server.WaitForScripts(1);
    EXPECT_EQ(request, "OPEN 2 \"\" \"\"\r\n");
    EXPECT_TRUE(stream->IsOwn());
}

class ConnectionTest : public DaemonTest {
  protected:
    ConnectionTest() {
        Tessim::Service::InitApp();
        Tessim::Service::SetDefaultLogger(MakeRef<EventLogger>().Get());
        Add("init", [this] { connection->Init(nullptr); });
        Add("connect", [this] { connection->Connect(); });
        Add("login", [this] { connection->Login(); });
        Add("logout", [this] { connection->Logout(); });
        Add("disconnect", [this] { connection->Disconnect(); });
        Add("own?", [this] { return connection->IsOwn(); });
        Add("factory?", [this] { return connection->GetMoFactory() != nullptr; });
        Add("end", [this] { connection.Reset(); });
        Add("new", [this] { connection = MakeRef<Connection>(); });
    }

    Ref<Connection> connection = MakeRef<Connection>();
};

const bool registered = RegisterSessions<ConnectionTest>("ConnectionTest", "connection");

TEST_F(ConnectionTest, UsesTheDefaultLoggerWithoutAWriter) {
    connection->Init(nullptr);
    EXPECT_EQ(daemon.events.at(0), "create service logging to events");
    EXPECT_EQ(daemon.events.at(5), "create adapter on /ordane/ to /tesk/api/ordane/ logging to events");
}

TEST_F(ConnectionTest, RequestsARootTicketAndLogsInWithIt) {
    host.ticketUser = "ticket-user";
    host.ticketContent = "s3cret";
    connection->Init(nullptr);
    EXPECT_EQ(host.texts.at("AcquireLocalTicket").at(0), std::vector<std::string>{"root"});
    EXPECT_EQ(host.texts.at("Login").at(0), (std::vector<std::string>{"ticket-user", "s3cret", "en"}));
}

TEST_F(ConnectionTest, SendsAPasswordOfOneWordOfAtMost1023PrintableCharacters) {
    const std::string tooLong = "3 Failed to read ticket. Ticket file too long.";
    const std::string noPassword =
        "3 Failed to acquire local ticket: the ticket file does not hold a password";
    std::vector<std::pair<std::string, std::string>> outcomes{
        {std::string(1023, 'x'), "sent " + std::string(1023, 'x')},
        {std::string(1024, 'x'), tooLong},
        {std::string(5000, 'x'), tooLong},
        {std::string("short\0", 6) + std::string(1018, 'x'), tooLong},
        {std::string("before\0after", 12), "sent before"},
        {std::string("word\0 \x7f\n", 8), "sent word"},
        {std::string("\0after", 6), "sent "},  // the daemon refuses it
        {" word", noPassword},
        {"word ", noPassword},
        {"word\x7f", noPassword}};
    for (int byte = 1; byte <= 0xff; ++byte) {
        const std::string content = std::string("a") + static_cast<char>(byte) + "z";
        outcomes.emplace_back(content, byte >= 0x21 && byte <= 0x7e ? "sent " + content : noPassword);
    }
    for (const auto& [content, outcome] : outcomes) {
        host.ticketContent = content;
        host.texts.clear();
        connection = MakeRef<Connection>();
        connection->Init(nullptr);
        EXPECT_EQ(host.texts.contains("Login") ? "sent " + host.texts["Login"][0][1] : daemon.events.back(),
                  outcome);
    }
}

TEST_F(ConnectionTest, StaysConnectedWithoutASessionWhenTheTicketCannotBeTaken) {
    host.ticketContent.clear();
    connection->Init(nullptr);
    EXPECT_TRUE(daemon.events.back().starts_with("3 Failed to acquire local ticket: "));
    EXPECT_TRUE(daemon.events.back().ends_with(": it is empty"));
    Check(R"(
ticket /nowhere/ticket; login -> (AcquireLocalTicket, 3 Failed to acquire local ticket: cannot take a secret from "/nowhere/ticket": No such file or directory)
ticket /etc/passwd; login -> (AcquireLocalTicket, 3 Failed to acquire local ticket: cannot take a secret from "/etc/passwd": others can read or write it)
fault AcquireLocalTicket; login -> (AcquireLocalTicket, 3 Failed to acquire local ticket: not today, %1 %s)
connect -> (5 Already connected.)
logout -> (5 Logout: not logged in.)
)");
}

TEST(CheckTimeLeft, TimesOutWithTheTimeBudgetAndStartsTheBackoff) {
    const Tessim::Peer daemon("localhost", 902);
    EXPECT_NO_THROW(Connection::CheckTimeLeft());
    EXPECT_NO_THROW(daemon.CheckBackoff());
    {
        const Tessim::TimeBudget spent(0s);
        EXPECT_THROW(Connection::CheckTimeLeft(), Tessim::TimeoutException);
    }
    EXPECT_THROW(daemon.CheckBackoff(), Tessim::TimeoutException);
    EXPECT_NO_THROW(Connection::CheckTimeLeft());
}

TEST(HostAgentIds, AreThoseThatTheDaemonPublishesAndReserves) {
    using namespace Hask::HostAgent;
    EXPECT_EQ(moid_vmfolder + ' ' + moid_hostsystem + ' ' + moid_memorymanagersystem,
              "ha-folder-vm ha-host memoryManagerSystem");
    EXPECT_EQ(
        (std::vector{moid_cpuschedulersystem, moid_firewallsystem, moid_servicesystem, moid_networksystem,
                     moid_datetimesystem, moid_storagesystem, moid_filesystem, moid_diagnosticsystem,
                     moid_kelvrawdiskmapsystem, moid_mockupsystem, moid_kelvsupportsystem,
                     moid_bootdevicesystem, moid_kernelmodulesystem, moid_healthstatussystem}),
        (std::vector<std::string>{"cpuSchedulerSystem", "firewallSystem", "serviceSystem", "networkSystem",
                                  "dateTimeSystem", "storageSystem", "filesystem", "diagnosticsystem",
                                  "kelvrawdiskmapsystem", "ha-hostsvc-mockupsystem", "kelvsupportsystem",
                                  "bootDeviceSystem", "kernelModuleSystem", "healthStatusSystem"}));
}

}  // namespace
}  // namespace RefreshTests
