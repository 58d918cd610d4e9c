#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <new>
#include <regex>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/refresh/CacheFiller.h"
#include "apps/snmp/refresh/Outage.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/fault_injection.h"
#include "tests/support/files.h"
#include "tests/unit/snmp/released_blocks.h"
#include "tests/unit/snmp_refresh/fixture.h"
#include "tests/unit/snmp_refresh/rows.h"

extern "C" int netsnmp_running;  // the agent's own

namespace RefreshTests {
namespace {

using namespace std::chrono_literals;
using TestSupport::FaultInjection;

constexpr std::time_t start = 1'700'000'000;

// The VM of full_vm.yaml, with two devices of each kind and statistics for all of them.
std::string FullVm(const std::string& id, const std::string& powerState) {
    static const std::string vm = TestSupport::ReadFile(FULL_VM);
    return std::regex_replace(std::regex_replace(vm, std::regex("\\bID\\b"), id), std::regex("STATE"),
                              powerState);
}

// Adds the VM and its statistics.
void AddVm(FakeHost& host, const std::string& yaml) {
    FakeHost described;
    Describe(described, "vms:\n" + yaml);
    host.vms.push_back(described.vms.at(0));
    host.metrics->Append((*described.metrics)[0]);
}

class RefreshTest : public DaemonTest {
  protected:
    RefreshTest() {
        host.counters = AllCounters();
        clock->SetTime(start);
        // Adds a VM: its id, and its power state unless it is on.
        Add("vm", [this](const std::string& text) {
            const std::size_t blank = text.find(' ');
            AddVm(host, FullVm(text.substr(0, blank),
                               blank == std::string::npos ? "poweredOn" : text.substr(blank + 1)));
        });
        // Adds one with nothing but a CPU and memory, without statistics.
        Add("small-vm", [this](const std::string& id) {
            AddVm(host, "  - {id: '" + id + "', runtime: {powerState: poweredOn}, config: {name: '', " +
                            "guestFullName: '', hardware: {numCPU: 1, memoryMB: 64}}}\n");
        });
        Add("yaml-vm", [this](const std::string& yaml) { AddVm(host, "  - " + yaml); });
        Add("unconfigured-vm", [this](const std::string& id) {
            host.vms.push_back({id, nullptr, nullptr, nullptr});
        });
        Add("remove-vm", [this] { host.vms.pop_back(); });
        Add("no-manager", [this] { host.content->SetPerfManager(nullptr); });
        Add("fail-second", [this](const std::string& method) {
            daemon.WhenCalled(method, [this, calls = std::make_shared<int>(0)] {
                if (++*calls == 2) {
                    throw failure;
                }
            });
        });
        // A request at that many seconds after the start.
        Add("at", [this](const std::string& seconds) {
            clock->SetTime(start + std::stoi(seconds));
            SNMPRaskTable_Init();
        });
        // A request without time.
        Add("late", [] {
            const Tessim::TimeBudget spent(0s);
            SNMPRaskTable_Init();
        });
        // Makes the call end 15 seconds after the start.
        Add("slow-call", [this](const std::string& method) {
            daemon.WhenSent(method, [this] { clock->SetTime(start + 15); });
        });
        Add("no-memory", [this] { clock->FailCalloc(); });
        Add("no-memory-for-row", [this](const std::string& nth) { clock->FailCalloc(std::stoi(nth)); });
        Add("module", [] { return SNMPRaskHelper_Init() != 0; });
        Add("ending", [] { netsnmp_running = 0; });
        Add("running", [] { netsnmp_running = 1; });
        Add("expire", SNMPRaskTable_Expire);
        Add("destroy", SNMPRaskTable_Destroy);
        Add("rebuild", SNMPRaskRefreshCache);
        // Their number, and of how many VMs the last was.
        Add("queries", [this] {
            return std::to_string(host.queries.size()) + ". of " +
                   std::to_string(host.queries.back()->GetLength()) + " VMs";
        });
        Add("newer", [this] { host.newer = true; });
        Add("show-outages", [this] { showsOutages = true; });
        Add("show-log", [this] { showsLog = true; });
        Add("show-calls", [this] { showsCalls = true; });
        Add("rows", TestRows::Counts);
        Add("count-when-sent", [this](const std::string& method) {
            daemon.WhenSent(method, [this] { counted = TestRows::Counts(); });
        });
        Add("counted", [this] { return counted; });
        Add("tables",
            [] { return RowText(TestRows::VmText() + TestRows::DeviceText() + TestRows::ResourceText()); });
        Add("resources", [] { return RowText(TestRows::ResourceText()); });
        Add("memories", [] {
            std::string text;
            for (const auto* row : TestRows::List<resMemNode>()) {
                text += " " + std::to_string(row->memVMID) + ":" + std::to_string(row->memActive);
            }
            return text.substr(text.empty() ? 0 : 1);
        });
    }
    ~RefreshTest() override { SNMPRaskTable_Destroy(); }

    bool Shows(const std::string& event) const override {
        return event == "open stream" || (showsCalls && event.starts_with("call "));
    }
    // The end of a rebuild stands for its other lines.
    bool Shows(const LogLine& line) const override {
        return DaemonTest::Shows(line) &&
               (showsLog || (!line.text.starts_with("SNMPRask: start") &&
                             (showsOutages || !line.text.starts_with("SNMPRask: tables")) &&
                             !line.text.starts_with("SNMPRaskRefreshCache: Examining")));
    }
    // The counts, and the rows on lines of their own, indented.
    static std::string RowText(const std::string& rows) {
        return TestRows::Counts() +
               std::regex_replace("\n" + rows.substr(0, rows.size() - 1), std::regex("\n"), "\n  ");
    }

    std::unique_ptr<FaultInjection> clock = std::make_unique<FaultInjection>();
    bool showsOutages = false;
    bool showsLog = false;
    bool showsCalls = false;
    std::string counted;
};

const bool registered = RegisterSessions<RefreshTest>("RefreshTest", "refresh");
const bool changesRegistered = RegisterSessions<RefreshTest>("ChangesTest", "changes");

class NewerDaemonTest : public RefreshTest {
  protected:
    NewerDaemonTest() { host.newer = true; }
};

// A daemon that returns much at once makes no difference, but to sessions about other calls.
const bool newerRegistered =
    RegisterSessions<NewerDaemonTest>("NewerDaemonTest", "refresh", [](const std::string& session) {
        static const std::regex otherCalls("GetConfig|GetRuntime|GetGuest|QueryPerf|queries|show-calls");
        return !std::regex_search(session, otherCalls);
    });

TEST(Outage, IsLoggedOnceAMinute) {
    LogCapture log;
    SNMP::Outage outage;
    const SNMP::Outage::Clock::time_point begin{1h};
    outage.End(begin);
    for (const auto after : {0s, 59s, 60s, 119s, 120s}) {
        outage.Continue(begin + after);
    }
    outage.End(begin + 150s);
    outage.End(begin + 151s);
    EXPECT_EQ(log.Take(), (Lines{{4, "SNMPRask: tables are empty until tovric-vessad delivers the VMs.\n"},
                                 {4, "SNMPRask: tables have been empty for 60 s.\n"},
                                 {4, "SNMPRask: tables have been empty for 120 s.\n"},
                                 {4, "SNMPRask: tables are filled again after 150 s.\n"}}));
}

TEST_F(RefreshTest, HasFiveSecondsOfWhichOneIsForTheConnection) {
    AddVm(host, FullVm("16", "poweredOn"));
    std::vector<Tessim::Clock::time_point> deadlines;
    for (const char* method :
         {"AcquireLocalTicket", "Login", "GetChildEntity", "GetConfig", "QueryPerf", "GetGuest"}) {
        daemon.WhenSent(method, [&] { deadlines.push_back(Tessim::TimeBudget::Deadline()); });
    }
    // The caller's budget is longer, those of the rebuild and of the connection count.
    const Tessim::TimeBudget outer(1h);
    const auto begin = Tessim::Clock::now();
    SNMPRaskTable_Init();
    const auto end = Tessim::Clock::now();
    ASSERT_EQ(deadlines.size(), 6U);
    const auto connecting = daemon.openings.at(0).deadline;
    EXPECT_GE(connecting, begin + 1s);
    EXPECT_LE(connecting, end + 1s);
    EXPECT_EQ(std::count(deadlines.begin(), deadlines.begin() + 2, connecting), 2);
    EXPECT_GE(deadlines[2], begin + 5s);
    EXPECT_LE(deadlines[2], end + 5s);
    EXPECT_EQ(std::count(deadlines.begin() + 2, deadlines.end(), deadlines[2]), 4);
    EXPECT_GT(Tessim::TimeBudget::Deadline() - Tessim::Clock::now(), 10s);
}

TEST_F(RefreshTest, KeepsOneLastingCopyPerTextOverRebuilds) {
    Check("\nvm 16; vm 32\n");
    const auto texts = [] {
        SNMPRaskTable_Expire();
        SNMPRaskTable_Init();
        return std::vector<const char*>{
            TestRows::List<resDiskNode>().at(1)->diskName, TestRows::List<resDiskNode>().at(3)->diskName,
            TestRows::List<resNetNode>().at(0)->netName, TestRows::List<resNetNode>().at(0)->netMac};
    };
    const std::vector<const char*> first = texts();
    EXPECT_EQ(texts(), first);
    SNMPRaskTable_Destroy();
    EXPECT_EQ(first[0], first[1]);
    EXPECT_EQ(std::vector<std::string>(first.begin() + 1, first.end()),
              (std::vector<std::string>{"raw-2", "vm-16 card 1", "00:16:3e:00:00:01"}));
}

// No data of a daemon leads here.
TEST_F(RefreshTest, RejectsAVmWithoutItsConfiguration) {
    AddVm(host, FullVm("16", "poweredOn"));
    const auto client = MakeRef<OrdaneClient>();
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    const char* const text = "SNMPRaskRefreshCache, BUG - vm & config count.\n";
    try {
        SNMP::FillTables(client.Get(), vms.Get(), MakeRef<Ordane::DataArray<Hask::Vm::ConfigInfo>>().Get());
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Ordane::Fault::SystemError::Exception& thrown) {
        EXPECT_STREQ(thrown.what(), text);
    }
    EXPECT_EQ(log.Take(), (Lines{{3, text}}));
}

// Without the log capture, which needs memory itself.
TEST(RefreshWithoutMemory, KeepsNoPartialCacheWhenNotEvenTheReportCanBeMade) {
    FakeDaemon daemon;
    AddVm(daemon.host, FullVm("16", "poweredOn"));
    const auto failure = std::make_exception_ptr(Tessim::Exception("it failed"));
    FaultInjection faults;
    daemon.WhenCalled("GetGuest", [&] {
        faults.FailNew();
        std::rethrow_exception(failure);
    });
    snmp_disable_log();
    EXPECT_THROW(SNMPRaskTable_Init(), std::bad_alloc);
    EXPECT_TRUE(TestRows::List<vmEntry>().empty());
    daemon.WhenCalled("GetGuest", nullptr);
    SNMPRaskTable_Init();
    EXPECT_EQ(TestRows::List<vmEntry>().size(), 1U);
    SNMPRaskTable_Destroy();
}

TEST_F(RefreshTest, OrdersTheRowsOfEveryList) {
    AddVm(host, FullVm("16", "poweredOn"));
    SNMPRaskTable_Init();
    ForEachTable([](const auto& table) {
        if constexpr (!std::is_null_pointer_v<decltype(table.order)>) {
            EXPECT_TRUE(table.order->IsKnown()) << table.handlerName;
        }
    });
}

TEST_F(RefreshTest, EmptiesTheTablesInAFixedOrder) {
    AddVm(host, FullVm("16", "poweredOn"));
    SNMPRaskTable_Init();
    std::vector<const void*> heads;
    ForEachTable([&](const auto& table) { heads.push_back(ListRows(table).at(0)); });
    std::swap(heads.at(6), heads.at(7));  // CPUs before memories, unlike at unload
    std::vector<const void*> released = ReleasedBlocks(SNMPRaskTable_Destroy);
    std::erase_if(released, [&](const void* block) {
        return std::find(heads.begin(), heads.end(), block) == heads.end();
    });
    EXPECT_EQ(released, heads);
}

}  // namespace
}  // namespace RefreshTests
