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
        // Makes the call end 15 seconds after the start.
        Add("slow-call", [this](const std::string& method) {
            daemon.WhenSent(method, [this] { clock->SetTime(start + 15); });
        });
        Add("no-memory", [this] { clock->FailCalloc(sizeof(vmEntry)); });
        Add("module", [] { return SNMPRaskHelper_Init() != 0; });
        Add("ending", [] { netsnmp_running = 0; });
        Add("running", [] { netsnmp_running = 1; });
        Add("expire", SNMPRaskTable_Expire);
        Add("destroy", SNMPRaskTable_Destroy);
        Add("rebuild", SNMPRaskRefreshCache);
        Add("queries", [this] { return host.queries.size(); });
        Add("show-outages", [this] { showsOutages = true; });
        Add("rows", TestRows::Counts);
        Add("memories", [] {
            std::string text;
            for (const auto* row : TestRows::List<resMemNode>()) {
                text += " " + std::to_string(row->memVMID) + ":" + std::to_string(row->memActive);
            }
            return text.substr(text.empty() ? 0 : 1);
        });
    }
    ~RefreshTest() override { SNMPRaskTable_Destroy(); }

    bool Shows(const std::string& event) const override { return event == "open stream"; }
    // The end of a rebuild stands for its other lines.
    bool Shows(const LogLine& line) const override {
        return !line.text.starts_with("SNMPRask: start") &&
               (showsOutages || !line.text.starts_with("SNMPRask: tables")) &&
               !line.text.starts_with("SNMPRaskRefreshCache: Examining");
    }

    std::unique_ptr<FaultInjection> clock = std::make_unique<FaultInjection>();
    bool showsOutages = false;
};

const bool registered = RegisterSessions<RefreshTest>("RefreshTest", "refresh");

TEST(Outage, IsToldOnceAMinuteWhileItLasts) {
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
                                 {5, "SNMPRask: tables are filled again after 150 s.\n"}}));
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

TEST_F(RefreshTest, TimesOutWhileItFillsTheTables) {
    for (const std::string hardware : {"numCPU: 1", "numCPU: 0, device: [{type: VirtualDisk, key: 1}]",
                                       "numCPU: 0, device: [{type: VirtualEthernetCard, key: 1}]"}) {
        Describe(host, std::string("vms: [{id: '16', runtime: {powerState: poweredOn}, config: {name: vm, ") +
                           "guestFullName: '', hardware: {memoryMB: 0, " + hardware + "}}}]");
        {
            const Tessim::TimeBudget spent(0s);
            SNMPRaskTable_Init();
        }
        EXPECT_TRUE(TestRows::List<vmEntry>().empty());
        const Lines lines = log.Take();
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const LogLine& line) {
            return line.text.starts_with("SNMPRaskRefreshCache exception:localhost:902: ");
        }));
    }
    // Retried at once, as after any exception.
    SNMPRaskTable_Init();
    EXPECT_EQ(TestRows::List<vmEntry>().size(), 1U);
}

TEST_F(RefreshTest, FillsEveryTableOfTwoVms) {
    Check("\nvm 16; vm 32\n");
    SNMPRaskTable_Init();
    EXPECT_EQ(log.Take(), (Lines{{6, "SNMPRask: start refreshing cache...\n"},
                                 {6, "SNMPRaskRefreshCache: Examining 2 VMs found.\n"},
                                 {6, "SNMPRask: refreshing cache completed.\n"}}));
    EXPECT_EQ('\n' + TestRows::VmText() + TestRows::DeviceText() + TestRows::ResourceText(), R"(
vm 0 "vm-16" "Unknown config: 16" "Guest of vm-16" 512 "poweredOn" 16 "running"
vm 1 "vm-32" "Unknown config: 32" "Guest of vm-32" 512 "poweredOn" 32 "running"
nic 0 0 "vm-16 Adapter 1" "VM Network" "monitor_dev"
nic 0 1 "vm-16 Adapter 2" "VM Network" "monitor_dev"
nic 1 0 "vm-32 Adapter 1" "VM Network" "monitor_dev"
nic 1 1 "vm-32 Adapter 2" "VM Network" "monitor_dev"
hba 0 0 "vm-16 SCSI 0" "lsilogic"
hba 0 1 "vm-16 SCSI 1" "buslogic"
hba 1 0 "vm-32 SCSI 0" "lsilogic"
hba 1 1 "vm-32 SCSI 1" "buslogic"
target 0 0 "vm-16 Disk 1"
target 0 1 "vm-16 Disk 2"
target 1 0 "vm-32 Disk 1"
target 1 1 "vm-32 Disk 2"
floppy 0 0 "/dev/fd0" "true"
floppy 0 1 "/dev/fd1" "false"
floppy 1 0 "/dev/fd0" "true"
floppy 1 1 "/dev/fd1" "false"
cdrom 0 0 "/dev/cd0" "true"
cdrom 0 1 "/dev/cd1" "false"
cdrom 1 0 "/dev/cd0" "true"
cdrom 1 1 "/dev/cd1" "false"
cpu 16 2000 0.00999999978
cpu 17 0 0.0109999999
cpu 32 2000 0.00999999978
cpu 33 0 0.0109999999
memory 16 5120 524288 9
memory 32 5120 524288 9
disk 1 "raw-1" 16 10 1 3 2 4
disk 2 "raw-2" 16 20 1 3 2 4
disk 3 "raw-1" 32 10 1 3 2 4
disk 4 "raw-2" 32 20 1 3 2 4
card 1 "vm-16 card 1" 16 "00:16:3e:00:00:01" 0 7 6 8 5 7 6 8 5
card 2 "vm-16 card 2" 16 "SNMP Error" 0 7 6 8 5 7 6 8 5
card 3 "vm-32 card 1" 32 "00:16:3e:00:00:01" 0 7 6 8 5 7 6 8 5
card 4 "vm-32 card 2" 32 "SNMP Error" 0 7 6 8 5 7 6 8 5
)");
}

TEST_F(RefreshTest, SendsNoMoreCallsThanItMust) {
    Check("\nvm 16; vm 32 poweredOff\n");
    SNMPRaskTable_Init();
    EXPECT_EQ(daemon.calls,
              (std::vector<std::string>{"AcquireLocalTicket", "Login", "GetChildEntity", "GetConfig",
                                        "GetConfig", "RetrieveContent", "GetPerfCounter", "QueryPerf",
                                        "GetRuntime", "GetGuest", "GetRuntime", "GetGuest"}));
    daemon.calls.clear();
    SNMPRaskTable_Expire();
    SNMPRaskTable_Init();
    EXPECT_EQ(daemon.calls, (std::vector<std::string>{"GetChildEntity", "GetConfig", "GetConfig", "QueryPerf",
                                                      "GetRuntime", "GetGuest", "GetRuntime", "GetGuest"}));
}

TEST_F(RefreshTest, CallsTheFillersInTheirOrder) {
    // Every filler warns about this VM.
    Describe(host, R"(
vms:
  - id: vm-x
    runtime: {powerState: poweredOn}
    config: {name: odd, guestFullName: "", hardware: {numCPU: 1, memoryMB: 0, device: [
      {type: VirtualFloppy, key: 1}, {type: VirtualCdrom, key: 2},
      {type: VirtualDisk, key: 3, deviceInfo: {label: D, summary: ""}},
      {type: VirtualSCSIController, key: 4, busNumber: 0}, {type: VirtualEthernetCard, key: 5}]}}
)");
    clock->FailCalloc(sizeof(vmHBANode));
    Check(R"(
at 0 -> (open stream)
  4 SetVMInfo: invalid VM Id: vm-x
  4 SetNicInfo: Null device backing.
  4 SetStorageInfo: HBANode: Out of memory?
  4 SetStorageInfo: cannot find unit number for disk D.
  4 SetCdromInfo:  No unit number for cdrom.
  4 SetCdromInfo:  No ConnectInfo found for cdrom 0
  4 SetCdromInfo: Found cdrom of unknown backing.
  4 SetFloppyInfo: No unit number for floppy.
  4 SetFloppyInfo:  Null ConnectInfo for floppy.
  4 SetCdromInfo: Found floppy of unknown backing.
  4 OrdaneClient::RetrieveStats: couldn't find stats for cpu.used.0
  4 OrdaneClient::RetrieveStats: couldn't find stats for mem.active.any
  4 SetDiskResource: found vdisk of unknown backing.
  4 OrdaneClient::RetrieveStats: couldn't find stats for disk.numberRead.unknown
  4 OrdaneClient::RetrieveStats: couldn't find stats for disk.read.unknown
  4 OrdaneClient::RetrieveStats: couldn't find stats for disk.numberWrite.unknown
  4 OrdaneClient::RetrieveStats: couldn't find stats for disk.write.unknown
  4 OrdaneClient::RetrieveStats: couldn't find stats for net.packetsTx.5
  4 OrdaneClient::RetrieveStats: couldn't find stats for net.transmitted.5
  4 OrdaneClient::RetrieveStats: couldn't find stats for net.packetsRx.5
  4 OrdaneClient::RetrieveStats: couldn't find stats for net.received.5
  4 OrdaneClient::RetrieveStats: couldn't find stats for net.packetsTx.5
  4 OrdaneClient::RetrieveStats: couldn't find stats for net.transmitted.5
  4 OrdaneClient::RetrieveStats: couldn't find stats for net.packetsRx.5
  4 OrdaneClient::RetrieveStats: couldn't find stats for net.received.5
  6 SNMPRask: refreshing cache completed.
)");
}

TEST_F(RefreshTest, SkipsVmsWithoutAConfiguration) {
    Check(R"(
unconfigured-vm 8; at 0; rows -> 0 0 0 0 0 0 0 0 0 0 (open stream)
  6 SNMPRask: refreshing cache completed.
vm 16; unconfigured-vm 24; vm 32; at 21; rows -> 2 4 4 4 4 4 4 2 4 4
  6 SNMPRask: refreshing cache completed.
)");
    EXPECT_EQ(host.queries.at(0)->GetLength(), 0);
    EXPECT_EQ(TestRows::List<vmEntry>()[1]->vmIdx, 1);
    EXPECT_EQ(TestRows::List<vmEntry>()[1]->vmVMID, 32);
}

TEST_F(RefreshTest, MakesNoResourceRowsOfAPoweredOffVm) {
    Check(R"(
vm 16 poweredOff; vm 32 suspended; at 0; rows; memories -> 2 4 4 4 4 4 2 1 2 2 32:9 (open stream)
  6 SNMPRask: refreshing cache completed.
)");
    EXPECT_EQ(TestRows::List<resCPUNode>()[0]->cpuVMID, 32);
    EXPECT_EQ(TestRows::List<resDiskNode>()[0]->diskIdx, 1);
    EXPECT_EQ(TestRows::List<resNetNode>()[0]->netIdx, 1);
    EXPECT_EQ(host.queries.at(0)->GetLength(), 2);
}

TEST_F(RefreshTest, StartsEachRebuildFromEmptyTables) {
    std::string atTheFirstCall;
    daemon.WhenSent("GetChildEntity", [&] { atTheFirstCall = TestRows::Counts(); });
    Check(R"(
vm 16; vm 32; at 0; rows -> 2 4 4 4 4 4 4 2 4 4 (open stream)
  6 SNMPRask: refreshing cache completed.
remove-vm; at 21; rows -> 1 2 2 2 2 2 2 1 2 2
  6 SNMPRask: refreshing cache completed.
)");
    EXPECT_EQ(atTheFirstCall, "0 0 0 0 0 0 0 0 0 0");
    EXPECT_EQ(TestRows::List<resDiskNode>()[0]->diskIdx, 1);
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

// The second VM's first row of one table cannot be allocated in a rebuild of three VMs with two devices of
// each kind. It is not an exception, and retried in its turn.
TEST_F(RefreshTest, EndsAFillerWithoutMemoryAndContinuesWithTheNextFillerAndVm) {
    // Rows are allocated one by one, after those of the VM table: of each VM two cards, adapters, disks,
    // CD-ROM drives and floppy drives, then two CPUs, the memory, two disks and two cards of the resource
    // groups.
    constexpr int secondVm = 1 + 17 + 1;
    const struct {
        int nth;
        std::string counts;
        std::string message;
    } cases[] = {{secondVm, "3 4 6 6 6 6 6 3 6 6", "SetNicInfo"},
                 {secondVm + 2, "3 6 4 6 6 6 6 3 6 6", "SetStorageInfo: HBANode"},
                 {secondVm + 4, "3 6 6 4 6 6 6 3 6 6", "SetStorageInfo: HBATgt"},
                 {secondVm + 6, "3 6 6 6 6 4 6 3 6 6", "SetCdromInfo"},
                 {secondVm + 8, "3 6 6 6 4 6 6 3 6 6", "SetFloppyInfo"},
                 {secondVm + 10, "3 6 6 6 6 6 4 3 6 6", "SetCPUResource"},
                 {secondVm + 12, "3 6 6 6 6 6 6 2 6 6", "SetMemResource"},
                 {secondVm + 13, "3 6 6 6 6 6 6 3 4 6", "SetDiskResource"},
                 {secondVm + 15, "3 6 6 6 6 6 6 3 6 4", "SetNetResource"}};
    Check("\nvm 16; vm 32; vm 48; rebuild -> (open stream)\n  6 SNMPRask: refreshing cache completed.\n");
    for (const auto& each : cases) {
        clock->FailCalloc(0, each.nth);
        Check("\nexpire; at 0; rows -> " + each.counts + "\n  4 " + each.message + R"(: Out of memory?
  6 SNMPRask: refreshing cache completed.
at 20; at 21; rows -> 3 6 6 6 6 6 6 3 6 6
  6 SNMPRask: refreshing cache completed.
)");
    }
}

// The second VM fails, so that there are rows already.
TEST_F(RefreshTest, EmptiesTheTablesAfterAnExceptionAndRetriesAtOnce) {
    Check("\nvm 16; vm 32; rebuild -> (open stream)\n  6 SNMPRask: refreshing cache completed.\n");
    for (const std::string method : {"GetConfig", "GetRuntime", "GetGuest"}) {
        const std::string session = R"(
expire; fail-second METHOD; at 0; rows -> 0 0 0 0 0 0 0 0 0 0
  4 SNMPRaskRefreshCache exception:it failed (4 backtrace)
fail METHOD; at 0; rows -> 0 0 0 0 0 0 0 0 0 0
  4 SNMPRaskRefreshCache exception:it failed (4 backtrace)
throw METHOD; at 0 -> throws not of the runtime
repair METHOD; rows -> 0 0 0 0 0 0 0 0 0 0
at 0; at 20; rows -> 2 4 4 4 4 4 4 2 4 4
  6 SNMPRask: refreshing cache completed.
)";
        Check(std::regex_replace(session, std::regex("METHOD"), method));
    }
    Check(R"(
fail GetConfig; rebuild -> throws it failed
repair GetConfig; fault GetConfig; expire; at 0
  4 SNMPRaskRefreshCache exception:not today, %1 %s (4 backtrace)
)");
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
