#include "apps/vessad/Session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "runtime/ordane/dispatcher.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/raw_client.h"
#include "tests/unit/vessad/sample_host.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using VessadTest::FilesIn;
using VessadTest::ReadAll;
using VessadTest::TextOf;

// A session without a connection, called with SOAP messages.
class SessionTest : public ::testing::Test {
  protected:
    std::string Call(const std::string& type, const std::string& id, const std::string& method,
                     const std::string& parameters = "") {
        return Ordane::HandleCall(VessadTest::MakeCall(type, id, method, parameters), *session).text;
    }

    std::string CallSessionManager(const std::string& method, const std::string& parameters = "") {
        return Call("SessionManager", "ha-sessionmgr", method, parameters);
    }

    std::string ListVms() { return Call("Folder", "ha-folder-vm", "GetChildEntity"); }

    // Returns the password.
    std::string AcquireTicket() {
        const std::string reply = CallSessionManager("AcquireLocalTicket", "<userName>root</userName>");
        EXPECT_EQ(TextOf(reply, "userName"), "root");
        const std::filesystem::path file = TextOf(reply, "passwordFilePath");
        EXPECT_EQ(file.parent_path(), directory.GetPath());
        return ReadAll(file);
    }

    std::string LogIn(const std::string& user, const std::string& password) {
        return CallSessionManager("Login", "<userName>" + user + "</userName><password>" + password +
                                               "</password><locale>en</locale>");
    }

    std::vector<std::string> TicketFiles() const { return FilesIn(directory.GetPath()); }

    VessadTest::LogLines log;
    VessadTest::TemporaryDirectory directory;
    VessadTest::TestBackend backend;
    boost::asio::io_context io;
    TicketStore tickets{{directory.GetPath(), ""}, io.get_executor()};
    Services services{backend, tickets};
    std::optional<Session> session{std::in_place, services, 1};
};

TEST_F(SessionTest, LogsInWithTheTicketsPasswordAndOut) {
    EXPECT_THAT(ListVms(), HasSubstr("<NotAuthenticated"));
    EXPECT_THAT(CallSessionManager("Logout"), HasSubstr("<NotAuthenticated"));
    const std::string reply = LogIn("root", AcquireTicket());
    EXPECT_EQ(TextOf(reply, "key"), "connection 1");
    EXPECT_EQ(TextOf(reply, "userName"), "root");
    EXPECT_EQ(TextOf(reply, "locale"), "en");
    EXPECT_TRUE(session->IsLoggedIn());
    EXPECT_FALSE(session->TakeRejectedLogin());
    EXPECT_THAT(TicketFiles(), IsEmpty());
    EXPECT_THAT(log.GetText(), HasSubstr("info Connection 1: root logged in\n"));
    EXPECT_THAT(ListVms(), Not(HasSubstr("<NotAuthenticated")));
    CallSessionManager("Logout");
    EXPECT_FALSE(session->IsLoggedIn());
    EXPECT_THAT(ListVms(), HasSubstr("<NotAuthenticated"));
    EXPECT_THAT(log.GetText(), HasSubstr("info Connection 1: logged out\n"));
}

TEST_F(SessionTest, IssuesTicketsToRootOnly) {
    EXPECT_THAT(CallSessionManager("AcquireLocalTicket", "<userName>admin</userName>"),
                HasSubstr("<InvalidArgument"));
    EXPECT_EQ(tickets.Count(), 0U);
}

TEST_F(SessionTest, RejectsAWrongPasswordAndRemovesTheTicket) {
    const std::string password = AcquireTicket();
    EXPECT_THAT(LogIn("root", "guess"), HasSubstr("<InvalidLogin"));
    EXPECT_TRUE(session->TakeRejectedLogin());
    EXPECT_FALSE(session->TakeRejectedLogin());
    EXPECT_FALSE(session->IsLoggedIn());
    EXPECT_THAT(TicketFiles(), IsEmpty());
    EXPECT_THAT(LogIn("root", password), HasSubstr("<InvalidLogin"));
    EXPECT_THAT(log.GetText(), HasSubstr("warning Connection 1: login of \"root\" rejected: not the password "
                                         "of this connection's ticket\n"));
}

TEST_F(SessionTest, RejectsAnotherUserWithTheRightPassword) {
    EXPECT_THAT(LogIn("ro&#10;ot", AcquireTicket()), HasSubstr("<InvalidLogin"));
    EXPECT_FALSE(session->IsLoggedIn());
    EXPECT_THAT(log.GetText(), HasSubstr("login of \"ro\\x0aot\" rejected: unknown user\n"));
}

TEST_F(SessionTest, RemovesItsTicketWhenItEnds) {
    AcquireTicket();
    EXPECT_THAT(TicketFiles(), SizeIs(1));
    session.reset();
    EXPECT_THAT(TicketFiles(), IsEmpty());
    EXPECT_EQ(tickets.Count(), 0U);
}

TEST_F(SessionTest, ReturnsASystemErrorWhenNoTicketCanBeWritten) {
    std::filesystem::remove(directory.GetPath());
    EXPECT_THAT(CallSessionManager("AcquireLocalTicket", "<userName>root</userName>"),
                HasSubstr("<SystemError"));
    EXPECT_THAT(log.GetText(), HasSubstr("error Connection 1: cannot issue a ticket: cannot create a ticket "
                                         "file: No such file"));
}

TEST_F(SessionTest, ReturnsTheObjectsOfTheInventory) {
    const std::string content = Call("ServiceInstance", "ServiceInstance", "RetrieveContent");
    for (const char* part : {"<version>1.2.3</version>", "type=\"SessionManager\">ha-sessionmgr</",
                             "type=\"PerformanceManager\">ha-perfmgr</"}) {
        EXPECT_THAT(content, HasSubstr(part));
    }
    LogIn("root", AcquireTicket());
    for (const auto& [type, id, method, part] : std::vector<std::array<std::string, 4>>{
             {"Folder", "ha-folder-vm", "GetChildEntity",
              "<returnval type=\"VirtualMachine\">16</returnval><returnval "
              "type=\"VirtualMachine\">17</returnval><returnval "
              "type=\"VirtualMachine\">name-17</returnval></"},
             {"VirtualMachine", "16", "GetConfig", "<name>web</name>"},
             {"VirtualMachine", "16", "GetRuntime", "<powerState>poweredOn</powerState>"},
             {"VirtualMachine", "16", "GetGuest", "<guestState>running</guestState>"},
             {"VirtualMachine", "gone", "GetConfig", "<obj type=\"VirtualMachine\">gone</obj></Managed"},
             {"Datastore", "ds-1", "GetInfo", "<diskName>disk-0:0</diskName>"},
             {"Datastore", "ds-1", "GetInfo", "<returnval xsi:type=\"DrellDatastoreInfo\">"},
             {"Datastore", "gone", "GetInfo", "<obj type=\"Datastore\">gone</obj></ManagedObjectNotFound>"},
             {"HostSystem", "ha-host", "GetHardware", "<numCpuCores>12</numCpuCores>"},
             {"MemoryManagerSystem", "memoryManagerSystem", "GetConsoleReservationInfo",
              "<serviceConsoleReserved>285212672</serviceConsoleReserved><unreserved>1862270976</"
              "unreserved>"},
             {"PerformanceManager", "ha-perfmgr", "GetPerfCounter", "<key>used</key>"}}) {
        EXPECT_THAT(Call(type, id, method), HasSubstr(part));
    }
    EXPECT_THAT(Call("PerformanceManager", "ha-perfmgr", "QueryPerf",
                     "<querySpec><entity type=\"VirtualMachine\">name-17</entity><metricId><counterId>10"
                     "</counterId><instance>*</instance></metricId></querySpec>"),
                HasSubstr("<value>4611686018427387904</value>"));
    EXPECT_THAT(log.GetText(), HasSubstr("debug QueryPerf for 1 entities\n"));
}

TEST_F(SessionTest, ReturnsNothingForWhatTheInventoryDoesNotHave) {
    LogIn("root", AcquireTicket());
    EXPECT_THAT(Call("VirtualMachine", "17", "GetConfig"), Not(HasSubstr("returnval")));
    EXPECT_THAT(Call("VirtualMachine", "name-17", "GetGuest"), Not(HasSubstr("returnval")));
    backend.Replace("vms: []");
    EXPECT_THAT(ListVms(), Not(HasSubstr("returnval")));
    EXPECT_THAT(Call("HostSystem", "ha-host", "GetHardware"), Not(HasSubstr("returnval")));
}

}  // namespace
}  // namespace Vessad
