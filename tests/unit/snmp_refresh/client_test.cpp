#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "apps/snmp/client/OrdaneClient.h"
#include "apps/snmp/client/SNMPWriter.h"
#include "apps/snmp/refresh/SNMPRaskHelper.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/exception.h"
#include "tests/support/api_objects.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp_refresh/log_lines.h"

namespace SNMP {
namespace {

using ApiObjects::Config;
using Ordane::DataArray;
using Tessim::MakeRef;
using Tessim::Ref;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using TestSupport::FakeDaemon;
using TestSupport::FakeHost;
using TestSupport::LogCapture;
using TestSupport::LogLine;

using VmArray = DataArray<Hask::VirtualMachine>;

class NullLogger final : public virtual Tessim::Service::Logger, public Tessim::ObjectImpl {
  public:
    const std::string& GetName() const override { return name; }
    void Write(LogLevel /*level*/, std::string_view /*text*/) override {}

  private:
    std::string name = "null";
};

// A client of its own, not the process-wide one.
class ClientTest : public testing::Test {
  protected:
    ClientTest() {
        Tessim::Service::InitApp();
        Tessim::Service::SetDefaultLogger(MakeRef<NullLogger>().Get());
    }

    // Makes the daemon's connection break at that call, once.
    void BreakAt(const std::string& method) {
        daemon.WhenSent(method, [this, method] {
            daemon.WhenSent(method, nullptr);
            throw Tessim::StreamException("connection reset");
        });
    }

    // Makes that call fail with a failure whose back-trace is known.
    void FailAt(const std::string& method) {
        daemon.WhenCalled(method, [this] { throw failure; });
    }

    int CountConnections() const { return static_cast<int>(daemon.openings.size()); }

    void SetCores(int cores) {
        const auto cpu = MakeRef<Hask::Host::CpuInfo>();
        cpu->SetNumCpuCores(cores);
        host.hardware = MakeRef<Hask::Host::HardwareInfo>();
        host.hardware->SetCpuInfo(cpu);
    }

    void SetMemory(std::int64_t reserved, std::int64_t unreserved) {
        host.consoleReservation = MakeRef<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo>();
        host.consoleReservation->SetServiceConsoleReserved(reserved);
        host.consoleReservation->SetUnreserved(unreserved);
    }

    FakeDaemon daemon;
    FakeHost& host = daemon.host;
    LogCapture log;
    Ref<OrdaneClient> client = MakeRef<OrdaneClient>();
    const Tessim::Exception failure{"it failed"};
};

// The process-wide client.

TEST(ProcessWideClient, IsMadeOnceAndConnectsOnce) {
    FakeDaemon daemon;
    OrdaneClient* const client = GetOrdaneClient();
    ASSERT_NE(client, nullptr);
    EXPECT_TRUE(client->IsInitialized());
    EXPECT_EQ(GetOrdaneClient(), client);
    EXPECT_EQ(daemon.openings.size(), 1U);
    EXPECT_THAT(daemon.events, testing::Contains("create service logging to SNMP"));
}

TEST(ProcessWideClient, IsNullWhileTheDaemonIsDownAndTriesAgainEachTime) {
    FakeDaemon daemon;
    LogCapture log;
    daemon.down = "connection refused";
    for (int attempt = 1; attempt <= 2; ++attempt) {
        EXPECT_EQ(GetOrdaneClient(), nullptr);
        EXPECT_EQ(daemon.openings.size(), static_cast<std::size_t>(attempt));
        const std::vector<LogLine> lines = log.Take();
        ASSERT_GE(lines.size(), 4U);
        // The connection that never was says so through the writer.
        EXPECT_EQ(lines[0], (LogLine{6, "Disconnect: not connected.\n"}));
        EXPECT_EQ(lines[1], (LogLine{4, "OrdaneClient::Init: :connection refused\n"}));
        for (std::size_t i = 2; i + 1 < lines.size(); ++i) {
            EXPECT_EQ(lines[i].priority, 7);
            EXPECT_EQ(lines[i].text.back(), '\n');
        }
        EXPECT_EQ(lines.back(), (LogLine{4, "Could not init ordane client to tovric-vessad.\n"}));
    }
    daemon.down.clear();
    EXPECT_NE(GetOrdaneClient(), nullptr);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST(ProcessWideClient, IsTriedWhenTheModuleStarts) {
    FakeDaemon daemon;
    EXPECT_NE(SNMPRaskHelper_Init(), 0);
    EXPECT_EQ(daemon.openings.size(), 1U);
    EXPECT_THAT(daemon.calls, ElementsAre("AcquireLocalTicket", "Login"));
}

TEST(ProcessWideClient, StartsWithoutADaemonToo) {
    FakeDaemon daemon;
    LogCapture log;
    daemon.down = "connection refused";
    EXPECT_EQ(SNMPRaskHelper_Init(), 0);
    EXPECT_EQ(log.Take().back(), (LogLine{4, "Could not init ordane client to tovric-vessad.\n"}));
}

TEST(ProcessWideClient, SendsTheRuntimesMessagesToTheAgentsLog) {
    FakeDaemon daemon;
    LogCapture log;
    daemon.host.ticketContent = std::string(1024, 'x');
    EXPECT_NE(GetOrdaneClient(), nullptr);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{6, "Failed to read ticket. Ticket file too long.\n"}));
}

TEST(ProcessWideClient, TellsTheAgentsLogWhyThereIsNoTicket) {
    FakeDaemon daemon;
    LogCapture log;
    daemon.host.WhenAsked("AcquireLocalTicket",
                          [] { throw Ordane::Fault::SystemError::Exception("no tickets today"); });
    EXPECT_NE(GetOrdaneClient(), nullptr);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{6, "Failed to acquire local ticket: no tickets today\n"}));
}

TEST(ProcessWideClient, MakesNoNewLoggerWhenAQueryReconnects) {
    FakeDaemon daemon;
    LogCapture log;
    OrdaneClient* const client = GetOrdaneClient();
    ASSERT_NE(client, nullptr);
    daemon.WhenSent("GetChildEntity", [] { throw Tessim::StreamException("reset"); });
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    EXPECT_FALSE(client->IsInitialized());
    daemon.events.clear();
    daemon.WhenSent("GetChildEntity", nullptr);
    client->GetAllVM(vms);
    EXPECT_TRUE(vms);
    EXPECT_THAT(daemon.events, testing::Contains("open stream"));
    // What the new connection has to say still reaches the agent.
    log.Take();
    daemon.host.ticketContent = std::string(1024, 'x');
    daemon.WhenSent("GetChildEntity", [] { throw Tessim::StreamException("reset"); });
    client->GetAllVM(vms);
    client->GetAllVM(vms);
    EXPECT_THAT(log.Take(), testing::Contains(LogLine{6, "Failed to read ticket. Ticket file too long.\n"}));
}

TEST(ProcessWideClient, OpensItsOwnConnectionInAForkedChild) {
    FakeDaemon daemon;
    ASSERT_NE(GetOrdaneClient(), nullptr);
    daemon.host.vms = {{"16", nullptr, nullptr, nullptr}};
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        daemon.events.clear();
        Ref<VmArray> vms;
        OrdaneClient* const client = GetOrdaneClient();
        if (client == nullptr || daemon.openings.size() != 2 || daemon.host.logins.size() != 2) {
            _exit(1);
        }
        // The parent's session goes on.
        if (daemon.CountCalls("Logout") != 0) {
            _exit(2);
        }
        client->GetAllVM(vms);
        if (!vms || vms->GetLength() != 1 || daemon.openings.size() != 2) {
            _exit(3);
        }
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(GetOrdaneClient()->IsInitialized());
    EXPECT_EQ(daemon.openings.size(), 1U);
}

TEST(ProcessWideClient, OpensItsOwnConnectionForAQueryInAForkedChild) {
    FakeDaemon daemon;
    OrdaneClient* const client = GetOrdaneClient();
    ASSERT_NE(client, nullptr);
    daemon.foreignStreams = true;
    EXPECT_FALSE(client->IsInitialized());
    // A new connection belongs to this process again.
    daemon.WhenSent("AcquireLocalTicket", [&] { daemon.foreignStreams = false; });
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    EXPECT_TRUE(vms);
    EXPECT_EQ(daemon.openings.size(), 2U);
    EXPECT_EQ(daemon.CountCalls("Logout"), 0);
}

// Init.

TEST_F(ClientTest, IsNotConnectedAtFirst) {
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_EQ(CountConnections(), 0);
    client.Reset();
    EXPECT_EQ(CountConnections(), 0);
    EXPECT_THAT(daemon.calls, IsEmpty());
}

TEST_F(ClientTest, ConnectsOnceHoweverOftenItIsAsked) {
    EXPECT_TRUE(client->Init(nullptr));
    EXPECT_TRUE(client->Init(nullptr));
    EXPECT_TRUE(client->Init(MakeRef<SNMPWriter>().Get()));
    EXPECT_EQ(CountConnections(), 1);
    EXPECT_THAT(daemon.events, testing::Not(testing::Contains("create service logging to SNMP")));
}

TEST_F(ClientTest, IsConnectedAlsoWhenTheTicketCouldNotBeRead) {
    host.ticketPath = "/nowhere";
    EXPECT_TRUE(client->Init(nullptr));
    EXPECT_THAT(log.Take(), IsEmpty());
    // The daemon refuses the first query instead.
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    EXPECT_FALSE(vms);
    EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("OrdaneClient::GetAllVM: :log in first\n"));
    EXPECT_TRUE(client->IsInitialized());
}

TEST_F(ClientTest, FailsToConnectWhenTheLoginIsRefused) {
    host.WhenAsked("Login", [] { throw Ordane::Fault::InvalidLogin::Exception("who are you?"); });
    EXPECT_FALSE(client->Init(nullptr));
    const std::vector<LogLine> lines = log.Take();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], (LogLine{4, "OrdaneClient::Init: :who are you?\n"}));
    EXPECT_EQ(lines[1].priority, 7);
    EXPECT_FALSE(client->IsInitialized());
}

TEST_F(ClientTest, LogsTheBacktraceOfAFailedConnectionAsDebugLines) {
    FailAt("Login");
    EXPECT_FALSE(client->Init(nullptr));
    EXPECT_THAT(log.Take(), ElementsAreArray(Report("OrdaneClient::Init: :it failed\n", failure, 7)));
}

TEST_F(ClientTest, LetsStrangeExceptionsOfAConnectionPass) {
    daemon.WhenCalled("Login", [] { throw std::runtime_error("not of the runtime"); });
    EXPECT_THROW(client->Init(nullptr), std::runtime_error);
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_THAT(log.Take(), IsEmpty());
    daemon.WhenCalled("Login", nullptr);
    EXPECT_TRUE(client->Init(nullptr));
}

TEST_F(ClientTest, ConnectsAnewAfterAStepOfConnectingFailed) {
    for (const char* step : {"get connection path", "map ", "create adapter", "get factory"}) {
        client = MakeRef<OrdaneClient>();
        daemon.failingStep = step;
        EXPECT_FALSE(client->Init(nullptr)) << step;
        EXPECT_FALSE(client->IsInitialized()) << step;
        const std::vector<std::string> texts = TextsOf(log.Take(), 4);
        ASSERT_EQ(texts.size(), 1U) << step;
        EXPECT_THAT(texts[0], testing::StartsWith(std::string("OrdaneClient::Init: :") + step));
        EXPECT_EQ(daemon.streams, 0) << step;
        daemon.failingStep.clear();
        Ref<VmArray> vms;
        client->GetAllVM(vms);
        EXPECT_TRUE(vms) << step;
        EXPECT_EQ(daemon.streams, 1) << step;
        client.Reset();
        EXPECT_EQ(daemon.streams, 0) << step;
    }
}

// GetAllVM.

TEST_F(ClientTest, ListsEveryChildOfTheFolderInItsOrder) {
    host.vms = {{"48", nullptr, nullptr, nullptr},
                {"16", Config("web"), nullptr, nullptr},
                {"not-a-number", nullptr, nullptr, nullptr}};
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    ASSERT_TRUE(vms);
    ASSERT_EQ(vms->GetLength(), 3);
    EXPECT_EQ((*vms)[0]->GetMoRef()->GetId(), "48");
    EXPECT_EQ((*vms)[1]->GetMoRef()->GetId(), "16");
    EXPECT_EQ((*vms)[2]->GetMoRef()->GetId(), "not-a-number");
    EXPECT_THAT(daemon.calls, ElementsAre("AcquireLocalTicket", "Login", "GetChildEntity"));
}

TEST_F(ClientTest, ListsNoVmOfAnEmptyFolder) {
    const auto before = MakeRef<VmArray>();
    Ref<VmArray> vms = before;
    client->GetAllVM(vms);
    ASSERT_TRUE(vms);
    EXPECT_NE(vms, before);
    EXPECT_EQ(vms->GetLength(), 0);
}

TEST_F(ClientTest, ListsNothingWhileTheDaemonIsDown) {
    daemon.down = "connection refused";
    Ref<VmArray> vms = MakeRef<VmArray>();
    client->GetAllVM(vms);
    EXPECT_FALSE(vms);
    EXPECT_EQ(log.Take().front(), (LogLine{4, "OrdaneClient::Init: :connection refused\n"}));
}

TEST_F(ClientTest, LogsNothingWhenTheConnectionBreaksWhileListing) {
    BreakAt("GetChildEntity");
    Ref<VmArray> vms = MakeRef<VmArray>();
    client->GetAllVM(vms);
    EXPECT_FALSE(vms);
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_THAT(log.Take(), IsEmpty());

    client->GetAllVM(vms);
    EXPECT_TRUE(vms);
    EXPECT_EQ(CountConnections(), 2);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ClientTest, ReportsAFailedListingAndStaysConnected) {
    FailAt("GetChildEntity");
    Ref<VmArray> vms = MakeRef<VmArray>();
    client->GetAllVM(vms);
    EXPECT_FALSE(vms);
    EXPECT_THAT(log.Take(), ElementsAreArray(Report("OrdaneClient::GetAllVM: :it failed\n", failure, 7)));
    EXPECT_TRUE(client->IsInitialized());
    EXPECT_EQ(CountConnections(), 1);
}

TEST_F(ClientTest, LetsStrangeExceptionsOfAQueryPass) {
    daemon.WhenCalled("GetChildEntity", [] { throw std::runtime_error("not of the runtime"); });
    Ref<VmArray> vms;
    EXPECT_THROW(client->GetAllVM(vms), std::runtime_error);
    EXPECT_THAT(log.Take(), IsEmpty());
    EXPECT_TRUE(client->IsInitialized());
}

// A folder without an array of children, and a factory that fails at one machine: no answer of the wire says
// that, so the client gets such a factory directly.
class OddFolder final : public Hask::Folder {
  public:
    explicit OddFolder(Ref<DataArray<Ordane::MoRef>> children)
        : Folder(ApiObjects::Reference("Folder", "ha-folder-vm")), children(std::move(children)) {}
    void GetChildEntity(Ref<DataArray<Ordane::MoRef>>& out) override { out = children; }

  private:
    Ref<DataArray<Ordane::MoRef>> children;
};

class OddFactory : public virtual Hask::MoFactory, public Tessim::ObjectImpl {
  public:
    OddFactory(FakeHost& host, Ref<DataArray<Ordane::MoRef>> children)
        : host(&host), children(std::move(children)) {}

    void GetSessionManager(Ref<Hask::SessionManager>& out) override {
        found = host->Find(Ordane::MoRef("SessionManager", "ha-sessionmgr"));
        out = Tessim::NarrowToType<Hask::SessionManager>(found);
    }
    void GetVmFolder(Ref<Hask::Folder>& out) override { out = MakeRef<OddFolder>(children); }
    void GetVirtualMachine(const std::string& id, Ref<Hask::VirtualMachine>& out) override {
        if (id == "bad") {
            throw Tessim::InvalidArgumentException("a bad id");
        }
        found = host->Find(Ordane::MoRef("VirtualMachine", id));
        out = Tessim::NarrowToType<Hask::VirtualMachine>(found);
    }
    void GetServiceInstance(Ref<Hask::ServiceInstance>& /*out*/) override {}
    void GetHostSystem(Ref<Hask::HostSystem>& /*out*/) override {}
    void GetMemoryManagerSystem(Ref<Hask::Host::MemoryManagerSystem>& /*out*/) override {}
    void GetDatastore(const std::string& /*id*/, Ref<Hask::Datastore>& /*out*/) override {}
    void GetPerformanceManager(const std::string& /*id*/, Ref<Hask::PerformanceManager>& /*out*/) override {}

  private:
    FakeHost* host;
    Ref<DataArray<Ordane::MoRef>> children;
    Ref<Ordane::ManagedObject> found;
};

// A factory that has no session manager to give.
class SessionlessFactory final : public OddFactory {
  public:
    SessionlessFactory(FakeHost& host, const Tessim::Exception& failure)
        : OddFactory(host, nullptr), failure(&failure) {}
    void GetSessionManager(Ref<Hask::SessionManager>& /*out*/) override { throw Tessim::Exception(*failure); }

  private:
    const Tessim::Exception* failure;
};

TEST_F(ClientTest, FailsToConnectWithoutASessionManager) {
    daemon.factory = MakeRef<SessionlessFactory>(host, failure);
    EXPECT_FALSE(client->Init(nullptr));
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_THAT(log.Take(), ElementsAreArray(Report("OrdaneClient::Init: :it failed\n", failure, 7)));
    EXPECT_THAT(daemon.calls, IsEmpty());
    daemon.factory.Reset();
    EXPECT_TRUE(client->Init(nullptr));
    EXPECT_EQ(CountConnections(), 2);
}

TEST_F(ClientTest, ListsNothingOfAFolderWithoutAnArray) {
    daemon.factory = MakeRef<OddFactory>(host, nullptr);
    Ref<VmArray> vms = MakeRef<VmArray>();
    client->GetAllVM(vms);
    EXPECT_FALSE(vms);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ClientTest, KeepsWhatWasListedBeforeAFailure) {
    host.vms = {{"16", nullptr, nullptr, nullptr}};
    const auto children = ApiObjects::Array<Ordane::MoRef>(
        {ApiObjects::Reference("VirtualMachine", "16"), ApiObjects::Reference("VirtualMachine", "bad")});
    daemon.factory = MakeRef<OddFactory>(host, children);
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    ASSERT_TRUE(vms);
    ASSERT_EQ(vms->GetLength(), 1);
    EXPECT_EQ((*vms)[0]->GetMoRef()->GetId(), "16");
    EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("OrdaneClient::GetAllVM: :a bad id\n"));
}

// GetServiceInstanceContent.

TEST_F(ClientTest, AsksForTheServiceContentOnce) {
    host.content->SetAbout(MakeRef<Hask::AboutInfo>());
    host.content->GetAbout()->SetName("Product");
    Ref<Hask::ServiceInstanceContent> first;
    client->GetServiceInstanceContent(first);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->GetAbout()->GetName(), "Product");

    Ref<Hask::ServiceInstanceContent> second;
    client->GetServiceInstanceContent(second);
    EXPECT_EQ(second, first);
    EXPECT_EQ(daemon.CountCalls("RetrieveContent"), 1);
}

TEST_F(ClientTest, KeepsTheServiceContentAcrossAReconnect) {
    Ref<Hask::ServiceInstanceContent> first;
    client->GetServiceInstanceContent(first);
    BreakAt("GetChildEntity");
    Ref<VmArray> vms;
    client->GetAllVM(vms);

    // Not even a connection is needed.
    Ref<Hask::ServiceInstanceContent> second;
    client->GetServiceInstanceContent(second);
    EXPECT_EQ(second, first);
    EXPECT_EQ(CountConnections(), 1);
    client->GetAllVM(vms);
    EXPECT_EQ(CountConnections(), 2);
    client->GetServiceInstanceContent(second);
    EXPECT_EQ(second, first);
    EXPECT_EQ(daemon.CountCalls("RetrieveContent"), 1);
}

TEST_F(ClientTest, ReportsAFailedServiceContentAndAsksAgain) {
    FailAt("RetrieveContent");
    Ref<Hask::ServiceInstanceContent> content = MakeRef<Hask::ServiceInstanceContent>();
    client->GetServiceInstanceContent(content);
    EXPECT_FALSE(content);
    EXPECT_THAT(log.Take(), ElementsAreArray(
                                Report("OrdaneClient::GetServiceInstanceContent: :it failed\n", failure, 7)));
    daemon.WhenCalled("RetrieveContent", nullptr);
    client->GetServiceInstanceContent(content);
    EXPECT_TRUE(content);
    EXPECT_EQ(CountConnections(), 1);
}

TEST_F(ClientTest, ReportsABrokenConnectionOfTheServiceContent) {
    BreakAt("RetrieveContent");
    Ref<Hask::ServiceInstanceContent> content;
    client->GetServiceInstanceContent(content);
    EXPECT_FALSE(content);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{
                                4, "GetServiceInstanceContent: connection to tovric-vessad is broken.\n"}));
    EXPECT_FALSE(client->IsInitialized());
    client->GetServiceInstanceContent(content);
    EXPECT_TRUE(content);
    EXPECT_EQ(CountConnections(), 2);
}

TEST_F(ClientTest, HasNoServiceContentWhileTheDaemonIsDown) {
    daemon.down = "connection refused";
    Ref<Hask::ServiceInstanceContent> content = MakeRef<Hask::ServiceInstanceContent>();
    client->GetServiceInstanceContent(content);
    EXPECT_FALSE(content);
}

// GetDatastoreInfo.

TEST_F(ClientTest, AsksForADatastoreEachTime) {
    host.datastores["ds-1"] = MakeRef<Hask::Host::DrellDatastoreInfo>();
    host.datastores["ds-2"] = MakeRef<Hask::Datastore::Info>();
    Ref<Hask::Datastore::Info> info;
    client->GetDatastoreInfo("ds-1", info);
    EXPECT_NE(Tessim::NarrowToType<Hask::Host::DrellDatastoreInfo>(info), nullptr);
    client->GetDatastoreInfo("ds-2", info);
    ASSERT_TRUE(info);
    EXPECT_EQ(Tessim::NarrowToType<Hask::Host::DrellDatastoreInfo>(info), nullptr);
    client->GetDatastoreInfo("ds-2", info);
    EXPECT_EQ(daemon.CountCalls("GetInfo"), 3);
}

TEST_F(ClientTest, HasNoInformationOfADatastoreThatHasNone) {
    host.datastores["ds-1"] = nullptr;
    Ref<Hask::Datastore::Info> info = MakeRef<Hask::Datastore::Info>();
    client->GetDatastoreInfo("ds-1", info);
    EXPECT_FALSE(info);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ClientTest, ReportsAnUnknownDatastore) {
    Ref<Hask::Datastore::Info> info = MakeRef<Hask::Datastore::Info>();
    client->GetDatastoreInfo("ds-9", info);
    EXPECT_FALSE(info);
    EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("OrdaneClient::GetDatastoreInfo: :no Datastore ds-9\n"));
    EXPECT_TRUE(client->IsInitialized());
}

TEST_F(ClientTest, ReportsAFailedDatastoreQueryWithItsBacktrace) {
    FailAt("GetInfo");
    Ref<Hask::Datastore::Info> info;
    client->GetDatastoreInfo("ds-1", info);
    EXPECT_THAT(log.Take(),
                ElementsAreArray(Report("OrdaneClient::GetDatastoreInfo: :it failed\n", failure, 7)));
}

TEST_F(ClientTest, ReportsABrokenConnectionOfADatastoreQuery) {
    BreakAt("GetInfo");
    Ref<Hask::Datastore::Info> info = MakeRef<Hask::Datastore::Info>();
    client->GetDatastoreInfo("ds-1", info);
    EXPECT_FALSE(info);
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "GetDatastoreInfo: connection to tovric-vessad is broken.\n"}));
    EXPECT_FALSE(client->IsInitialized());
}

TEST_F(ClientTest, HasNoInformationOfADatastoreWhileTheDaemonIsDown) {
    host.datastores["ds-1"] = MakeRef<Hask::Datastore::Info>();
    daemon.down = "connection refused";
    Ref<Hask::Datastore::Info> info = MakeRef<Hask::Datastore::Info>();
    client->GetDatastoreInfo("ds-1", info);
    EXPECT_FALSE(info);
    EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("OrdaneClient::Init: :connection refused\n"));
    EXPECT_EQ(daemon.CountCalls("GetInfo"), 0);
    daemon.down.clear();
    client->GetDatastoreInfo("ds-1", info);
    EXPECT_TRUE(info);
}

// GetNumCpuCores.

TEST_F(ClientTest, AsksForTheCoresOnceTheyAreKnown) {
    SetCores(8);
    EXPECT_EQ(client->GetNumCpuCores(), 8);
    SetCores(9);
    EXPECT_EQ(client->GetNumCpuCores(), 8);
    EXPECT_EQ(daemon.CountCalls("GetHardware"), 1);
    // The count belongs to the process, not to the client.
    EXPECT_EQ(MakeRef<OrdaneClient>()->GetNumCpuCores(), 8);
    EXPECT_EQ(CountConnections(), 1);
}

TEST_F(ClientTest, AsksAHostWithoutCoresEachTime) {
    SetCores(0);
    EXPECT_EQ(client->GetNumCpuCores(), 0);
    EXPECT_EQ(client->GetNumCpuCores(), 0);
    EXPECT_EQ(daemon.CountCalls("GetHardware"), 2);
}

TEST_F(ClientTest, CutsTheCoresTo16Bits) {
    SetCores(65536);
    EXPECT_EQ(client->GetNumCpuCores(), 0);
    SetCores(70000);
    EXPECT_EQ(client->GetNumCpuCores(), 70000 - 65536);
}

TEST_F(ClientTest, ReadsTheCoresAsSigned) {
    SetCores(40000);
    EXPECT_EQ(client->GetNumCpuCores(), 40000 - 65536);
}

TEST_F(ClientTest, KnowsNoCoresOfAHostThatDoesNotSay) {
    EXPECT_EQ(client->GetNumCpuCores(), 0);
    host.hardware = MakeRef<Hask::Host::HardwareInfo>();
    EXPECT_EQ(client->GetNumCpuCores(), 0);
    EXPECT_TRUE(client->IsInitialized());
}

TEST_F(ClientTest, ReportsAFailedCoreCount) {
    SetCores(8);
    FailAt("GetHardware");
    EXPECT_EQ(client->GetNumCpuCores(), 0);
    EXPECT_THAT(log.Take(),
                ElementsAreArray(Report("OrdaneClient::GetNumCpuCores: :it failed\n", failure, 7)));
    EXPECT_TRUE(client->IsInitialized());
    daemon.WhenCalled("GetHardware", nullptr);
    EXPECT_EQ(client->GetNumCpuCores(), 8);
}

TEST_F(ClientTest, ReportsABrokenConnectionOfTheCoreCount) {
    SetCores(8);
    BreakAt("GetHardware");
    EXPECT_EQ(client->GetNumCpuCores(), 0);
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "GetNumCpuCores: connection to tovric-vessad is broken.\n"}));
    EXPECT_EQ(client->GetNumCpuCores(), 8);
    EXPECT_EQ(CountConnections(), 2);
}

TEST_F(ClientTest, KnowsNoCoresWhileTheDaemonIsDown) {
    daemon.down = "connection refused";
    EXPECT_EQ(client->GetNumCpuCores(), 0);
}

// GetMemoryReservation.

TEST_F(ClientTest, GivesTheReservationInBytesFirstAndInKilobytesAfterwards) {
    SetMemory(285212672, 1862270976);
    std::int64_t reserved = -1;
    EXPECT_EQ(client->GetMemoryReservation(reserved), 2097152);
    EXPECT_EQ(reserved, 285212672);
    EXPECT_EQ(client->GetMemoryReservation(reserved), 2097152);
    EXPECT_EQ(reserved, 278528);
    EXPECT_EQ(client->GetMemoryReservation(reserved), 2097152);
    EXPECT_EQ(reserved, 278528);
    EXPECT_EQ(daemon.CountCalls("GetConsoleReservationInfo"), 1);
}

TEST_F(ClientTest, AsksForAReservationOfZeroEachTime) {
    SetMemory(0, 4096);
    std::int64_t reserved = -1;
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(client->GetMemoryReservation(reserved), 4);
        EXPECT_EQ(reserved, 0);
        EXPECT_EQ(daemon.CountCalls("GetConsoleReservationInfo"), i);
    }
}

TEST_F(ClientTest, AsksForAReservationBelowOneKilobyteEachTime) {
    SetMemory(1023, 1);
    std::int64_t reserved = 0;
    EXPECT_EQ(client->GetMemoryReservation(reserved), 1);
    EXPECT_EQ(reserved, 1023);
    EXPECT_EQ(client->GetMemoryReservation(reserved), 1);
    EXPECT_EQ(reserved, 1023);
    EXPECT_EQ(daemon.CountCalls("GetConsoleReservationInfo"), 2);
}

TEST_F(ClientTest, RoundsKilobytesTowardZero) {
    SetMemory(-3000, -1000);
    std::int64_t reserved = 0;
    EXPECT_EQ(client->GetMemoryReservation(reserved), -3);
    EXPECT_EQ(reserved, -3000);
    EXPECT_EQ(client->GetMemoryReservation(reserved), -3);
    EXPECT_EQ(reserved, -2);
}

TEST_F(ClientTest, SurvivesAbsurdReservations) {
    const std::int64_t largest = INT64_MAX;
    std::int64_t reserved = 0;
    SetMemory(largest, largest);
    EXPECT_EQ(client->GetMemoryReservation(reserved), 0);  // wrapped to -2 bytes
    EXPECT_EQ(reserved, largest);
    // A total of 0 is not kept.
    SetMemory(largest, 1);
    EXPECT_EQ(client->GetMemoryReservation(reserved), INT64_MIN / 1024);
    EXPECT_EQ(reserved, largest);
    EXPECT_EQ(client->GetMemoryReservation(reserved), INT64_MIN / 1024);
    EXPECT_EQ(reserved, largest / 1024);
}

TEST_F(ClientTest, ReportsAFailedReservationUnderItsShortName) {
    SetMemory(4096, 4096);
    FailAt("GetConsoleReservationInfo");
    std::int64_t reserved = -1;
    EXPECT_EQ(client->GetMemoryReservation(reserved), 0);
    EXPECT_EQ(reserved, 0);
    EXPECT_THAT(log.Take(), ElementsAreArray(Report("OrdaneClient::GetMemory: :it failed\n", failure, 7)));
    EXPECT_TRUE(client->IsInitialized());
}

TEST_F(ClientTest, ReportsABrokenConnectionOfTheReservationAsOneOfTheCoreCount) {
    SetMemory(4096, 4096);
    BreakAt("GetConsoleReservationInfo");
    std::int64_t reserved = -1;
    EXPECT_EQ(client->GetMemoryReservation(reserved), 0);
    EXPECT_EQ(reserved, 0);
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "GetNumCpuCores: connection to tovric-vessad is broken.\n"}));
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_EQ(client->GetMemoryReservation(reserved), 8);
    EXPECT_EQ(reserved, 4096);
}

TEST_F(ClientTest, HasNoReservationOfAHostThatDoesNotSay) {
    std::int64_t reserved = -1;
    EXPECT_EQ(client->GetMemoryReservation(reserved), 0);
    EXPECT_EQ(reserved, 0);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ClientTest, HasNoReservationWhileTheDaemonIsDown) {
    daemon.down = "connection refused";
    std::int64_t reserved = -1;
    EXPECT_EQ(client->GetMemoryReservation(reserved), 0);
    EXPECT_EQ(reserved, 0);
}

TEST_F(ClientTest, ForgetsAnUnfinishedReservation) {
    SetMemory(0, 4096);
    std::int64_t reserved = -1;
    EXPECT_EQ(client->GetMemoryReservation(reserved), 4);
    BreakAt("GetConsoleReservationInfo");
    EXPECT_EQ(client->GetMemoryReservation(reserved), 0);
}

// The end of a client.

TEST_F(ClientTest, LogsOutAtItsEnd) {
    client->Init(nullptr);
    client.Reset();
    EXPECT_EQ(daemon.calls.back(), "Logout");
    EXPECT_EQ(daemon.events.back(), "shut service down");
}

TEST_F(ClientTest, ClosesABrokenConnectionAtOnce) {
    BreakAt("GetChildEntity");
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    EXPECT_THAT(daemon.events,
                testing::IsSupersetOf({"close adapter", "close stream /connection/1", "shut service down"}));
    // The broken adapter sent no goodbye.
    EXPECT_EQ(daemon.CountCalls("Logout"), 0);
}

// The writer.

TEST(Writer, LogsAtPrioritySixWhateverTheLength) {
    LogCapture log;
    const auto writer = MakeRef<SNMPWriter>();
    writer->Write("100% of %s\n", 3);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{6, "100% of %s\n"}));
}

TEST(Writer, GoesOnAfterItsClose) {
    LogCapture log;
    const auto writer = MakeRef<SNMPWriter>();
    writer->Close();
    EXPECT_THAT(log.Take(), IsEmpty());
    writer->Write("still here\n", 11);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{6, "still here\n"}));
}

TEST(Writer, TellsWhatItIs) {
    EXPECT_EQ(MakeRef<SNMPWriter>()->ToString(), "SNMP Writer\n");
}

}  // namespace
}  // namespace SNMP
