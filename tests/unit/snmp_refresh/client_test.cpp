#include <sys/wait.h>
#include <unistd.h>

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

const bool registered = RegisterSessions<ClientTest>("ClientTest", "client");

const bool registeredProcessWide =
    RegisterSessions<ProcessWideClientTest>("ProcessWideClientTest", "process_wide_client");

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

TEST_F(ClientTest, LogsTheBacktraceOfAFailedConnectionAsDebugLines) {
    daemon.WhenCalled("Login", [this] { throw failure; });
    EXPECT_FALSE(client->Init(nullptr));
    Lines expected = {{4, "OrdaneClient::Init: :it failed\n"}};
    for (const std::string& line : failure.GetBacktrace()) {
        expected.push_back({7, line + "\n"});
    }
    EXPECT_EQ(log.Take(), expected);
}

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
        host.datastores["ds"] = MakeRef<Hask::Datastore::Info>();
        host.datastores["drell"] = MakeRef<Hask::Host::DrellDatastoreInfo>();
        host.datastores["mute"] = nullptr;
    }
};

const bool registeredQueries = RegisterSessions<ClientQueryTest>("ClientQueryTest", "queries");

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
    void RetrieveChanges(const std::optional<std::string>& /*since*/, Ref<Changes>& /*out*/) override {}

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
