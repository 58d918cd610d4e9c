#include "apps/vessad/Session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/unit/vessad/server_fixture.h"

namespace Vessad {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using VessadTest::TextOf;

// One client, with its preamble accepted.
class SessionTest : public VessadTest::ServerTest {
  protected:
    std::string Call(const std::string& type, const std::string& id, const std::string& method,
                     const std::string& parameters = "") const {
        return client->Call(type, id, method, parameters).body;
    }
    std::string AcquireTicketOf(const std::string& user) const {
        return Call("SessionManager", "ha-sessionmgr", "AcquireLocalTicket",
                    "<userName>" + user + "</userName>");
    }
    std::string LogOut() const { return Call("SessionManager", "ha-sessionmgr", "Logout"); }

    std::unique_ptr<VessadTest::RawClient> client = Opened();
};

TEST_F(SessionTest, LogsInWithTheTicketsPasswordAndOut) {
    EXPECT_THAT(LogOut(), HasSubstr("<NotAuthenticated"));
    EXPECT_THAT(AcquireTicketOf("admin"), HasSubstr("<InvalidArgument"));
    EXPECT_THAT(TicketFiles(), IsEmpty());
    const std::string ticket = AcquireTicketOf("root");
    const std::filesystem::path file = TextOf(ticket, "passwordFilePath");
    EXPECT_EQ(TextOf(ticket, "userName"), "root");
    EXPECT_EQ(file.parent_path(), options.tickets.directory);
    const std::string reply = client->LogIn(VessadTest::ReadAll(file)).body;
    EXPECT_EQ(TextOf(reply, "key"), "connection 1");
    EXPECT_EQ(TextOf(reply, "userName"), "root");
    EXPECT_EQ(TextOf(reply, "locale"), "en");
    EXPECT_THAT(TicketFiles(), IsEmpty());
    EXPECT_THAT(log.GetText(), HasSubstr("info Connection 1: root logged in\n"));
    EXPECT_EQ(ListVms(*client), 200);
    LogOut();
    EXPECT_THAT(LogOut(), HasSubstr("<NotAuthenticated"));
    EXPECT_THAT(log.GetText(), HasSubstr("info Connection 1: logged out\n"));
}

TEST_F(SessionTest, RejectsAWrongPasswordOrUserAndRemovesTheTicket) {
    const std::string password = client->AcquireTicket();
    for (const std::string& each : {std::string("guess"), password}) {
        EXPECT_THAT(client->LogIn(each).body, HasSubstr("<InvalidLogin"));
        EXPECT_THAT(LogOut(), HasSubstr("<NotAuthenticated"));
        EXPECT_THAT(TicketFiles(), IsEmpty());
    }
    EXPECT_THAT(client->LogIn(client->AcquireTicket(), "ro&#10;ot").body, HasSubstr("<InvalidLogin"));
    EXPECT_THAT(LogOut(), HasSubstr("<NotAuthenticated"));
    const std::string rejected =
        "warning Connection 1: login of \"root\" rejected: not the password of this "
        "connection's ticket\n";
    EXPECT_THAT(log.GetText(), HasSubstr(rejected + rejected +
                                         "warning Connection 1: login of "
                                         "\"ro\\x0aot\" rejected: unknown user\n"));
}

TEST_F(SessionTest, ReturnsASystemErrorWhenNoTicketCanBeWritten) {
    std::filesystem::remove(options.tickets.directory);
    EXPECT_THAT(AcquireTicketOf("root"), HasSubstr("<SystemError"));
    EXPECT_THAT(log.GetText(), HasSubstr("error Connection 1: cannot issue a ticket: cannot create a ticket "
                                         "file: No such file"));
}

TEST_F(SessionTest, ReturnsServiceContentAlwaysAndTheObjectsOfTheInventoryAfterLoginOnly) {
    for (const bool loggedIn : {false, true}) {
        for (const auto& [call, part] : TestSupport::ReadCases(VESSAD_TEST_CASES "/guarded_calls.txt")) {
            std::array<std::string, 4> parts;
            std::istringstream words(call);
            words >> parts[0] >> parts[1] >> parts[2];
            std::getline(words, parts[3]);
            const std::string reply = Call(parts[0], parts[1], parts[2], parts[3]);
            EXPECT_EQ(reply.find("<NotAuthenticated") == std::string::npos, loggedIn) << reply;
            EXPECT_EQ(reply.find(part) != std::string::npos, loggedIn) << part << " in " << reply;
        }
        const std::string content = Call("ServiceInstance", "ServiceInstance", "RetrieveContent");
        for (const char* part :
             {"<version>1.2.3</version>", "<build>77</build>", "type=\"SessionManager\">ha-sessionmgr</",
              "type=\"PerformanceManager\">ha-perfmgr</"}) {
            EXPECT_THAT(content, HasSubstr(part));
        }
        client->LogIn(client->AcquireTicket());
    }
    EXPECT_THAT(log.GetText(), HasSubstr("debug QueryPerf for 1 entities\n"));
}

TEST_F(SessionTest, ReturnsNothingForWhatTheInventoryDoesNotHave) {
    client = LoggedIn();
    EXPECT_THAT(Call("VirtualMachine", "17", "GetConfig"), Not(HasSubstr("returnval")));
    EXPECT_THAT(Call("VirtualMachine", "name-17", "GetGuest"), Not(HasSubstr("returnval")));
    EXPECT_THAT(Call("Datastore", "ds-2", "GetInfo"), HasSubstr("returnval"));
    backend.Replace("vms: []");
    for (const auto& [type, id, method] : std::vector<std::array<std::string, 3>>{
             {"Folder", "ha-folder-vm", "GetChildEntity"},
             {"Datastore", "ds-2", "GetInfo"},
             {"HostSystem", "ha-host", "GetHardware"},
             {"MemoryManagerSystem", "memoryManagerSystem", "GetConsoleReservationInfo"}}) {
        EXPECT_THAT(Call(type, id, method), Not(HasSubstr("returnval"))) << method;
    }
    EXPECT_THAT(Call("ServiceInstance", "ServiceInstance", "RetrieveContent"), Not(HasSubstr("<about")));
}

TEST_F(SessionTest, ReturnsTheStatusOfTheSourceAndTheNumberOfVmsServed) {
    client = LoggedIn();
    const auto query = [&] {
        const std::string reply = Call("ServiceInstance", "ServiceInstance", "QueryStatus");
        const std::size_t begin = reply.find("<returnval>");
        return reply.substr(begin, reply.find("</QueryStatusResponse>") - begin);
    };
    EXPECT_EQ(query(), "<returnval><source/><connected>false</connected><vms>3</vms></returnval>");
    backend.status = {"described host /h\xff\n.yaml", false, "line 3", std::chrono::seconds(7)};
    EXPECT_EQ(query(),
              "<returnval><source>described host /h\\xff\\x0a.yaml</source><connected>false</connected>"
              "<lastError>line 3</lastError><snapshotAge>7</snapshotAge><vms>3</vms></returnval>");
    backend.status = {"libvirt test:///default", true, {}, std::chrono::seconds(0)};
    backend.Replace("vms: []");
    EXPECT_EQ(query(),
              "<returnval><source>libvirt test:///default</source><connected>true</connected>"
              "<snapshotAge>0</snapshotAge><vms>0</vms></returnval>");
}

}  // namespace
}  // namespace Vessad
