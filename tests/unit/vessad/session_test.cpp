#include "apps/vessad/Session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <optional>
#include <string>

#include "runtime/hask/host_agent.h"
#include "runtime/hask/mo_factory.h"
#include "runtime/ordane/faults.h"
#include "tests/support/local_adapter.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/sample_host.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad {
namespace {

namespace Fault = Ordane::Fault;
using Hask::PerformanceManager;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using VessadTest::FilesIn;
using VessadTest::ReadAll;

// A connection to a daemon within this process, with the client's own stubs.
class SessionTest : public ::testing::Test {
  protected:
    SessionTest() {
        Hask::GetMoStubFactory("solo", adapter.Get(), factory);
        factory->GetSessionManager(sessions);
    }

    Tessim::Ref<Hask::SessionManager::LocalTicket> AskForTicket() {
        Tessim::Ref<Hask::SessionManager::LocalTicket> ticket;
        sessions->AcquireLocalTicket("root", ticket);
        return ticket;
    }

    Tessim::Ref<Hask::UserSession> LogInWith(const std::string& user, const std::string& password) {
        Tessim::Ref<Hask::UserSession> userSession;
        sessions->Login(user, password, "en", userSession);
        return userSession;
    }

    void LogIn() { LogInWith("root", ReadAll(AskForTicket()->GetPasswordFilePath())); }

    Tessim::Ref<Hask::ServiceInstanceContent> GetContent() {
        Tessim::Ref<Hask::ServiceInstance> instance;
        factory->GetServiceInstance(instance);
        Tessim::Ref<Hask::ServiceInstanceContent> content;
        instance->RetrieveContent(content);
        return content;
    }

    std::vector<std::string> GetChildren() {
        Tessim::Ref<Hask::Folder> folder;
        factory->GetVmFolder(folder);
        Tessim::Ref<Ordane::DataArray<Ordane::MoRef>> children;
        folder->GetChildEntity(children);
        std::vector<std::string> names;
        for (const auto& child : *children) {
            names.push_back(child->GetType() + " " + child->GetId());
        }
        return names;
    }

    Tessim::Ref<Hask::Vm::ConfigInfo> GetConfig(const std::string& id) {
        Tessim::Ref<Hask::VirtualMachine> vm;
        factory->GetVirtualMachine(id, vm);
        Tessim::Ref<Hask::Vm::ConfigInfo> config;
        vm->GetConfig(config);
        return config;
    }

    VessadTest::LogLines log;
    VessadTest::TemporaryDirectory directory;
    VessadTest::TestBackend backend;
    boost::asio::io_context io;
    TicketStore tickets{{directory.GetPath(), ""}, io.get_executor()};
    Services services{backend, tickets};
    std::optional<Session> session{std::in_place, services, 1, "connection 1"};
    Tessim::Ref<TestSupport::LocalAdapter> adapter = Tessim::MakeRef<TestSupport::LocalAdapter>(*session);
    Tessim::Ref<Hask::MoFactory> factory;
    Tessim::Ref<Hask::SessionManager> sessions;
};

TEST_F(SessionTest, AnswersTheServiceContentBeforeLogin) {
    const auto content = GetContent();
    EXPECT_EQ(content->GetAbout()->GetVersion(), "1.2.3");
    EXPECT_EQ(content->GetSessionManager()->GetId(), Hask::HostAgent::moid_sessionmanager);
    EXPECT_EQ(content->GetPerfManager()->GetId(), Hask::HostAgent::moid_perfmanager);
    EXPECT_EQ(content->GetPerfManager()->GetType(), "PerformanceManager");
}

TEST_F(SessionTest, AnswersNothingElseBeforeLogin) {
    EXPECT_THROW(GetChildren(), Fault::NotAuthenticated::Exception);
    EXPECT_THROW(GetConfig("16"), Fault::NotAuthenticated::Exception);
    EXPECT_THROW(GetConfig("gone"), Fault::NotAuthenticated::Exception);
    EXPECT_THROW(sessions->Logout(), Fault::NotAuthenticated::Exception);
    Tessim::Ref<Hask::PerformanceManager> performance;
    factory->GetPerformanceManager(Hask::HostAgent::moid_perfmanager, performance);
    Tessim::Ref<Ordane::DataArray<PerformanceManager::CounterInfo>> counters;
    EXPECT_THROW(performance->GetPerfCounter(counters), Fault::NotAuthenticated::Exception);
}

TEST_F(SessionTest, GivesATicketWhoseFileHoldsThePassword) {
    const auto ticket = AskForTicket();
    EXPECT_EQ(ticket->GetUserName(), "root");
    EXPECT_EQ(std::filesystem::path(ticket->GetPasswordFilePath()).parent_path(), directory.GetPath());
    const auto userSession = LogInWith("root", ReadAll(ticket->GetPasswordFilePath()));
    EXPECT_EQ(userSession->GetUserName(), "root");
    EXPECT_EQ(userSession->GetLocale(), "en");
    EXPECT_TRUE(session->IsLoggedIn());
    EXPECT_FALSE(session->TakeRefusal());
    EXPECT_TRUE(FilesIn(directory.GetPath()).empty());
    EXPECT_THAT(log.GetText(), HasSubstr("info connection 1: root logged in\n"));
}

TEST_F(SessionTest, GivesTicketsToRootOnly) {
    Tessim::Ref<Hask::SessionManager::LocalTicket> ticket;
    EXPECT_THROW(sessions->AcquireLocalTicket("admin", ticket), Fault::InvalidArgument::Exception);
    EXPECT_EQ(tickets.Count(), 0U);
}

TEST_F(SessionTest, RefusesAWrongPasswordAndUsesTheTicketUp) {
    const std::string right = ReadAll(AskForTicket()->GetPasswordFilePath());
    EXPECT_THROW(LogInWith("root", "guess"), Fault::InvalidLogin::Exception);
    EXPECT_TRUE(session->TakeRefusal());
    EXPECT_FALSE(session->TakeRefusal());
    EXPECT_FALSE(session->IsLoggedIn());
    EXPECT_TRUE(FilesIn(directory.GetPath()).empty());
    EXPECT_THROW(LogInWith("root", right), Fault::InvalidLogin::Exception);
    EXPECT_THAT(log.GetText(),
                HasSubstr("warning connection 1: refused the login of \"root\": not the password "
                          "of this connection's ticket\n"));
}

TEST_F(SessionTest, RefusesAnotherUserWithTheRightPassword) {
    const std::string right = ReadAll(AskForTicket()->GetPasswordFilePath());
    EXPECT_THROW(LogInWith("ro\not", right), Fault::InvalidLogin::Exception);
    EXPECT_FALSE(session->IsLoggedIn());
    EXPECT_THAT(log.GetText(), HasSubstr("refused the login of \"ro\\x0aot\": unknown user\n"));
}

TEST_F(SessionTest, LogsOut) {
    LogIn();
    EXPECT_NO_THROW(GetChildren());
    sessions->Logout();
    EXPECT_FALSE(session->IsLoggedIn());
    EXPECT_THROW(GetChildren(), Fault::NotAuthenticated::Exception);
}

TEST_F(SessionTest, RemovesItsTicketWhenItEnds) {
    AskForTicket();
    EXPECT_EQ(FilesIn(directory.GetPath()).size(), 1U);
    session.reset();
    EXPECT_TRUE(FilesIn(directory.GetPath()).empty());
    EXPECT_EQ(tickets.Count(), 0U);
}

TEST_F(SessionTest, AnswersASystemErrorWhenNoTicketCanBeWritten) {
    std::filesystem::remove(directory.GetPath());
    EXPECT_THROW(AskForTicket(), Fault::SystemError::Exception);
    EXPECT_THAT(log.GetText(),
                HasSubstr("error connection 1: no ticket: cannot make a ticket file: No such file"));
}

TEST_F(SessionTest, ListsTheVmsInTheFoldersOrder) {
    LogIn();
    EXPECT_THAT(GetChildren(),
                ElementsAre("VirtualMachine 16", "VirtualMachine 17", "VirtualMachine name-17"));
    backend.Replace("vms: []");
    EXPECT_TRUE(GetChildren().empty());
}

TEST_F(SessionTest, ReturnsWhatAVmHas) {
    LogIn();
    EXPECT_EQ(GetConfig("16")->GetName(), "web");
    EXPECT_EQ(GetConfig("17"), nullptr);
    Tessim::Ref<Hask::VirtualMachine> vm;
    factory->GetVirtualMachine("16", vm);
    Tessim::Ref<Hask::Vm::RuntimeInfo> runtime;
    vm->GetRuntime(runtime);
    EXPECT_EQ(runtime->GetPowerState(), Hask::VirtualMachine::PowerState::poweredOn);
    Tessim::Ref<Hask::Vm::GuestInfo> guest;
    vm->GetGuest(guest);
    EXPECT_EQ(guest->GetGuestState(), "running");
    factory->GetVirtualMachine("name-17", vm);
    vm->GetGuest(guest);
    EXPECT_EQ(guest, nullptr);
}

TEST_F(SessionTest, SaysWhichObjectDoesNotExist) {
    LogIn();
    try {
        GetConfig("gone");
        FAIL() << "a VM that does not exist replied";
    } catch (const Fault::ManagedObjectNotFound::Exception& missing) {
        const auto* fault = Tessim::NarrowToType<Fault::ManagedObjectNotFound>(missing.GetFault());
        EXPECT_EQ(fault->GetObj()->GetId(), "gone");
    }
}

TEST_F(SessionTest, AnswersDatastoresWithTheirKind) {
    LogIn();
    Tessim::Ref<Hask::Datastore> datastore;
    Tessim::Ref<Hask::Datastore::Info> info;
    factory->GetDatastore("ds-1", datastore);
    datastore->GetInfo(info);
    const auto* cluster = Tessim::NarrowToType<Hask::Host::DrellDatastoreInfo>(info);
    ASSERT_NE(cluster, nullptr);
    EXPECT_EQ((*cluster->GetDrell()->GetExtent())[0]->GetDiskName(), "disk-0:0");
    factory->GetDatastore("gone", datastore);
    EXPECT_THROW(datastore->GetInfo(info), Fault::ManagedObjectNotFound::Exception);
}

TEST_F(SessionTest, AnswersTheHostsHardwareAndMemory) {
    LogIn();
    Tessim::Ref<Hask::HostSystem> host;
    factory->GetHostSystem(host);
    Tessim::Ref<Hask::Host::HardwareInfo> hardware;
    host->GetHardware(hardware);
    EXPECT_EQ(hardware->GetCpuInfo()->GetNumCpuCores(), 12);
    Tessim::Ref<Hask::Host::MemoryManagerSystem> memory;
    factory->GetMemoryManagerSystem(memory);
    Tessim::Ref<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo> reservation;
    memory->GetConsoleReservationInfo(reservation);
    EXPECT_EQ(reservation->GetServiceConsoleReserved(), 285212672);
    EXPECT_EQ(reservation->GetUnreserved(), 1862270976);
    backend.Replace("vms: []");
    host->GetHardware(hardware);
    EXPECT_EQ(hardware, nullptr);
}

TEST_F(SessionTest, AnswersTheCatalogueAndTheFigures) {
    LogIn();
    Tessim::Ref<Hask::PerformanceManager> performance;
    factory->GetPerformanceManager(Hask::HostAgent::moid_perfmanager, performance);
    Tessim::Ref<Ordane::DataArray<PerformanceManager::CounterInfo>> counters;
    performance->GetPerfCounter(counters);
    ASSERT_EQ(counters->GetLength(), 10);
    EXPECT_EQ((*counters)[9]->GetNameInfo()->GetKey(), "used");

    auto specs = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::QuerySpec>>();
    auto spec = Tessim::MakeRef<PerformanceManager::QuerySpec>();
    spec->SetEntity(Tessim::MakeRef<Ordane::MoRef>("VirtualMachine", "name-17"));
    auto metric = Tessim::MakeRef<PerformanceManager::MetricId>();
    metric->SetCounterId((*counters)[9]->GetKey());
    metric->SetInstance("*");
    spec->GetMetricId()->Append(metric);
    specs->Append(spec);
    Tessim::Ref<Ordane::DataArray<PerformanceManager::EntityMetricBase>> answer;
    performance->QueryPerf(specs.Get(), answer);
    ASSERT_EQ(answer->GetLength(), 1);
    const auto* figures = Tessim::NarrowToType<PerformanceManager::EntityMetric>((*answer)[0]);
    const auto* series = Tessim::NarrowToType<PerformanceManager::IntSeries>((*figures->GetValue())[0]);
    EXPECT_THAT(series->GetValue(), ElementsAre(4611686018427387904));
    EXPECT_THAT(log.GetText(), HasSubstr("debug QueryPerf of 1 entities\n"));
}

}  // namespace
}  // namespace Vessad
