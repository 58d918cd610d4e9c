#include <sys/wait.h>
#include <unistd.h>

#include <ostream>
#include <regex>

#include "apps/snmp/client/SNMPWriter.h"
#include "apps/snmp/refresh/SNMPRaskHelper.h"
#include "tests/unit/snmp_refresh/fixture.h"

namespace RefreshTests {
namespace {

using SNMP::GetOrdaneClient;

class ProcessWideClientTest : public ClientTest {
  protected:
    ProcessWideClientTest() {
        Add("get", [this] {
            OrdaneClient* const found = GetOrdaneClient();
            if (found == nullptr) {
                return "null";
            }
            const char* const text = found == client ? "the same" : "a client";
            client = found;
            return text;
        });
        Add("module", [] { return SNMPRaskHelper_Init() != 0; });
    }
};

TEST_F(ProcessWideClientTest, IsNullWhileTheDaemonIsDownAndConnectsOnce) {
    Check(R"(
down; get -> null (open stream, shut service down)
  6 Disconnect: not connected.
  4 OrdaneClient::Init: :connection refused (7 backtrace)
  4 Could not init ordane client to tovric-vessad.
get -> null (open stream, shut service down)
  6 Disconnect: not connected.
  4 OrdaneClient::Init: :connection refused (7 backtrace)
  4 Could not init ordane client to tovric-vessad.
up; get -> a client (open stream, AcquireLocalTicket, Login)
connected? -> true
get -> the same
)");
}

TEST_F(ProcessWideClientTest, ConnectsWhenTheModuleStarts) {
    Check(R"(
down; module -> false (open stream, shut service down)
  6 Disconnect: not connected.
  4 OrdaneClient::Init: :connection refused (7 backtrace)
  4 Could not init ordane client to tovric-vessad.
up; module -> true (open stream, AcquireLocalTicket, Login)
)");
}

TEST_F(ProcessWideClientTest, KeepsItsLoggerWhenAQueryReconnects) {
    host.ticketContent = std::string(1024, 'x');
    Check(R"(
get -> a client (open stream, AcquireLocalTicket)
  6 Failed to read ticket. Ticket file too long.
break RetrieveContent; content -> null (RetrieveContent, close adapter, close stream /connection/1, shut service down)
  4 GetServiceInstanceContent: connection to tovric-vessad is broken.
list -> null (open stream, AcquireLocalTicket)
  6 Failed to read ticket. Ticket file too long.
  4 OrdaneClient::GetAllVM: :log in first (7 backtrace)
)");
}

TEST_F(ProcessWideClientTest, OpensItsOwnConnectionInAForkedChild) {
    ASSERT_NE(GetOrdaneClient(), nullptr);
    host.vms = {{"16", nullptr, nullptr, nullptr}};
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The parent's session goes on.
        Check(R"(
get -> a client (close adapter, close stream /connection/1, shut service down, open stream, AcquireLocalTicket, Login)
list -> VMs 16 (GetChildEntity)
)");
        _exit(HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(GetOrdaneClient()->IsInitialized());
    EXPECT_EQ(daemon.openings.size(), 1U);
}

TEST_F(ClientTest, OpensItsOwnConnectionForAQueryInAForkedChild) {
    client->Init(nullptr);
    daemon.WhenSent("AcquireLocalTicket", [&] { daemon.foreignStreams = false; });
    Check(R"(
foreign; connected? -> false
list -> VMs (close adapter, close stream /connection/1, shut service down, open stream, AcquireLocalTicket, Login, GetChildEntity)
)");
}

// Init, and the end of a client.

TEST_F(ClientTest, ConnectsOnFirstUseOnceAndLogsOutAtItsEnd) {
    Check(R"(
connected? -> false
end; new; init -> true (open stream, AcquireLocalTicket, Login)
init -> true
end -> (Logout, close adapter, close stream /connection/1, shut service down)
)");
}

TEST_F(ClientTest, WithoutASessionSendsNothingThatNeedsOneAndKeepsNothing) {
    host.ticketPath = "/nowhere";
    Check(R"(
init -> true (open stream, AcquireLocalTicket)
list -> null
  4 OrdaneClient::GetAllVM: :log in first (7 backtrace)
connected? -> true
content -> content (RetrieveContent)
content -> content (RetrieveContent)
)");
}

TEST_F(ClientTest, DropsOnlyAConnectionOnWhichNoQueryCanSucceed) {
    daemon.WhenSent("Login", [&] { daemon.closesStreams = false; });
    Check(R"(
drop? -> false
init; drop? -> true false (open stream, AcquireLocalTicket, Login)
close; connected? -> true
drop? -> true (Logout, close adapter, close stream /connection/1, shut service down)
connected? -> false
init -> true (open stream, AcquireLocalTicket, Login)
)");
    host.ticketPath = "/nowhere";
    Check(R"(
new; init -> true (Logout, close adapter, close stream /connection/2, shut service down, open stream, AcquireLocalTicket)
drop? -> true (close adapter, close stream /connection/3, shut service down)
)");
}

TEST_F(ClientTest, KeepsTheServiceContentOnceItNamesTheProduct) {
    host.content->GetAbout()->SetName("");
    Check(R"(
content -> content (open stream, AcquireLocalTicket, Login, RetrieveContent)
content -> content (RetrieveContent)
)");
    host.content->GetAbout()->SetName("Product");
    Check(R"(
content -> content (RetrieveContent)
content -> content
)");
}

TEST_F(ClientTest, ReconnectsAfterAFailedLogin) {
    Check(R"(
fault Login; init -> false (open stream, AcquireLocalTicket, Login, close adapter, close stream /connection/1, shut service down)
  4 OrdaneClient::Init: :not today, %1 %s (7 backtrace)
connected? -> false
throw Login; init -> throws not of the runtime (open stream, AcquireLocalTicket)
connected? -> false
repair Login; step get factory; init -> false (close adapter, close stream /connection/2, shut service down, open stream, close adapter, close stream /connection/3, shut service down)
  4 OrdaneClient::Init: :get factory (7 backtrace)
streams -> 0
)");
}

TEST_F(ClientTest, LogsTheBacktraceOfAFailedConnectionAsDebugLines) {
    daemon.WhenCalled("Login", [this] { throw failure; });
    EXPECT_FALSE(client->Init(nullptr));
    Lines expected = {{4, "OrdaneClient::Init: :it failed\n"}};
    for (const std::string& line : failure.GetBacktrace()) {
        expected.push_back({7, line + "\n"});
    }
    EXPECT_EQ(log.Take(), expected);
}

// What all queries have in common.

struct QueryCase {
    std::string command;
    std::string method;      // the call that it sends
    std::string failedName;  // how the log names it when it fails
    std::string brokenLine;  // the lines of the log when the connection breaks
    std::string nothing;     // its result when there is none
    std::string result;

    friend std::ostream& operator<<(std::ostream& stream, const QueryCase& each) {
        return stream << each.command;
    }
};

// The two names in the log lines of "memory" are fixed.
const QueryCase queries[] = {
    {"list", "GetChildEntity", "GetAllVM", "", "null", "VMs"},
    {"content", "RetrieveContent", "GetServiceInstanceContent",
     "  4 GetServiceInstanceContent: connection to tovric-vessad is broken.\n", "null", "content"},
    {"datastore ds", "GetInfo", "GetDatastoreInfo",
     "  4 GetDatastoreInfo: connection to tovric-vessad is broken.\n", "null", "plain"},
    {"cores", "GetHardware", "GetNumCpuCores", "  4 GetNumCpuCores: connection to tovric-vessad is broken.\n",
     "0", "8"},
    {"memory", "GetConsoleReservationInfo", "GetMemory",
     "  4 GetNumCpuCores: connection to tovric-vessad is broken.\n", "0 of 0", "4096 of 8"},
};

class ClientQueryTest : public ClientTest {
  protected:
    ClientQueryTest() {
        Add("datastore", [this](const std::string& id) {
            auto info = MakeRef<Hask::Datastore::Info>();
            client->GetDatastoreInfo(id, info);
            const bool drell = Tessim::NarrowToType<Hask::Host::DrellDatastoreInfo>(info) != nullptr;
            return !info ? "null" : drell ? "drell" : "plain";
        });
        Add("cores", [this] { return client->GetNumCpuCores(); });
        Add("memory", [this] {
            std::int64_t reserved = -1;
            const std::int64_t total = client->GetMemoryReservation(reserved);
            return std::to_string(reserved) + " of " + std::to_string(total);
        });
        Add("has-cores", [this](const std::string& cores) { SetCores(host, std::stoi(cores)); });
        Add("has-memory", [this](const std::string& bytes) {
            std::size_t blank = 0;
            const std::int64_t reserved = std::stoll(bytes, &blank);
            SetMemory(host, reserved, std::stoll(bytes.substr(blank)));
        });
        host.datastores["ds"] = MakeRef<Hask::Datastore::Info>();
    }
};

class QueryTest : public ClientQueryTest, public testing::WithParamInterface<QueryCase> {};

TEST_P(QueryTest, ReportsFailuresAndReconnectsOnlyWhenTheConnectionBroke) {
    SetCores(host, 8);
    SetMemory(host, 4096, 4096);
    const QueryCase& query = GetParam();
    std::string session = R"(
down; COMMAND -> NOTHING (open stream, shut service down)
  4 OrdaneClient::Init: :connection refused (7 backtrace)
up; fail METHOD; COMMAND -> NOTHING (open stream, AcquireLocalTicket, Login)
  4 OrdaneClient::NAME: :it failed (7 backtrace)
throw METHOD; COMMAND -> throws not of the runtime
repair METHOD; break METHOD; COMMAND -> NOTHING (METHOD, close adapter, close stream /connection/2, shut service down)
BROKENCOMMAND -> RESULT (open stream, AcquireLocalTicket, Login, METHOD)
)";
    for (const auto& [placeholder, text] : {std::pair("BROKEN", query.brokenLine),
                                            {"COMMAND", query.command},
                                            {"METHOD", query.method},
                                            {"NAME", query.failedName},
                                            {"NOTHING", query.nothing},
                                            {"RESULT", query.result}}) {
        session = std::regex_replace(session, std::regex(placeholder), text);
    }
    Check(session);
}

INSTANTIATE_TEST_SUITE_P(Queries, QueryTest, testing::ValuesIn(queries),
                         [](const auto& info) { return info.param.method; });

// GetAllVM.

TEST_F(ClientTest, ListsEveryChildOfTheFolderInItsOrder) {
    host.vms = {{"48", nullptr, nullptr, nullptr},
                {"16", MakeRef<Hask::Vm::ConfigInfo>(), nullptr, nullptr},
                {"not-a-number", nullptr, nullptr, nullptr}};
    client->Init(nullptr);
    Check("\nlist -> VMs 48 16 not-a-number (GetChildEntity)\n");
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

// Fails at the VM "bad".
class OddFactory final : public virtual Hask::MoFactory, public Tessim::ObjectImpl {
  public:
    OddFactory(Ref<Ordane::StubAdapter> adapter, Ref<Ordane::DataArray<Ordane::MoRef>> children)
        : adapter(std::move(adapter)), children(std::move(children)) {}

    void GetSessionManager(Ref<Hask::SessionManager>& out) override {
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
};

TEST_F(ClientTest, ListsNothingOfAFolderWithoutAnArray) {
    daemon.factory = MakeRef<OddFactory>(daemon.MakeAdapter(), nullptr);
    Check("\nlist -> null (open stream, AcquireLocalTicket, Login)\n");
}

TEST_F(ClientTest, KeepsWhatWasListedBeforeAFailure) {
    daemon.factory = MakeRef<OddFactory>(
        daemon.MakeAdapter(),
        Array<Ordane::MoRef>({Reference("VirtualMachine", "16"), Reference("VirtualMachine", "bad")}));
    Check(R"(
list -> VMs 16 (open stream, AcquireLocalTicket, Login)
  4 OrdaneClient::GetAllVM: :a bad id (7 backtrace)
)");
}

// The other queries.

TEST_F(ClientTest, FetchesTheServiceContentOnceEvenAcrossABrokenConnection) {
    host.content->SetAbout(MakeRef<Hask::AboutInfo>());
    host.content->GetAbout()->SetName("Product");
    Ref<Hask::ServiceInstanceContent> first;
    client->GetServiceInstanceContent(first);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->GetAbout()->GetName(), "Product");
    Check(R"(
break GetChildEntity; list -> null (GetChildEntity, close adapter, close stream /connection/1, shut service down)
)");
    // Not even a connection is needed.
    Ref<Hask::ServiceInstanceContent> second;
    client->GetServiceInstanceContent(second);
    EXPECT_EQ(second, first);
    EXPECT_EQ(daemon.openings.size(), 1U);
}

TEST_F(ClientQueryTest, FetchesADatastoreEachTime) {
    host.datastores["drell"] = MakeRef<Hask::Host::DrellDatastoreInfo>();
    host.datastores["mute"] = nullptr;
    client->Init(nullptr);
    Check(R"(
datastore drell -> drell (GetInfo)
datastore ds -> plain (GetInfo)
datastore ds -> plain (GetInfo)
datastore mute -> null (GetInfo)
datastore ds-9 -> null (GetInfo)
  4 OrdaneClient::GetDatastoreInfo: :no Datastore ds-9 (7 backtrace)
connected? -> true
)");
}

TEST_F(ClientQueryTest, RetriesAHostWithoutCoresAndCachesTheSigned16BitCountForTheProcess) {
    client->Init(nullptr);
    Check("\ncores -> 0 (GetHardware)\n");
    host.hardware = MakeRef<Hask::Host::HardwareInfo>();
    Check(R"(
cores -> 0 (GetHardware)
has-cores 0; cores -> 0 (GetHardware)
has-cores 65536; cores -> 0 (GetHardware)
has-cores 40000; cores -> -25536 (GetHardware)
has-cores 9; cores -> -25536
end -> (Logout, close adapter, close stream /connection/1, shut service down)
new; cores -> -25536
)");
}

TEST_F(ClientQueryTest, ReturnsTheReservationInBytesFirstAndInKilobytesAfterwards) {
    client->Init(nullptr);
    Check(R"(
memory -> 0 of 0 (GetConsoleReservationInfo)
has-memory 0 4096; memory -> 0 of 4 (GetConsoleReservationInfo)
has-memory 1023 1; memory -> 1023 of 1 (GetConsoleReservationInfo)
memory -> 1023 of 1 (GetConsoleReservationInfo)
fail GetConsoleReservationInfo; memory -> 0 of 0
  4 OrdaneClient::GetMemory: :it failed (7 backtrace)
repair GetConsoleReservationInfo; has-memory 9223372036854775807 9223372036854775807; memory -> 9223372036854775807 of 0 (GetConsoleReservationInfo)
has-memory 285212672 1862270976; memory -> 285212672 of 2097152 (GetConsoleReservationInfo)
memory -> 278528 of 2097152
memory -> 278528 of 2097152
)");
}

TEST_F(ClientQueryTest, RoundsKilobytesTowardZero) {
    SetMemory(host, -3000, -1000);
    client->Init(nullptr);
    Check(R"(
memory -> -3000 of -3 (GetConsoleReservationInfo)
memory -> -2 of -3
)");
}

TEST_F(ClientQueryTest, WrapsTheTotalAround) {
    SetMemory(host, INT64_MAX, 1);
    client->Init(nullptr);
    Check(R"(
memory -> 9223372036854775807 of -9007199254740992 (GetConsoleReservationInfo)
memory -> 9007199254740991 of -9007199254740992
)");
}

// The writer.

TEST(Writer, LogsAtPrioritySixWhateverTheLengthAndAfterItsClose) {
    LogCapture log;
    const auto writer = MakeRef<SNMPWriter>();
    writer->Write("100% of %s\n", 3);
    writer->Close();
    writer->Write("still here\n", 11);
    EXPECT_EQ(log.Take(), (Lines{{6, "100% of %s\n"}, {6, "still here\n"}}));
    EXPECT_EQ(writer->ToString(), "SNMP Writer\n");
}

}  // namespace
}  // namespace RefreshTests
