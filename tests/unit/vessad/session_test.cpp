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

// A session in this process, called through the client's stubs.
class SessionTest : public ::testing::Test {
  protected:
    SessionTest() {
        Hask::GetMoStubFactory("solo", adapter.Get(), factory);
        factory->GetSessionManager(sessions);
    }

    Tessim::Ref<Hask::SessionManager::LocalTicket> AcquireTicket() {
        Tessim::Ref<Hask::SessionManager::LocalTicket> ticket;
        sessions->AcquireLocalTicket("root", ticket);
        return ticket;
    }

    Tessim::Ref<Hask::UserSession> LogInWith(const std::string& user, const std::string& password) {
        Tessim::Ref<Hask::UserSession> userSession;
        sessions->Login(user, password, "en", userSession);
        return userSession;
    }

    void LogIn() { LogInWith("root", ReadAll(AcquireTicket()->GetPasswordFilePath())); }

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
    std::optional<Session> session{std::in_place, services, 1};
    Tessim::Ref<TestSupport::LocalAdapter> adapter = Tessim::MakeRef<TestSupport::LocalAdapter>(*session);
    Tessim::Ref<Hask::MoFactory> factory;
    Tessim::Ref<Hask::SessionManager> sessions;
};

TEST_F(SessionTest, ReturnsTheServiceContentBeforeLogin) {
    Tessim::Ref<Hask::ServiceInstance> instance;
    factory->GetServiceInstance(instance);
    Tessim::Ref<Hask::ServiceInstanceContent> content;
    instance->RetrieveContent(content);
    EXPECT_EQ(content->GetAbout()->GetVersion(), "1.2.3");
    EXPECT_EQ(content->GetSessionManager()->GetId(), Hask::HostAgent::moid_sessionmanager);
    EXPECT_EQ(content->GetPerfManager()->GetId(), Hask::HostAgent::moid_perfmanager);
    EXPECT_EQ(content->GetPerfManager()->GetType(), "PerformanceManager");
}

TEST_F(SessionTest, LogsInWithTheTicketsPasswordAndOut) {
    EXPECT_THROW(GetChildren(), Fault::NotAuthenticated::Exception);
    EXPECT_THROW(sessions->Logout(), Fault::NotAuthenticated::Exception);
    const auto ticket = AcquireTicket();
    EXPECT_EQ(ticket->GetUserName(), "root");
    EXPECT_EQ(std::filesystem::path(ticket->GetPasswordFilePath()).parent_path(), directory.GetPath());
    const auto userSession = LogInWith("root", ReadAll(ticket->GetPasswordFilePath()));
    EXPECT_EQ(userSession->GetKey(), "connection 1");
    EXPECT_EQ(userSession->GetUserName(), "root");
    EXPECT_EQ(userSession->GetLocale(), "en");
    EXPECT_TRUE(session->IsLoggedIn());
    EXPECT_FALSE(session->TakeRejectedLogin());
    EXPECT_TRUE(FilesIn(directory.GetPath()).empty());
    EXPECT_THAT(log.GetText(), HasSubstr("info Connection 1: root logged in\n"));
    EXPECT_NO_THROW(GetChildren());
    sessions->Logout();
    EXPECT_FALSE(session->IsLoggedIn());
    EXPECT_THROW(GetChildren(), Fault::NotAuthenticated::Exception);
    EXPECT_THAT(log.GetText(), HasSubstr("info Connection 1: logged out\n"));
}

TEST_F(SessionTest, IssuesTicketsToRootOnly) {
    Tessim::Ref<Hask::SessionManager::LocalTicket> ticket;
    EXPECT_THROW(sessions->AcquireLocalTicket("admin", ticket), Fault::InvalidArgument::Exception);
    EXPECT_EQ(tickets.Count(), 0U);
}

TEST_F(SessionTest, RejectsAWrongPasswordAndRemovesTheTicket) {
    const std::string password = ReadAll(AcquireTicket()->GetPasswordFilePath());
    EXPECT_THROW(LogInWith("root", "guess"), Fault::InvalidLogin::Exception);
    EXPECT_TRUE(session->TakeRejectedLogin());
    EXPECT_FALSE(session->TakeRejectedLogin());
    EXPECT_FALSE(session->IsLoggedIn());
    EXPECT_TRUE(FilesIn(directory.GetPath()).empty());
    EXPECT_THROW(LogInWith("root", password), Fault::InvalidLogin::Exception);
    EXPECT_THAT(log.GetText(), HasSubstr("warning Connection 1: login of \"root\" rejected: not the password "
                                         "of this connection's ticket\n"));
}

TEST_F(SessionTest, RejectsAnotherUserWithTheRightPassword) {
    const std::string password = ReadAll(AcquireTicket()->GetPasswordFilePath());
    EXPECT_THROW(LogInWith("ro\not", password), Fault::InvalidLogin::Exception);
    EXPECT_FALSE(session->IsLoggedIn());
    EXPECT_THAT(log.GetText(), HasSubstr("login of \"ro\\x0aot\" rejected: unknown user\n"));
}

TEST_F(SessionTest, RemovesItsTicketWhenItEnds) {
    AcquireTicket();
    EXPECT_EQ(FilesIn(directory.GetPath()).size(), 1U);
    session.reset();
    EXPECT_TRUE(FilesIn(directory.GetPath()).empty());
    EXPECT_EQ(tickets.Count(), 0U);
}

TEST_F(SessionTest, ReturnsASystemErrorWhenNoTicketCanBeWritten) {
    std::filesystem::remove(directory.GetPath());
    EXPECT_THROW(AcquireTicket(), Fault::SystemError::Exception);
    EXPECT_THAT(log.GetText(), HasSubstr("error Connection 1: cannot issue a ticket: cannot create a ticket "
                                         "file: No such file"));
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

TEST_F(SessionTest, NamesTheObjectThatDoesNotExist) {
    LogIn();
    try {
        GetConfig("gone");
        FAIL() << "a VM that does not exist replied";
    } catch (const Fault::ManagedObjectNotFound::Exception& missing) {
        const auto* fault = Tessim::NarrowToType<Fault::ManagedObjectNotFound>(missing.GetFault());
        EXPECT_EQ(fault->GetObj()->GetId(), "gone");
    }
}

TEST_F(SessionTest, ReturnsDatastoresWithTheirKind) {
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

TEST_F(SessionTest, ReturnsTheHostsHardwareAndMemory) {
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

TEST_F(SessionTest, ReturnsTheCatalogueAndStatistics) {
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
    Tessim::Ref<Ordane::DataArray<PerformanceManager::EntityMetricBase>> result;
    performance->QueryPerf(specs.Get(), result);
    ASSERT_EQ(result->GetLength(), 1);
    const auto* metrics = Tessim::NarrowToType<PerformanceManager::EntityMetric>((*result)[0]);
    const auto* series = Tessim::NarrowToType<PerformanceManager::IntSeries>((*metrics->GetValue())[0]);
    EXPECT_THAT(series->GetValue(), ElementsAre(4611686018427387904));
    EXPECT_THAT(log.GetText(), HasSubstr("debug QueryPerf for 1 entities\n"));
}

}  // namespace
}  // namespace Vessad
