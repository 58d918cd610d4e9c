#include <sys/wait.h>
#include <unistd.h>

#include <ostream>
#include <stdexcept>

#include "apps/snmp/client/SNMPWriter.h"
#include "apps/snmp/refresh/SNMPRaskHelper.h"
#include "runtime/ordane/faults.h"
#include "tests/unit/snmp_refresh/fixture.h"

namespace RefreshTests {
namespace {

using Hask::ServiceInstanceContent;
using SNMP::GetOrdaneClient;
using testing::Contains;

using ProcessWideClientTest = DaemonTest;

TEST_F(ProcessWideClientTest, IsMadeOnceAndConnectsOnce) {
    OrdaneClient* const client = GetOrdaneClient();
    ASSERT_NE(client, nullptr);
    EXPECT_TRUE(client->IsInitialized());
    EXPECT_EQ(GetOrdaneClient(), client);
    EXPECT_EQ(daemon.openings.size(), 1U);
    EXPECT_THAT(daemon.events, Contains("create service logging to SNMP"));
}

TEST_F(ProcessWideClientTest, IsNullWhileTheDaemonIsDownAndRetriesEachTime) {
    daemon.down = "connection refused";
    for (const std::size_t attempt : {1U, 2U}) {
        EXPECT_EQ(GetOrdaneClient(), nullptr);
        EXPECT_EQ(daemon.openings.size(), attempt);
        const Lines lines = log.Take();
        ASSERT_GE(lines.size(), 4U);
        // The runtime's message comes through the writer.
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

TEST_F(ProcessWideClientTest, ConnectsWhenTheModuleStarts) {
    EXPECT_NE(SNMPRaskHelper_Init(), 0);
    EXPECT_EQ(daemon.openings.size(), 1U);
    EXPECT_THAT(daemon.calls, ElementsAre("AcquireLocalTicket", "Login"));
}

TEST_F(ProcessWideClientTest, LogsAStartWithoutADaemon) {
    daemon.down = "connection refused";
    EXPECT_EQ(SNMPRaskHelper_Init(), 0);
    EXPECT_EQ(log.Take().back(), (LogLine{4, "Could not init ordane client to tovric-vessad.\n"}));
}

TEST_F(ProcessWideClientTest, KeepsItsLoggerWhenAQueryReconnects) {
    const LogLine ticketLine{6, "Failed to read ticket. Ticket file too long.\n"};
    host.ticketContent = std::string(1024, 'x');
    OrdaneClient* const client = GetOrdaneClient();
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(log.Take(), Lines{ticketLine});
    BreakAt("GetChildEntity");
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_THAT(log.Take(), IsEmpty());
    client->GetAllVM(vms);
    EXPECT_EQ(daemon.openings.size(), 2U);
    EXPECT_THAT(log.Take(), Contains(ticketLine));
}

TEST_F(ProcessWideClientTest, OpensItsOwnConnectionInAForkedChild) {
    ASSERT_NE(GetOrdaneClient(), nullptr);
    host.vms = {{"16", nullptr, nullptr, nullptr}};
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        OrdaneClient* const client = GetOrdaneClient();
        if (client == nullptr || daemon.openings.size() != 2 || host.logins.size() != 2) {
            _exit(1);
        }
        // The parent's session goes on.
        if (daemon.CountCalls("Logout") != 0) {
            _exit(2);
        }
        Ref<VmArray> vms;
        client->GetAllVM(vms);
        _exit(vms && vms->GetLength() == 1 && daemon.openings.size() == 2 ? 0 : 3);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(GetOrdaneClient()->IsInitialized());
    EXPECT_EQ(daemon.openings.size(), 1U);
}

TEST_F(ProcessWideClientTest, OpensItsOwnConnectionForAQueryInAForkedChild) {
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

// Init, and the end of a client.

TEST_F(ClientTest, ConnectsOnFirstUseOnly) {
    EXPECT_FALSE(client->IsInitialized());
    client.Reset();
    EXPECT_THAT(daemon.openings, IsEmpty());
    EXPECT_THAT(daemon.calls, IsEmpty());
}

TEST_F(ClientTest, ConnectsOnce) {
    EXPECT_TRUE(client->Init(nullptr));
    EXPECT_TRUE(client->Init(nullptr));
    EXPECT_TRUE(client->Init(MakeRef<SNMPWriter>().Get()));
    EXPECT_EQ(daemon.openings.size(), 1U);
    EXPECT_THAT(daemon.events, testing::Not(Contains("create service logging to SNMP")));
}

TEST_F(ClientTest, IsConnectedAlsoWhenTheTicketCannotBeRead) {
    host.ticketPath = "/nowhere";
    EXPECT_TRUE(client->Init(nullptr));
    EXPECT_THAT(log.Take(), IsEmpty());
    // The daemon refuses the first query instead.
    EXPECT_FALSE(AllVms());
    EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("OrdaneClient::GetAllVM: :log in first\n"));
    EXPECT_TRUE(client->IsInitialized());
}

TEST_F(ClientTest, LogsARefusedLogin) {
    host.WhenAsked("Login", [] { throw Ordane::Fault::InvalidLogin::Exception("who are you?"); });
    EXPECT_FALSE(client->Init(nullptr));
    const Lines lines = log.Take();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], (LogLine{4, "OrdaneClient::Init: :who are you?\n"}));
    EXPECT_EQ(lines[1].priority, 7);
    EXPECT_FALSE(client->IsInitialized());
}

TEST_F(ClientTest, LogsTheBacktraceOfAFailedConnectionAsDebugLines) {
    FailAt("Login");
    EXPECT_FALSE(client->Init(nullptr));
    EXPECT_EQ(log.Take(), Report("OrdaneClient::Init: :it failed\n", failure, 7));
}

TEST_F(ClientTest, LetsOtherExceptionsOfAConnectionPass) {
    daemon.WhenCalled("Login", [] { throw std::runtime_error("not of the runtime"); });
    EXPECT_THROW(client->Init(nullptr), std::runtime_error);
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_THAT(log.Take(), IsEmpty());
    Repair("Login");
    EXPECT_TRUE(client->Init(nullptr));
}

TEST_F(ClientTest, ReconnectsAfterAStepOfConnectingFailed) {
    for (const std::string step : {"get connection path", "map ", "create adapter", "get factory"}) {
        SCOPED_TRACE(step);
        client = MakeRef<OrdaneClient>();
        daemon.failingStep = step;
        EXPECT_FALSE(client->Init(nullptr));
        EXPECT_FALSE(client->IsInitialized());
        EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre(testing::StartsWith("OrdaneClient::Init: :" + step)));
        EXPECT_EQ(daemon.streams, 0);
        daemon.failingStep.clear();
        EXPECT_TRUE(AllVms());
        EXPECT_EQ(daemon.streams, 1);
        client.Reset();
        EXPECT_EQ(daemon.streams, 0);
    }
}

TEST_F(ClientTest, LogsOutAtItsEnd) {
    client->Init(nullptr);
    client.Reset();
    EXPECT_EQ(daemon.calls.back(), "Logout");
    EXPECT_EQ(daemon.events.back(), "shut service down");
}

TEST_F(ClientTest, ClosesABrokenConnectionAtOnceWithoutALogout) {
    BreakAt("GetChildEntity");
    AllVms();
    EXPECT_THAT(daemon.events,
                testing::IsSupersetOf({"close adapter", "close stream /connection/1", "shut service down"}));
    EXPECT_EQ(daemon.CountCalls("Logout"), 0);
}

// What all queries have in common.

struct QueryCase {
    const char* name;
    const char* method;                 // the call that it sends
    const char* failedName;             // how the log names it when it fails
    const char* brokenLine;             // the log line when the connection breaks; empty: none
    bool (*run)(OrdaneClient& client);  // whether it has a result

    friend std::ostream& operator<<(std::ostream& stream, const QueryCase& each) {
        return stream << each.name;
    }
};

const QueryCase queries[] = {
    {"GetAllVM", "GetChildEntity", "GetAllVM", "",
     [](OrdaneClient& client) {
         auto vms = MakeRef<VmArray>();
         client.GetAllVM(vms);
         return static_cast<bool>(vms);
     }},
    {"GetServiceInstanceContent", "RetrieveContent", "GetServiceInstanceContent",
     "GetServiceInstanceContent: connection to tovric-vessad is broken.\n",
     [](OrdaneClient& client) {
         auto content = MakeRef<ServiceInstanceContent>();
         client.GetServiceInstanceContent(content);
         return static_cast<bool>(content);
     }},
    {"GetDatastoreInfo", "GetInfo", "GetDatastoreInfo",
     "GetDatastoreInfo: connection to tovric-vessad is broken.\n",
     [](OrdaneClient& client) {
         auto info = MakeRef<Hask::Datastore::Info>();
         client.GetDatastoreInfo("ds-1", info);
         return static_cast<bool>(info);
     }},
    {"GetNumCpuCores", "GetHardware", "GetNumCpuCores",
     "GetNumCpuCores: connection to tovric-vessad is broken.\n",
     [](OrdaneClient& client) { return client.GetNumCpuCores() == 8; }},
    // The two names in its log lines are fixed.
    {"GetMemoryReservation", "GetConsoleReservationInfo", "GetMemory",
     "GetNumCpuCores: connection to tovric-vessad is broken.\n",
     [](OrdaneClient& client) {
         std::int64_t reserved = -1;
         const std::int64_t total = client.GetMemoryReservation(reserved);
         EXPECT_EQ(reserved, total == 0 ? 0 : 4096);
         return total == 8;
     }},
};

class QueryTest : public ClientTest, public testing::WithParamInterface<QueryCase> {
  protected:
    QueryTest() {
        host.datastores["ds-1"] = MakeRef<Hask::Datastore::Info>();
        SetCores(host, 8);
        SetMemory(host, 4096, 4096);
    }
    bool Run() { return GetParam().run(*client); }
};

TEST_P(QueryTest, ConnectsAndReturnsWhatTheDaemonHas) {
    EXPECT_TRUE(Run());
    EXPECT_THAT(daemon.calls, ElementsAre("AcquireLocalTicket", "Login", GetParam().method));
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_P(QueryTest, ReportsAFailureAndStaysConnected) {
    FailAt(GetParam().method);
    EXPECT_FALSE(Run());
    EXPECT_EQ(log.Take(),
              Report(std::string("OrdaneClient::") + GetParam().failedName + ": :it failed\n", failure, 7));
    EXPECT_TRUE(client->IsInitialized());
    Repair(GetParam().method);
    EXPECT_TRUE(Run());
    EXPECT_EQ(daemon.openings.size(), 1U);
}

TEST_P(QueryTest, DropsABrokenConnectionAndReconnects) {
    BreakAt(GetParam().method);
    EXPECT_FALSE(Run());
    const std::string line = GetParam().brokenLine;
    EXPECT_EQ(log.Take(), line.empty() ? Lines() : Warnings({line}));
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_TRUE(Run());
    EXPECT_EQ(daemon.openings.size(), 2U);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_P(QueryTest, HasNoResultWhileTheDaemonIsDown) {
    daemon.down = "connection refused";
    EXPECT_FALSE(Run());
    EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("OrdaneClient::Init: :connection refused\n"));
    EXPECT_THAT(daemon.calls, IsEmpty());
    daemon.down.clear();
    EXPECT_TRUE(Run());
}

TEST_P(QueryTest, LetsOtherExceptionsPass) {
    daemon.WhenCalled(GetParam().method, [] { throw std::runtime_error("not of the runtime"); });
    EXPECT_THROW(Run(), std::runtime_error);
    EXPECT_THAT(log.Take(), IsEmpty());
    EXPECT_TRUE(client->IsInitialized());
}

INSTANTIATE_TEST_SUITE_P(Queries, QueryTest, testing::ValuesIn(queries),
                         [](const auto& info) { return std::string(info.param.name); });

// GetAllVM.

TEST_F(ClientTest, ListsEveryChildOfTheFolderInItsOrder) {
    host.vms = {{"48", nullptr, nullptr, nullptr},
                {"16", MakeRef<Hask::Vm::ConfigInfo>(), nullptr, nullptr},
                {"not-a-number", nullptr, nullptr, nullptr}};
    const auto vms = AllVms();
    ASSERT_TRUE(vms);
    ASSERT_EQ(vms->GetLength(), 3);
    EXPECT_EQ((*vms)[0]->GetMoRef()->GetId(), "48");
    EXPECT_EQ((*vms)[1]->GetMoRef()->GetId(), "16");
    EXPECT_EQ((*vms)[2]->GetMoRef()->GetId(), "not-a-number");
}

TEST_F(ClientTest, ListsNoVmOfAnEmptyFolder) {
    const auto before = MakeRef<VmArray>();
    Ref<VmArray> vms = before;
    client->GetAllVM(vms);
    ASSERT_TRUE(vms);
    EXPECT_NE(vms, before);
    EXPECT_EQ(vms->GetLength(), 0);
}

// Replies that cannot come over the wire: a folder without an array of children.
class OddFolder final : public Hask::Folder {
  public:
    explicit OddFolder(Ref<Ordane::DataArray<Ordane::MoRef>> children)
        : Folder(Reference("Folder", "ha-folder-vm")), children(std::move(children)) {}
    void GetChildEntity(Ref<Ordane::DataArray<Ordane::MoRef>>& out) override { out = children; }

  private:
    Ref<Ordane::DataArray<Ordane::MoRef>> children;
};

// Fails at the VM "bad", and at the session manager when there is a failure to throw.
class OddFactory final : public virtual Hask::MoFactory, public Tessim::ObjectImpl {
  public:
    OddFactory(Ref<Ordane::StubAdapter> adapter, Ref<Ordane::DataArray<Ordane::MoRef>> children,
               const Tessim::Exception* sessionFailure = nullptr)
        : adapter(std::move(adapter)), children(std::move(children)), sessionFailure(sessionFailure) {}

    void GetSessionManager(Ref<Hask::SessionManager>& out) override {
        if (sessionFailure != nullptr) {
            throw Tessim::Exception(*sessionFailure);
        }
        out = Hask::SessionManager::MakeStub(adapter, "ha-sessionmgr");
    }
    void GetVmFolder(Ref<Hask::Folder>& out) override { out = MakeRef<OddFolder>(children); }
    void GetVirtualMachine(const std::string& id, Ref<Hask::VirtualMachine>& out) override {
        if (id == "bad") {
            throw Tessim::InvalidArgumentException("a bad id");
        }
        out = Hask::VirtualMachine::MakeStub(adapter, id);
    }
    void GetServiceInstance(Ref<Hask::ServiceInstance>& /*out*/) override {}
    void GetHostSystem(Ref<Hask::HostSystem>& /*out*/) override {}
    void GetMemoryManagerSystem(Ref<Hask::Host::MemoryManagerSystem>& /*out*/) override {}
    void GetDatastore(const std::string& /*id*/, Ref<Hask::Datastore>& /*out*/) override {}
    void GetPerformanceManager(const std::string& /*id*/, Ref<Hask::PerformanceManager>& /*out*/) override {}

  private:
    Ref<Ordane::StubAdapter> adapter;
    Ref<Ordane::DataArray<Ordane::MoRef>> children;
    const Tessim::Exception* sessionFailure;
};

TEST_F(ClientTest, FailsToConnectWithoutASessionManager) {
    daemon.factory = MakeRef<OddFactory>(daemon.MakeAdapter(), nullptr, &failure);
    EXPECT_FALSE(client->Init(nullptr));
    EXPECT_FALSE(client->IsInitialized());
    EXPECT_EQ(log.Take(), Report("OrdaneClient::Init: :it failed\n", failure, 7));
    EXPECT_THAT(daemon.calls, IsEmpty());
    daemon.factory.Reset();
    EXPECT_TRUE(client->Init(nullptr));
    EXPECT_EQ(daemon.openings.size(), 2U);
}

TEST_F(ClientTest, ListsNothingOfAFolderWithoutAnArray) {
    daemon.factory = MakeRef<OddFactory>(daemon.MakeAdapter(), nullptr);
    EXPECT_FALSE(AllVms());
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ClientTest, KeepsWhatWasListedBeforeAFailure) {
    host.vms = {{"16", nullptr, nullptr, nullptr}};
    daemon.factory = MakeRef<OddFactory>(
        daemon.MakeAdapter(),
        Array<Ordane::MoRef>({Reference("VirtualMachine", "16"), Reference("VirtualMachine", "bad")}));
    const auto vms = AllVms();
    ASSERT_TRUE(vms);
    ASSERT_EQ(vms->GetLength(), 1);
    EXPECT_EQ((*vms)[0]->GetMoRef()->GetId(), "16");
    EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("OrdaneClient::GetAllVM: :a bad id\n"));
}

// GetServiceInstanceContent.

TEST_F(ClientTest, FetchesTheServiceContentOnceEvenAcrossABrokenConnection) {
    host.content->SetAbout(MakeRef<Hask::AboutInfo>());
    host.content->GetAbout()->SetName("Product");
    Ref<ServiceInstanceContent> first;
    client->GetServiceInstanceContent(first);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->GetAbout()->GetName(), "Product");
    BreakAt("GetChildEntity");
    AllVms();

    // Not even a connection is needed.
    Ref<ServiceInstanceContent> second;
    client->GetServiceInstanceContent(second);
    EXPECT_EQ(second, first);
    EXPECT_EQ(daemon.openings.size(), 1U);
    AllVms();
    EXPECT_EQ(daemon.openings.size(), 2U);
    client->GetServiceInstanceContent(second);
    EXPECT_EQ(second, first);
    EXPECT_EQ(daemon.CountCalls("RetrieveContent"), 1);
}

// GetDatastoreInfo.

TEST_F(ClientTest, FetchesADatastoreEachTime) {
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

TEST_F(ClientTest, HasNoInformationOfADatastoreWithoutOrUnknown) {
    host.datastores["ds-1"] = nullptr;
    Ref<Hask::Datastore::Info> info = MakeRef<Hask::Datastore::Info>();
    client->GetDatastoreInfo("ds-1", info);
    EXPECT_FALSE(info);
    EXPECT_THAT(log.Take(), IsEmpty());
    info = MakeRef<Hask::Datastore::Info>();
    client->GetDatastoreInfo("ds-9", info);
    EXPECT_FALSE(info);
    EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("OrdaneClient::GetDatastoreInfo: :no Datastore ds-9\n"));
    EXPECT_TRUE(client->IsInitialized());
}

// GetNumCpuCores.

TEST_F(ClientTest, CachesTheCoresForTheProcess) {
    SetCores(host, 8);
    EXPECT_EQ(client->GetNumCpuCores(), 8);
    SetCores(host, 9);
    EXPECT_EQ(client->GetNumCpuCores(), 8);
    EXPECT_EQ(daemon.CountCalls("GetHardware"), 1);
    EXPECT_EQ(MakeRef<OrdaneClient>()->GetNumCpuCores(), 8);
    EXPECT_EQ(daemon.openings.size(), 1U);
}

TEST_F(ClientTest, RetriesAHostWithoutCoresAndTruncatesTheCountTo16Bits) {
    EXPECT_EQ(client->GetNumCpuCores(), 0);
    host.hardware = MakeRef<Hask::Host::HardwareInfo>();
    EXPECT_EQ(client->GetNumCpuCores(), 0);
    for (const int cores : {0, 65536}) {
        SetCores(host, cores);
        EXPECT_EQ(client->GetNumCpuCores(), 0);
    }
    EXPECT_TRUE(client->IsInitialized());
    SetCores(host, 70000);
    EXPECT_EQ(client->GetNumCpuCores(), 70000 - 65536);
    EXPECT_EQ(daemon.CountCalls("GetHardware"), 5);
}

TEST_F(ClientTest, ReadsTheCoresAsSigned) {
    SetCores(host, 40000);
    EXPECT_EQ(client->GetNumCpuCores(), 40000 - 65536);
}

// GetMemoryReservation. One call: what it returns, what it stores, and how many calls the daemon had by then.
class ReservationTest : public ClientTest {
  protected:
    void Expect(std::int64_t total, std::int64_t reserved, int calls) {
        std::int64_t stored = -1;
        EXPECT_EQ(client->GetMemoryReservation(stored), total);
        EXPECT_EQ(stored, reserved);
        EXPECT_EQ(daemon.CountCalls("GetConsoleReservationInfo"), calls);
    }
};

TEST_F(ReservationTest, IsInBytesFirstAndInKilobytesAfterwards) {
    SetMemory(host, 285212672, 1862270976);
    Expect(2097152, 285212672, 1);
    Expect(2097152, 278528, 1);
    Expect(2097152, 278528, 1);
}

TEST_F(ReservationTest, IsFetchedAgainBelowOneKilobyte) {
    for (int call = 1; call <= 3; ++call) {
        SetMemory(host, 0, 4096);
        Expect(4, 0, call);
    }
    SetMemory(host, 1023, 1);
    Expect(1, 1023, 4);
    Expect(1, 1023, 5);
    // A failure leaves nothing of it.
    BreakAt("GetConsoleReservationInfo");
    Expect(0, 0, 6);
}

TEST_F(ReservationTest, RoundsKilobytesTowardZero) {
    SetMemory(host, -3000, -1000);
    Expect(-3, -3000, 1);
    Expect(-3, -2, 1);
}

TEST_F(ReservationTest, WrapsOnOverflow) {
    SetMemory(host, INT64_MAX, INT64_MAX);
    Expect(0, INT64_MAX, 1);  // wrapped to -2 bytes; a total of 0 is not kept
    SetMemory(host, INT64_MAX, 1);
    Expect(INT64_MIN / 1024, INT64_MAX, 2);
    Expect(INT64_MIN / 1024, INT64_MAX / 1024, 2);
}

TEST_F(ReservationTest, IsZeroWhenTheDaemonDoesNotKnowIt) {
    Expect(0, 0, 1);
    EXPECT_THAT(log.Take(), IsEmpty());
}

// The writer.

TEST(Writer, LogsAtPrioritySixWhateverTheLengthAndAfterItsClose) {
    LogCapture log;
    const auto writer = MakeRef<SNMPWriter>();
    writer->Write("100% of %s\n", 3);
    EXPECT_EQ(log.Take(), (Lines{{6, "100% of %s\n"}}));
    writer->Close();
    EXPECT_THAT(log.Take(), IsEmpty());
    writer->Write("still here\n", 11);
    EXPECT_EQ(log.Take(), (Lines{{6, "still here\n"}}));
    EXPECT_EQ(writer->ToString(), "SNMP Writer\n");
}

}  // namespace
}  // namespace RefreshTests
