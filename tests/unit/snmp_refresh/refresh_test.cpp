#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <new>
#include <ostream>
#include <regex>
#include <stdexcept>
#include <thread>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/refresh/CacheFiller.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/fault_injection.h"
#include "tests/unit/snmp/released_blocks.h"
#include "tests/unit/snmp_refresh/fixture.h"
#include "tests/unit/snmp_refresh/rows.h"

extern "C" int netsnmp_running;  // the agent's own

namespace RefreshTests {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::Each;
using TestSupport::FaultInjection;

constexpr std::time_t start = 1'700'000'000;

const LogLine startLine{6, "SNMPRask: start refreshing cache...\n"};
const LogLine completedLine{6, "SNMPRask: refreshing cache completed.\n"};
const LogLine noVmLine{6, "SNMPRaskRefreshCache: no VM found.\n"};
const LogLine noClientLine{4, "SNMPRAskRefreshCache: Could not acquire ordane client to tovric-vessad.\n"};

// The log of a rebuild that found that many VMs.
Lines Completed(int count, const Lines& between = {}) {
    Lines lines = {startLine,
                   {6, "SNMPRaskRefreshCache: Examining " + std::to_string(count) + " VMs found.\n"}};
    lines.insert(lines.end(), between.begin(), between.end());
    lines.push_back(completedLine);
    return lines;
}

// A VM with two devices of each kind and statistics for all of them, in the format of described hosts.
std::string FullVm(const std::string& id, const std::string& powerState) {
    static const std::string vm = R"(
  - id: "ID"
    runtime: {powerState: STATE}
    guest: {guestState: running}
    config:
      name: vm-ID
      guestFullName: Guest of vm-ID
      cpuAllocation: {shares: {shares: 2000}}
      memoryAllocation: {shares: {shares: 5120}}
      hardware:
        numCPU: 2
        memoryMB: 512
        device:
          - {type: VirtualLsiLogicController, key: 1000, busNumber: 0, deviceInfo: {label: vm-ID SCSI 0, summary: ""}}
          - {type: VirtualBusLogicController, key: 1001, busNumber: 1, deviceInfo: {label: vm-ID SCSI 1, summary: ""}}
          - {type: VirtualDisk, key: 2000, unitNumber: 0, deviceInfo: {label: vm-ID Disk 1, summary: ""},
             backing: {type: DeviceBackingInfo, deviceName: raw-1}, shares: {shares: 10}}
          - {type: VirtualDisk, key: 2001, unitNumber: 1, deviceInfo: {label: vm-ID Disk 2, summary: ""},
             backing: {type: DeviceBackingInfo, deviceName: raw-2}, shares: {shares: 20}}
          - {type: VirtualEthernetCard, key: 4000, deviceInfo: {label: vm-ID Adapter 1, summary: vm-ID card 1},
             backing: {type: DeviceBackingInfo, deviceName: VM Network}, macAddress: "00:16:3e:00:00:01"}
          - {type: VirtualEthernetCard, key: 4001, deviceInfo: {label: vm-ID Adapter 2, summary: vm-ID card 2},
             backing: {type: DeviceBackingInfo, deviceName: VM Network}}
          - {type: VirtualIDEController, key: 200, busNumber: 0}
          - {type: VirtualCdrom, key: 3000, controllerKey: 200, unitNumber: 0, connectable: {connected: true},
             backing: {type: DeviceBackingInfo, deviceName: /dev/cd0}}
          - {type: VirtualCdrom, key: 3001, controllerKey: 200, unitNumber: 1, connectable: {connected: false},
             backing: {type: DeviceBackingInfo, deviceName: /dev/cd1}}
          - {type: VirtualFloppy, key: 8000, unitNumber: 0, connectable: {connected: true},
             backing: {type: DeviceBackingInfo, deviceName: /dev/fd0}}
          - {type: VirtualFloppy, key: 8001, unitNumber: 1, connectable: {connected: false},
             backing: {type: DeviceBackingInfo, deviceName: /dev/fd1}}
    stats:
      disk.numberRead: {raw-1: 1, raw-2: 1}
      disk.numberWrite: {raw-1: 2, raw-2: 2}
      disk.read: {raw-1: 3, raw-2: 3}
      disk.write: {raw-1: 4, raw-2: 4}
      net.received: {"4000": 5, "4001": 5}
      net.transmitted: {"4000": 6, "4001": 6}
      net.packetsTx: {"4000": 7, "4001": 7}
      net.packetsRx: {"4000": 8, "4001": 8}
      mem.active: {"": 9}
      cpu.used: {"0": 10, "1": 11}
)";
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

using Counts = std::vector<std::size_t>;
const Counts noRows(10, 0);
const Counts rowsOfAVm = {1, 2, 2, 2, 2, 2, 2, 1, 2, 2};
const Counts rowsOfTwoVms = {2, 4, 4, 4, 4, 4, 4, 2, 4, 4};

class RefreshTest : public DaemonTest {
  protected:
    RefreshTest() {
        host.counters = AllCounters();
        clock->SetTime(start);
    }
    ~RefreshTest() override { SNMPRaskTable_Destroy(); }

    void AddFullVm(const std::string& id, const std::string& powerState = "poweredOn") {
        AddVm(host, FullVm(id, powerState));
    }
    // A request at that many seconds after the start.
    void RequestAt(std::time_t seconds) {
        clock->SetTime(start + seconds);
        SNMPRaskTable_Init();
    }
    int CountRebuilds() const { return daemon.CountCalls("GetChildEntity"); }
    // No request rebuilds the cache before `seconds`, one at `seconds` does.
    void ExpectRowsNotBefore(std::time_t seconds, const Counts& counts) {
        RequestAt(seconds - 1);
        EXPECT_EQ(TestRows::Counts(), noRows);
        RequestAt(seconds);
        EXPECT_EQ(TestRows::Counts(), counts);
    }
    // Makes the second call throw.
    template <class Failure>
    void FailAtSecond(const std::string& method, const Failure& thrown) {
        daemon.WhenCalled(method, [thrown, calls = std::make_shared<int>(0)] {
            if (++*calls == 2) {
                throw thrown;
            }
        });
    }

    std::unique_ptr<FaultInjection> clock = std::make_unique<FaultInjection>();
};

// When.

TEST_F(RefreshTest, RebuildsAtTheFirstRequestAndThenAfterMoreThan20Seconds) {
    AddFullVm("16");
    EXPECT_EQ(TestRows::Counts(), noRows);
    // Counted from the last rebuild; a clock that went back changes nothing.
    const std::pair<int, int> requests[] = {{0, 1},   {0, 1},        {1, 1},  {10, 1}, {19, 1}, {-1, 1},
                                            {-21, 1}, {-1000000, 1}, {20, 1}, {21, 2}, {41, 2}, {42, 3}};
    for (const auto& [seconds, rebuilds] : requests) {
        RequestAt(seconds);
        EXPECT_EQ(CountRebuilds(), rebuilds) << seconds;
        EXPECT_EQ(TestRows::Counts(), rowsOfAVm);
    }
}

TEST_F(RefreshTest, CountsFromTheStartOfARebuildNotFromItsEnd) {
    AddFullVm("16");
    daemon.WhenSent("GetConfig", [this] { clock->SetTime(start + 15); });
    RequestAt(0);
    daemon.WhenSent("GetConfig", nullptr);
    RequestAt(21);
    EXPECT_EQ(CountRebuilds(), 2);
}

TEST_F(RefreshTest, HasFiveSeconds) {
    AddFullVm("16");
    std::vector<Tessim::Clock::time_point> deadlines;
    for (const char* method : {"GetChildEntity", "GetConfig", "QueryPerf", "GetGuest"}) {
        daemon.WhenSent(method, [&] { deadlines.push_back(Tessim::TimeBudget::Deadline()); });
    }
    // The caller's budget is longer, that of the rebuild counts.
    const Tessim::TimeBudget outer(1h);
    const auto begin = Tessim::Clock::now();
    RequestAt(0);
    const auto end = Tessim::Clock::now();
    ASSERT_EQ(deadlines.size(), 4U);
    EXPECT_GE(deadlines[0], begin + 5s);
    EXPECT_LE(deadlines[0], end + 5s);
    EXPECT_THAT(deadlines, Each(deadlines[0]));
    // One of them for the connection.
    EXPECT_GE(daemon.openings.at(0).deadline, begin + 1s);
    EXPECT_LE(daemon.openings.at(0).deadline, end + 1s);
    EXPECT_GT(Tessim::TimeBudget::Deadline() - Tessim::Clock::now(), 10s);
}

TEST_F(RefreshTest, WaitsForASlowDaemonWithinItsTime) {
    AddFullVm("16");
    daemon.WhenSent("QueryPerf", [] { std::this_thread::sleep_for(1500ms); });
    RequestAt(0);
    EXPECT_EQ(log.Take(), Completed(1));
    EXPECT_EQ(TestRows::Counts(), rowsOfAVm);
}

TEST_F(RefreshTest, TimesOutWhileItFillsTheTables) {
    for (const std::string hardware : {"numCPU: 1", "numCPU: 0, device: [{type: VirtualDisk, key: 1}]",
                                       "numCPU: 0, device: [{type: VirtualEthernetCard, key: 1}]"}) {
        Describe(host, std::string("vms: [{id: '16', runtime: {powerState: poweredOn}, config: {name: vm, ") +
                           "guestFullName: '', hardware: {memoryMB: 0, " + hardware + "}}}]");
        {
            const Tessim::TimeBudget spent(0s);
            RequestAt(0);
        }
        EXPECT_EQ(TestRows::Counts(), noRows);
        EXPECT_THAT(TextsOf(log.Take(), 4),
                    Contains(testing::StartsWith("SNMPRaskRefreshCache exception:localhost:902: ")));
    }
    // Retried at once, as after any exception.
    RequestAt(0);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
}

TEST_F(RefreshTest, EndsWhenTheAgentIsToldToEnd) {
    AddFullVm("16");
    ASSERT_NE(SNMPRaskHelper_Init(), 0);
    RequestAt(0);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
    netsnmp_running = 0;
    RequestAt(21);
    netsnmp_running = 1;
    EXPECT_EQ(TestRows::Counts(), noRows);
    EXPECT_THAT(TextsOf(log.Take(), 4), Contains(testing::HasSubstr("SNMPRaskRefreshCache exception:")));
    RequestAt(21);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
}

TEST_F(RefreshTest, RebuildsAtTheNextRequestAfterExpire) {
    AddFullVm("16");
    RequestAt(0);
    SNMPRaskTable_Expire();
    EXPECT_EQ(TestRows::Vms().size(), 1U);
    RequestAt(1);
    EXPECT_EQ(CountRebuilds(), 2);
    RequestAt(21);
    EXPECT_EQ(CountRebuilds(), 2);
}

// What.

TEST_F(RefreshTest, FillsEveryTableOfTwoVms) {
    AddFullVm("16");
    AddFullVm("32");
    RequestAt(0);
    EXPECT_EQ(log.Take(), Completed(2));
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
    AddFullVm("16");
    AddFullVm("32", "poweredOff");
    RequestAt(0);
    EXPECT_THAT(daemon.calls, ElementsAre("AcquireLocalTicket", "Login", "GetChildEntity", "GetConfig",
                                          "GetConfig", "RetrieveContent", "GetPerfCounter", "QueryPerf",
                                          "GetRuntime", "GetGuest", "GetRuntime", "GetGuest"));
    daemon.calls.clear();
    RequestAt(21);
    EXPECT_THAT(daemon.calls, ElementsAre("GetChildEntity", "GetConfig", "GetConfig", "QueryPerf",
                                          "GetRuntime", "GetGuest", "GetRuntime", "GetGuest"));
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
    RequestAt(0);
    Lines expected = Warnings(
        {"SetVMInfo: invalid VM Id: vm-x\n", "SetNicInfo: Null device backing.\n",
         "SetStorageInfo: HBANode: Out of memory?\n", "SetStorageInfo: cannot find unit number for disk D.\n",
         "SetCdromInfo:  No unit number for cdrom.\n", "SetCdromInfo:  No ConnectInfo found for cdrom 0\n",
         "SetCdromInfo: Found cdrom of unknown backing.\n", "SetFloppyInfo: No unit number for floppy.\n",
         "SetFloppyInfo:  Null ConnectInfo for floppy.\n",
         "SetCdromInfo: Found floppy of unknown backing.\n"});
    const auto add = [&](const Lines& lines) { expected.insert(expected.end(), lines.begin(), lines.end()); };
    add(MissingStatistics({"cpu.used.0", "mem.active.any"}));
    add(Warnings({"SetDiskResource: found vdisk of unknown backing.\n"}));
    add(MissingStatistics({"disk.numberRead.unknown", "disk.read.unknown", "disk.numberWrite.unknown",
                           "disk.write.unknown", "net.packetsTx.5", "net.transmitted.5", "net.packetsRx.5",
                           "net.received.5", "net.packetsTx.5", "net.transmitted.5", "net.packetsRx.5",
                           "net.received.5"}));
    EXPECT_EQ(log.Take(), Completed(1, expected));
}

TEST_F(RefreshTest, SkipsVmsWithoutAConfiguration) {
    host.vms.push_back({"8", nullptr, nullptr, nullptr});
    RequestAt(0);
    EXPECT_EQ(log.Take(), Completed(0));
    EXPECT_EQ(TestRows::Counts(), noRows);
    ASSERT_EQ(host.queries.size(), 1U);
    EXPECT_EQ(host.queries[0]->GetLength(), 0);

    AddFullVm("16");
    host.vms.push_back({"24", nullptr, nullptr, nullptr});
    AddFullVm("32");
    RequestAt(21);
    EXPECT_EQ(log.Take(), Completed(2));
    EXPECT_EQ(TestRows::Counts(), rowsOfTwoVms);
    EXPECT_EQ(TestRows::Vms()[1]->vmIdx, 1);
    EXPECT_EQ(TestRows::Vms()[1]->vmVMID, 32);
}

TEST_F(RefreshTest, MakesNoResourceRowsOfAPoweredOffVm) {
    AddFullVm("16", "poweredOff");
    AddFullVm("32", "suspended");
    RequestAt(0);
    EXPECT_THAT(TestRows::Counts(), ElementsAre(2, 4, 4, 4, 4, 4, 2, 1, 2, 2));
    EXPECT_EQ(TestRows::Cpus()[0]->cpuVMID, 32);
    EXPECT_EQ(TestRows::Memories()[0]->memVMID, 32);
    EXPECT_EQ(TestRows::Disks()[0]->diskIdx, 1);
    EXPECT_EQ(TestRows::Cards()[0]->netIdx, 1);
    EXPECT_EQ(host.queries.at(0)->GetLength(), 2);
}

TEST_F(RefreshTest, StartsEachRebuildFromEmptyTables) {
    AddFullVm("16");
    AddFullVm("32");
    RequestAt(0);
    Counts atTheFirstCall;
    daemon.WhenSent("GetChildEntity", [&] { atTheFirstCall = TestRows::Counts(); });
    RequestAt(21);
    EXPECT_EQ(atTheFirstCall, noRows);
    EXPECT_EQ(TestRows::Counts(), rowsOfTwoVms);
    EXPECT_EQ(TestRows::Disks()[0]->diskIdx, 1);
    host.vms.pop_back();
    RequestAt(42);
    EXPECT_EQ(TestRows::Counts(), rowsOfAVm);
}

TEST_F(RefreshTest, KeepsOneLastingCopyPerTextOverRebuilds) {
    AddFullVm("16");
    AddFullVm("32");
    const auto texts = [] {
        return std::vector<const char*>{TestRows::Disks().at(1)->diskName, TestRows::Disks().at(3)->diskName,
                                        TestRows::Cards().at(0)->netName, TestRows::Cards().at(0)->netMac};
    };
    RequestAt(0);
    const std::vector<const char*> first = texts();
    EXPECT_EQ(first[0], first[1]);
    RequestAt(21);
    EXPECT_EQ(texts(), first);
    SNMPRaskTable_Destroy();
    EXPECT_STREQ(first[0], "raw-2");
    EXPECT_STREQ(first[2], "vm-16 card 1");
    EXPECT_STREQ(first[3], "00:16:3e:00:00:01");
}

TEST_F(RefreshTest, LogsEachBadVmIdOncePerRebuild) {
    AddFullVm("vm-x");
    AddFullVm("16");
    AddFullVm("99999999999");
    for (const int seconds : {0, 21}) {
        RequestAt(seconds);
        EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("SetVMInfo: invalid VM Id: vm-x\n",
                                                        "SetVMInfo: invalid VM Id: 99999999999\n"));
        ASSERT_EQ(TestRows::Memories().size(), 3U);
        EXPECT_EQ(TestRows::Memories()[0]->memVMID, -1);
        EXPECT_EQ(TestRows::Memories()[1]->memVMID, 16);
        EXPECT_EQ(TestRows::Memories()[2]->memVMID, -1);
    }
    // Also when it is the only one.
    host.vms = {host.vms[0]};
    for (const int seconds : {42, 63}) {
        RequestAt(seconds);
        EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("SetVMInfo: invalid VM Id: vm-x\n"));
    }
}

TEST_F(RefreshTest, StoresUnknownStatisticsOfAVmWithoutResults) {
    AddFullVm("16");
    AddVm(host, R"(
  - id: "64"
    runtime: {powerState: poweredOn}
    config: {name: late, guestFullName: "", hardware: {numCPU: 1, memoryMB: 64}}
)");
    RequestAt(0);
    EXPECT_EQ(TestRows::Cpus().at(2)->cpuVMID, 64);
    EXPECT_EQ(TestRows::Cpus().at(2)->cpuUsedSec, static_cast<float>(-1 / 1000.0));
    EXPECT_EQ(TestRows::Memories().at(1)->memActive, -1);
    EXPECT_EQ(log.Take(), Completed(2, MissingStatistics({"cpu.used.0", "mem.active.any"})));
}

TEST_F(RefreshTest, FillsTheTablesWithoutStatisticsWhenTheQueryFails) {
    AddFullVm("16");
    FailAt("QueryPerf");
    RequestAt(0);
    EXPECT_EQ(TestRows::Counts(), rowsOfAVm);
    EXPECT_EQ(TestRows::Memories().at(0)->memActive, -1);
    EXPECT_EQ(TestRows::Disks().at(1)->diskWrite, -1);
    const Lines lines = log.Take();
    EXPECT_EQ(lines.at(2), (LogLine{4, "OrdaneClient::CollectVMStats: :it failed\n"}));
    EXPECT_THAT(lines, Contains(LogLine{4, "OrdaneClient::RetrieveStats: no stats available."}));
    EXPECT_EQ(lines.back(), completedLine);
    RequestAt(20);
    EXPECT_EQ(CountRebuilds(), 1);
}

TEST_F(RefreshTest, FillsTheTablesWithoutAPerformanceManager) {
    AddFullVm("16");
    host.content->SetPerfManager(nullptr);
    RequestAt(0);
    EXPECT_EQ(TestRows::Counts(), rowsOfAVm);
    EXPECT_THAT(log.Take(), Contains(LogLine{4, "OrdaneClient::CollectVMStats failed, no perf manager.\n"}));
}

// No data of a daemon leads here.
TEST_F(RefreshTest, RejectsAVmWithoutItsConfiguration) {
    AddFullVm("16");
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

// Empty tables.

TEST_F(RefreshTest, LogsThatThereIsNoVmOncePerInterval) {
    AddFullVm("16");
    RequestAt(0);
    log.Take();
    host.vms.clear();
    const std::pair<int, Lines> requests[] = {{21, {noVmLine}}, {41, {}}, {42, {noVmLine}}};
    for (const auto& [seconds, lines] : requests) {
        RequestAt(seconds);
        EXPECT_EQ(log.Take(), lines) << seconds;
        EXPECT_EQ(TestRows::Counts(), noRows);
    }
}

TEST_F(RefreshTest, IsEmptyWithoutAClientAndRetriesInItsTurn) {
    daemon.down = "connection refused";
    AddFullVm("16");
    RequestAt(0);
    EXPECT_EQ(log.Take().back(), noClientLine);
    EXPECT_EQ(TestRows::Counts(), noRows);
    daemon.down.clear();
    ExpectRowsNotBefore(21, rowsOfAVm);
    log.Take();

    // Filled tables are emptied before the client is requested.
    daemon.foreignStreams = true;
    daemon.down = "connection refused";
    RequestAt(41);
    EXPECT_EQ(TestRows::Counts(), rowsOfAVm);
    RequestAt(42);
    EXPECT_EQ(TestRows::Counts(), noRows);
    EXPECT_THAT(TextsOf(log.Take(), 4),
                ElementsAre("OrdaneClient::Init: :connection refused\n",
                            "Could not init ordane client to tovric-vessad.\n", noClientLine.text));
    daemon.foreignStreams = false;
    daemon.down.clear();
    ExpectRowsNotBefore(63, rowsOfAVm);
}

TEST_F(RefreshTest, FindsNoVmWhenTheConnectionBreaksAndReconnectsInItsTurn) {
    AddFullVm("16");
    RequestAt(0);
    BreakAt("GetChildEntity");
    log.Take();
    RequestAt(21);
    EXPECT_EQ(log.Take(), Lines{noVmLine});
    ExpectRowsNotBefore(42, rowsOfAVm);
    EXPECT_EQ(daemon.openings.size(), 2U);
}

// No memory.

TEST_F(RefreshTest, IsEmptyWithoutMemoryForTheVmRowsAndRetriesInItsTurn) {
    AddFullVm("16");
    RequestAt(0);
    log.Take();
    clock->FailCalloc(sizeof(vmEntry));
    RequestAt(21);
    EXPECT_THAT(log.Take(), ElementsAre(startLine, LogLine{4, "SNMPRaskRefreshCache: Out of memory?\n"}));
    EXPECT_EQ(*SNMPVMInfoTable_GetPtr(), nullptr);
    EXPECT_EQ(host.queries.size(), 1U);
    ExpectRowsNotBefore(42, rowsOfAVm);
}

// The second VM's first row of one table cannot be allocated in a rebuild of three VMs with two devices of
// each kind.
struct NoMemoryCase {
    const char* table;
    std::size_t size;
    int nth;               // which allocation of that size it is
    std::size_t position;  // position of the table among TestRows::Counts
    const char* message;

    friend std::ostream& operator<<(std::ostream& stream, const NoMemoryCase& each) {
        return stream << each.table;
    }
};

class NoMemoryTest : public RefreshTest, public testing::WithParamInterface<NoMemoryCase> {};

TEST_P(NoMemoryTest, EndsTheFillerAndContinuesWithTheNextFillerAndVm) {
    for (const char* id : {"16", "32", "48"}) {
        AddFullVm(id);
    }
    clock->FailCalloc(GetParam().size, GetParam().nth);
    RequestAt(0);
    EXPECT_EQ(log.Take(), Completed(3, Warnings({GetParam().message})));
    const Counts all = {3, 6, 6, 6, 6, 6, 6, 3, 6, 6};
    Counts counts = all;
    counts.at(GetParam().position) -= rowsOfAVm.at(GetParam().position);
    EXPECT_EQ(TestRows::Counts(), counts);
    // Not an exception: retried in its turn.
    RequestAt(20);
    EXPECT_EQ(CountRebuilds(), 1);
    RequestAt(21);
    EXPECT_EQ(TestRows::Counts(), all);
}

// Rows of some tables are of one size; within a VM they are made table by table: cards, adapters, disks,
// CD-ROM drives, floppy drives, then CPUs, memory, disks and cards of the resource groups.
static_assert(sizeof(vmNetNode) != sizeof(vmHBANode) && sizeof(vmHBANode) == sizeof(vmCDROMNode) &&
              sizeof(vmHBANode) == sizeof(vmFloppyNode));
static_assert(sizeof(vmHBATgtNode) == sizeof(resCPUNode) && sizeof(resCPUNode) == sizeof(resMemNode));

INSTANTIATE_TEST_SUITE_P(
    Tables, NoMemoryTest,
    testing::Values(NoMemoryCase{"nic", sizeof(vmNetNode), 3, 1, "SetNicInfo: Out of memory?\n"},
                    NoMemoryCase{"hba", sizeof(vmHBANode), 7, 2, "SetStorageInfo: HBANode: Out of memory?\n"},
                    NoMemoryCase{"cdrom", sizeof(vmCDROMNode), 9, 5, "SetCdromInfo: Out of memory?\n"},
                    NoMemoryCase{"floppy", sizeof(vmFloppyNode), 11, 4, "SetFloppyInfo: Out of memory?\n"},
                    NoMemoryCase{"target", sizeof(vmHBATgtNode), 6, 3,
                                 "SetStorageInfo: HBATgt: Out of memory?\n"},
                    NoMemoryCase{"cpu", sizeof(resCPUNode), 8, 6, "SetCPUResource: Out of memory?\n"},
                    NoMemoryCase{"memory", sizeof(resMemNode), 10, 7, "SetMemResource: Out of memory?\n"},
                    NoMemoryCase{"disk", sizeof(resDiskNode), 3, 8, "SetDiskResource: Out of memory?\n"},
                    NoMemoryCase{"card", sizeof(resNetNode), 3, 9, "SetNetResource: Out of memory?\n"}),
    [](const auto& info) { return std::string(info.param.table); });

// Exceptions.

class FailingRebuildTest : public RefreshTest, public testing::WithParamInterface<const char*> {};

TEST_P(FailingRebuildTest, EmptiesTheTablesAndRetriesAtOnce) {
    AddFullVm("16");
    AddFullVm("32");
    RequestAt(0);
    log.Take();
    // The second VM fails, so that there are rows already.
    FailAtSecond(GetParam(), failure);
    RequestAt(21);
    const Lines lines = log.Take();
    const Lines report = Report("SNMPRaskRefreshCache exception:it failed\n", failure, 4);
    ASSERT_GE(lines.size(), report.size());
    EXPECT_EQ(Lines(lines.end() - static_cast<std::ptrdiff_t>(report.size()), lines.end()), report);
    EXPECT_EQ(TestRows::Counts(), noRows);

    FailAt(GetParam());
    for (int rebuilds = 3; rebuilds <= 5; ++rebuilds) {
        RequestAt(21);
        EXPECT_EQ(CountRebuilds(), rebuilds);
        EXPECT_EQ(TestRows::Counts(), noRows);
    }
    log.Take();
    Repair(GetParam());
    RequestAt(21);
    EXPECT_EQ(TestRows::Counts(), rowsOfTwoVms);
    EXPECT_EQ(log.Take(), Completed(2));
    RequestAt(41);
    EXPECT_EQ(CountRebuilds(), 6);
}

INSTANTIATE_TEST_SUITE_P(Calls, FailingRebuildTest, testing::Values("GetConfig", "GetRuntime", "GetGuest"),
                         [](const auto& info) { return std::string(info.param); });

TEST_F(RefreshTest, ReportsAFaultLikeAnyException) {
    AddFullVm("16");
    host.WhenAsked("GetConfig", [] { throw Tessim::Exception("not today"); });
    RequestAt(0);
    const Lines lines = log.Take();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[0], startLine);
    EXPECT_EQ(lines[1], (LogLine{4, "SNMPRaskRefreshCache exception:not today\n"}));
    EXPECT_THAT(Lines(lines.begin() + 2, lines.end()), Each(testing::Field(&LogLine::priority, 4)));
}

TEST_F(RefreshTest, ReportsAConnectionThatBreaksInTheMiddle) {
    AddFullVm("16");
    BreakAt("GetRuntime");
    RequestAt(0);
    EXPECT_THAT(log.Take(), Contains(LogLine{4, "SNMPRaskRefreshCache exception:connection reset\n"}));
    EXPECT_EQ(TestRows::Counts(), noRows);
    // The next request finds the connection broken, the one after that reconnects.
    RequestAt(0);
    EXPECT_EQ(log.Take(), Lines{noVmLine});
    RequestAt(21);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
    EXPECT_EQ(daemon.openings.size(), 2U);
}

TEST_F(RefreshTest, ReconnectsAtOnceWhenTheStatisticsBreakTheConnection) {
    AddFullVm("16");
    BreakAt("QueryPerf");
    RequestAt(0);
    EXPECT_THAT(TextsOf(log.Take(), 4), Contains("OrdaneClient::CollectVMStats: :connection reset\n"));
    EXPECT_EQ(TestRows::Counts(), noRows);
    RequestAt(0);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
    EXPECT_EQ(TestRows::Memories().at(0)->memActive, 9);
    EXPECT_EQ(daemon.openings.size(), 2U);
}

TEST_F(RefreshTest, LetsOtherExceptionsPassAndKeepsNoPartialCache) {
    AddFullVm("16");
    AddFullVm("32");
    FailAtSecond("GetGuest", std::runtime_error("not of the runtime"));
    EXPECT_THROW(RequestAt(0), std::runtime_error);
    EXPECT_EQ(TestRows::Counts(), noRows);
    FailAtSecond("GetGuest", std::bad_alloc());
    EXPECT_THROW(RequestAt(0), std::bad_alloc);
    EXPECT_EQ(TestRows::Counts(), noRows);
    for (const LogLine& line : log.Take()) {
        EXPECT_THAT(line.text, testing::Not(testing::HasSubstr("exception")));
    }
    Repair("GetGuest");
    RequestAt(0);
    EXPECT_EQ(TestRows::Vms().size(), 2U);
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
    EXPECT_EQ(TestRows::Counts(), noRows);
    daemon.WhenCalled("GetGuest", nullptr);
    SNMPRaskTable_Init();
    EXPECT_EQ(TestRows::Vms().size(), 1U);
    SNMPRaskTable_Destroy();
}

TEST_F(RefreshTest, LetsExceptionsOutOfABareRebuildPass) {
    AddFullVm("16");
    FailAt("GetConfig");
    EXPECT_THROW(SNMPRaskRefreshCache(), Tessim::Exception);
}

// Emptying.

TEST_F(RefreshTest, EmptiesTheTablesInAFixedOrder) {
    AddFullVm("16");
    RequestAt(0);
    const std::vector<const void*> heads = {
        TestRows::Vms()[0],      TestRows::Nics()[0],   TestRows::Hbas()[0], TestRows::Targets()[0],
        TestRows::Floppies()[0], TestRows::Cdroms()[0], TestRows::Cpus()[0], TestRows::Memories()[0],
        TestRows::Disks()[0],    TestRows::Cards()[0]};
    std::vector<const void*> released = ReleasedBlocks(SNMPRaskTable_Destroy);
    std::erase_if(released, [&](const void* block) {
        return std::find(heads.begin(), heads.end(), block) == heads.end();
    });
    EXPECT_EQ(released, heads);
}

TEST_F(RefreshTest, StaysEmptyAfterDestroyUntilItsTurn) {
    AddFullVm("16");
    RequestAt(0);
    SNMPRaskTable_Destroy();
    ExpectRowsNotBefore(21, rowsOfAVm);
}

}  // namespace
}  // namespace RefreshTests
