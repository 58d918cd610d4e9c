#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <ostream>
#include <stdexcept>
#include <thread>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/collections/VMTables.h"
#include "apps/snmp/refresh/SNMPRaskHelper.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/api_objects.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp_refresh/log_lines.h"
#include "tests/unit/snmp_refresh/rows.h"

extern "C" int netsnmp_running;  // the agent's own

namespace {

// The tables in the order in which they were emptied.
std::vector<std::string> emptied;

}  // namespace

// The linker turns calls of f into calls of __wrap_f, and __real_f into f.
#define OBSERVED_DESTROY(table)                       \
    extern "C" void __real_##table##Table_Destroy();  \
    extern "C" void __wrap_##table##Table_Destroy() { \
        emptied.emplace_back(#table);                 \
        __real_##table##Table_Destroy();              \
    }
// NOLINTBEGIN(bugprone-reserved-identifier)
OBSERVED_DESTROY(SNMPVMInfo)
OBSERVED_DESTROY(SNMPVMNet)
OBSERVED_DESTROY(SNMPVMHBA)
OBSERVED_DESTROY(SNMPVMHBATgt)
OBSERVED_DESTROY(SNMPVMFloppy)
OBSERVED_DESTROY(SNMPVMCDROM)
OBSERVED_DESTROY(SNMPResCPU)
OBSERVED_DESTROY(SNMPResMem)
OBSERVED_DESTROY(SNMPResDisk)
OBSERVED_DESTROY(SNMPResNet)
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using namespace ApiObjects;
using namespace std::chrono_literals;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using TestSupport::FakeDaemon;
using TestSupport::FakeHost;
using TestSupport::FaultInjection;
using TestSupport::LogCapture;
using TestSupport::LogLine;

constexpr std::time_t start = 1'700'000'000;

const LogLine startLine{6, "SNMPRask: start refreshing cache...\n"};
const LogLine completedLine{6, "SNMPRask: refreshing cache completed.\n"};
const LogLine noVmLine{6, "SNMPRaskRefreshCache: no VM found.\n"};
const LogLine noMemoryLine{4, "SNMPRaskRefreshCache: Out of memory?\n"};

LogLine ExaminingLine(int count) {
    return {6, "SNMPRaskRefreshCache: Examining " + std::to_string(count) + " VMs found.\n"};
}

// A configuration with two devices of each kind.
Ref<Hask::Vm::ConfigInfo> FullConfig(const std::string& name) {
    auto config = Config(
        name, 2, 512,
        {MakeController<Device::VirtualLsiLogicController>(1000, 0, name + " SCSI 0"),
         MakeController<Device::VirtualBusLogicController>(1001, 1, name + " SCSI 1"),
         Disk(name + " Disk 1", 0, DeviceBacking("raw-1"), 10),
         Disk(name + " Disk 2", 1, DeviceBacking("raw-2"), 20), Nic(4000, name + " Adapter 1"),
         Nic(4001, name + " Adapter 2"), MakeController<Device::VirtualIDEController>(200, 0),
         Cdrom(200, 0, DeviceBacking("/dev/cd0"), true), Cdrom(200, 1, DeviceBacking("/dev/cd1"), false),
         Floppy(0, DeviceBacking("/dev/fd0"), true), Floppy(1, DeviceBacking("/dev/fd1"), false)});
    config->SetCpuAllocation(Allocation(2000));
    config->SetMemoryAllocation(Allocation(5120));
    return config;
}

// Figures for everything in FullConfig.
Ref<Performance::EntityMetric> FullMetric(const std::string& id) {
    std::vector<Ref<Performance::MetricSeries>> series;
    for (const char* disk : {"raw-1", "raw-2"}) {
        for (const int counter : {1, 2, 3, 4}) {
            series.push_back(Series(counter, disk, {counter}));
        }
    }
    for (const char* nic : {"4000", "4001"}) {
        for (const int counter : {5, 6, 7, 8}) {
            series.push_back(Series(counter, nic, {counter}));
        }
    }
    series.push_back(Series(9, "", {9}));
    series.push_back(Series(10, "0", {10}));
    series.push_back(Series(10, "1", {11}));
    return Metric(id, series);
}

const std::vector<std::size_t> noRows(10, 0);

class RefreshTest : public testing::Test {
  protected:
    RefreshTest() {
        host.counters = AllCounters();
        clock->SetTime(start);
    }
    ~RefreshTest() override { SNMPRaskTable_Destroy(); }

    void AddFullVm(const std::string& id, PowerState state = PowerState::poweredOn) {
        host.vms.push_back(Vm(id, FullConfig("vm-" + id), state));
        host.metrics->Append(FullMetric(id));
    }
    // A request at that many seconds after the start.
    void RequestAt(std::time_t seconds) {
        clock->SetTime(start + seconds);
        SNMPRaskTable_Init();
    }
    int CountRebuilds() const { return daemon.CountCalls("GetChildEntity"); }

    FakeDaemon daemon;
    FakeHost& host = daemon.host;
    LogCapture log;
    std::unique_ptr<FaultInjection> clock = std::make_unique<FaultInjection>();
    const Tessim::Exception failure{"it failed"};
};

// When.

TEST_F(RefreshTest, ServesTheCacheFor20SecondsAndNoLonger) {
    AddFullVm("16");
    RequestAt(0);
    EXPECT_EQ(CountRebuilds(), 1);
    for (const int seconds : {0, 1, 10, 19, 20}) {
        RequestAt(seconds);
        EXPECT_EQ(CountRebuilds(), 1) << seconds;
    }
    RequestAt(21);
    EXPECT_EQ(CountRebuilds(), 2);
    // Counted from the last start.
    RequestAt(41);
    EXPECT_EQ(CountRebuilds(), 2);
    RequestAt(42);
    EXPECT_EQ(CountRebuilds(), 3);
}

TEST_F(RefreshTest, RebuildsAtTheFirstRequest) {
    AddFullVm("16");
    EXPECT_EQ(TestRows::Counts(), noRows);
    RequestAt(0);
    EXPECT_EQ(CountRebuilds(), 1);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
}

TEST_F(RefreshTest, TakesAClockThatWentBackForFresh) {
    AddFullVm("16");
    RequestAt(0);
    for (const int seconds : {-1, -21, -1000000, 20}) {
        RequestAt(seconds);
        EXPECT_EQ(CountRebuilds(), 1) << seconds;
    }
    RequestAt(21);
    EXPECT_EQ(CountRebuilds(), 2);
}

TEST_F(RefreshTest, CountsFromTheStartOfARebuildNotFromItsEnd) {
    AddFullVm("16");
    daemon.WhenSent("GetConfig", [this] { clock->SetTime(start + 15); });
    RequestAt(0);
    daemon.WhenSent("GetConfig", nullptr);
    RequestAt(21);
    EXPECT_EQ(CountRebuilds(), 2);
}

TEST_F(RefreshTest, MayTakeFiveSeconds) {
    AddFullVm("16");
    std::vector<Tessim::Clock::time_point> deadlines;
    for (const char* method : {"GetChildEntity", "GetConfig", "QueryPerf", "GetGuest"}) {
        daemon.WhenSent(method, [&] { deadlines.push_back(Tessim::TimeBudget::Deadline()); });
    }
    // The budget of the caller is longer, that of the rebuild counts.
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

TEST_F(RefreshTest, WaitsForADaemonThatIsSlowButInTime) {
    AddFullVm("16");
    daemon.WhenSent("QueryPerf", [] { std::this_thread::sleep_for(1500ms); });
    RequestAt(0);
    EXPECT_THAT(log.Take(), ElementsAre(startLine, ExaminingLine(1), completedLine));
    EXPECT_THAT(TestRows::Counts(), ElementsAre(1, 2, 2, 2, 2, 2, 2, 1, 2, 2));
}

TEST_F(RefreshTest, EndsWhenItsTimeIsUpWhileItFillsTheTables) {
    for (const auto& devices : std::vector<std::vector<Ref<Device::VirtualDevice>>>{
             {}, {Disk("Hard Disk 1", 0, DeviceBacking("raw"))}, {Nic(4000, "Adapter 1")}}) {
        // With devices it is they that end it, not the CPUs.
        host.vms = {Vm("16", Config("vm", devices.empty() ? 1 : 0, 0, devices))};
        {
            const Tessim::TimeBudget spent(0s);
            RequestAt(0);
        }
        EXPECT_EQ(TestRows::Counts(), noRows);
        const std::vector<std::string> texts = TextsOf(log.Take(), 4);
        EXPECT_THAT(texts, Contains(testing::StartsWith("SNMPRaskRefreshCache exception:localhost:902: ")));
    }
    // At once, as after any exception.
    RequestAt(0);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
}

TEST_F(RefreshTest, EndsItsWorkWhenTheAgentIsToldToEnd) {
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

TEST_F(RefreshTest, RebuildsAtTheNextRequestWhenItIsMadeToExpire) {
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
    EXPECT_THAT(log.Take(), ElementsAre(startLine, ExaminingLine(2), completedLine));
    EXPECT_THAT(TestRows::Counts(), ElementsAre(2, 4, 4, 4, 4, 4, 4, 2, 4, 4));

    EXPECT_EQ(TestRows::Vms()[0]->vmIdx, 0);
    EXPECT_EQ(TestRows::Vms()[0]->vmVMID, 16);
    EXPECT_EQ(TestRows::Vms()[1]->vmIdx, 1);
    EXPECT_EQ(TestRows::Vms()[1]->vmVMID, 32);
    for (std::size_t i = 0; i < 4; ++i) {
        const auto vm = static_cast<int>(i / 2);
        const auto device = static_cast<int>(i % 2);
        const std::string name = vm == 0 ? "vm-16" : "vm-32";
        const auto labelled = [&](const char* kind, int count) {
            return std::string(name).append(kind).append(std::to_string(count));
        };
        EXPECT_EQ(TestRows::Nics()[i]->vmIdx, vm);
        EXPECT_EQ(TestRows::Nics()[i]->nicIdx, device);
        EXPECT_EQ(TestRows::Nics()[i]->nicLabel, labelled(" Adapter ", device + 1));
        EXPECT_EQ(TestRows::Hbas()[i]->vmIdx, vm);
        EXPECT_EQ(TestRows::Hbas()[i]->hbaBus, device);
        EXPECT_EQ(TestRows::Hbas()[i]->hbaLabel, labelled(" SCSI ", device));
        EXPECT_EQ(TestRows::Targets()[i]->vmIdx, vm);
        EXPECT_EQ(TestRows::Targets()[i]->tgtUnit, device);
        EXPECT_EQ(TestRows::Targets()[i]->tgtLabel, labelled(" Disk ", device + 1));
        EXPECT_EQ(TestRows::Floppies()[i]->vmIdx, vm);
        EXPECT_EQ(TestRows::Floppies()[i]->fdUnit, device);
        EXPECT_EQ(TestRows::Cdroms()[i]->vmIdx, vm);
        EXPECT_EQ(TestRows::Cdroms()[i]->cdIdeIndex, device);

        const int id = vm == 0 ? 16 : 32;
        EXPECT_EQ(TestRows::Cpus()[i]->cpuVMID, id + device);
        EXPECT_EQ(TestRows::Cpus()[i]->cpuShares, device == 0 ? 2000 : 0);
        EXPECT_EQ(TestRows::Disks()[i]->diskIdx, static_cast<int>(i) + 1);
        EXPECT_EQ(TestRows::Disks()[i]->diskVMID, id);
        EXPECT_EQ(TestRows::Disks()[i]->diskName, "raw-" + std::to_string(device + 1));
        EXPECT_EQ(TestRows::Disks()[i]->diskWrite, 4);
        EXPECT_EQ(TestRows::Cards()[i]->netIdx, static_cast<int>(i) + 1);
        EXPECT_EQ(TestRows::Cards()[i]->netVMID, id);
        EXPECT_EQ(TestRows::Cards()[i]->netRx, 5);
    }
    EXPECT_EQ(TestRows::Memories()[0]->memVMID, 16);
    EXPECT_EQ(TestRows::Memories()[1]->memVMID, 32);
    EXPECT_EQ(TestRows::Memories()[1]->memActive, 9);
}

TEST_F(RefreshTest, AsksTheDaemonNoMoreThanItMust) {
    AddFullVm("16");
    AddFullVm("32", PowerState::poweredOff);
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
    // Every filler has something to say about this VM.
    host.vms = {Vm(
        "vm-x",
        Config("odd", 1, 0,
               {MakeDevice<Device::VirtualFloppy>(1, "F"), MakeDevice<Device::VirtualCdrom>(2, "C"),
                MakeDevice<Device::VirtualDisk>(3, "D"), MakeController<Device::VirtualSCSIController>(4, 0),
                MakeDevice<Device::VirtualEthernetCard>(5, "N")}))};
    clock->FailCalloc(sizeof(vmHBANode));
    RequestAt(0);
    std::vector<std::string> starts;
    for (const std::string& text : TextsOf(log.Take(), 4)) {
        starts.push_back(text.substr(0, text.find_first_of('\n')));
    }
    EXPECT_THAT(
        starts,
        ElementsAre(
            "SetVMInfo: invalid VM Id: vm-x", "SetNicInfo: Null device backing.",
            "SetStorageInfo: HBANode: Out of memory?", "SetStorageInfo: cannot find unit number for disk D.",
            "SetCdromInfo:  No unit number for cdrom.", "SetCdromInfo:  No ConnectInfo found for cdrom 0",
            "SetCdromInfo: Found cdrom of unknown backing.", "SetFloppyInfo: No unit number for floppy.",
            "SetFloppyInfo:  Null ConnectInfo for floppy.", "SetCdromInfo: Found floppy of unknown backing.",
            "OrdaneClient::RetrieveStats: couldn't find stats for cpu.used.0",
            "OrdaneClient::RetrieveStats: couldn't find stats for mem.active.any",
            "SetDiskResource: found vdisk of unknown backing.",
            "OrdaneClient::RetrieveStats: couldn't find stats for disk.numberRead.unknown",
            "OrdaneClient::RetrieveStats: couldn't find stats for disk.read.unknown",
            "OrdaneClient::RetrieveStats: couldn't find stats for disk.numberWrite.unknown",
            "OrdaneClient::RetrieveStats: couldn't find stats for disk.write.unknown",
            "OrdaneClient::RetrieveStats: couldn't find stats for net.packetsTx.5",
            "OrdaneClient::RetrieveStats: couldn't find stats for net.transmitted.5",
            "OrdaneClient::RetrieveStats: couldn't find stats for net.packetsRx.5",
            "OrdaneClient::RetrieveStats: couldn't find stats for net.received.5",
            "OrdaneClient::RetrieveStats: couldn't find stats for net.packetsTx.5",
            "OrdaneClient::RetrieveStats: couldn't find stats for net.transmitted.5",
            "OrdaneClient::RetrieveStats: couldn't find stats for net.packetsRx.5",
            "OrdaneClient::RetrieveStats: couldn't find stats for net.received.5"));
}

TEST_F(RefreshTest, LeavesOutVmsWithoutAConfiguration) {
    host.vms.push_back(Vm("8", nullptr));
    AddFullVm("16");
    host.vms.push_back(Vm("24", nullptr));
    AddFullVm("32");
    RequestAt(0);
    EXPECT_THAT(log.Take(), ElementsAre(startLine, ExaminingLine(2), completedLine));
    EXPECT_THAT(TestRows::Counts(), ElementsAre(2, 4, 4, 4, 4, 4, 4, 2, 4, 4));
    EXPECT_EQ(TestRows::Vms()[0]->vmVMID, 16);
    EXPECT_EQ(TestRows::Vms()[1]->vmVMID, 32);
    EXPECT_EQ(TestRows::Vms()[1]->vmIdx, 1);
    EXPECT_EQ(TestRows::Nics()[2]->vmIdx, 1);
    // The others are not asked about either.
    ASSERT_EQ(host.queries.size(), 1U);
    ASSERT_EQ(host.queries[0]->GetLength(), 2);
    EXPECT_EQ((*host.queries[0])[0]->GetEntity()->GetId(), "16");
    EXPECT_EQ((*host.queries[0])[1]->GetEntity()->GetId(), "32");
    EXPECT_EQ(daemon.CountCalls("GetRuntime"), 2);
}

TEST_F(RefreshTest, ServesEmptyTablesWhenNoVmHasAConfiguration) {
    host.vms = {Vm("8", nullptr)};
    RequestAt(0);
    EXPECT_THAT(log.Take(), ElementsAre(startLine, ExaminingLine(0), completedLine));
    EXPECT_EQ(TestRows::Counts(), noRows);
    ASSERT_EQ(host.queries.size(), 1U);
    EXPECT_EQ(host.queries[0]->GetLength(), 0);
}

TEST_F(RefreshTest, MakesNoResourceRowsOfAPoweredOffVm) {
    AddFullVm("16", PowerState::poweredOff);
    AddFullVm("32", PowerState::suspended);
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
    RequestAt(21);
    EXPECT_THAT(TestRows::Counts(), ElementsAre(2, 4, 4, 4, 4, 4, 4, 2, 4, 4));
    EXPECT_EQ(TestRows::Disks()[0]->diskIdx, 1);
    host.vms.pop_back();
    RequestAt(42);
    EXPECT_THAT(TestRows::Counts(), ElementsAre(1, 2, 2, 2, 2, 2, 2, 1, 2, 2));
}

TEST_F(RefreshTest, KeepsOneLastingCopyPerTextOverRebuilds) {
    AddFullVm("16");
    RequestAt(0);
    const char* const disk = TestRows::Disks()[1]->diskName;
    const char* const card = TestRows::Cards()[0]->netName;
    RequestAt(21);
    EXPECT_EQ(TestRows::Disks()[1]->diskName, disk);
    EXPECT_EQ(TestRows::Cards()[0]->netName, card);
    SNMPRaskTable_Destroy();
    EXPECT_STREQ(disk, "raw-2");
    EXPECT_STREQ(card, "vm-16 Adapter 1 summary");
}

TEST_F(RefreshTest, LogsABadVmIdOncePerRebuild) {
    AddFullVm("vm-x");
    RequestAt(0);
    EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("SetVMInfo: invalid VM Id: vm-x\n"));
    EXPECT_EQ(TestRows::Memories().at(0)->memVMID, -1);
    RequestAt(21);
    EXPECT_THAT(TextsOf(log.Take(), 4), ElementsAre("SetVMInfo: invalid VM Id: vm-x\n"));
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
}

TEST_F(RefreshTest, HasNoFiguresOfAVmThatTheQueryDidNotAnswer) {
    AddFullVm("16");
    host.vms.push_back(Vm("64", Config("late", 1, 64)));
    RequestAt(0);
    EXPECT_EQ(TestRows::Cpus().at(2)->cpuVMID, 64);
    EXPECT_EQ(TestRows::Cpus().at(2)->cpuUsedSec, static_cast<float>(-1 / 1000.0));
    EXPECT_EQ(TestRows::Memories().at(1)->memActive, -1);
    EXPECT_THAT(TextsOf(log.Take(), 4),
                ElementsAre("OrdaneClient::RetrieveStats: couldn't find stats for cpu.used.0\n",
                            "OrdaneClient::RetrieveStats: couldn't find stats for mem.active.any\n"));
}

TEST_F(RefreshTest, GoesOnWithoutFiguresWhenTheQueryFails) {
    AddFullVm("16");
    daemon.WhenCalled("QueryPerf", [this] { throw failure; });
    RequestAt(0);
    EXPECT_THAT(TestRows::Counts(), ElementsAre(1, 2, 2, 2, 2, 2, 2, 1, 2, 2));
    EXPECT_EQ(TestRows::Memories().at(0)->memActive, -1);
    EXPECT_EQ(TestRows::Disks().at(1)->diskWrite, -1);
    const std::vector<LogLine> lines = log.Take();
    EXPECT_EQ(lines.at(2), (LogLine{4, "OrdaneClient::CollectVMStats: :it failed\n"}));
    EXPECT_THAT(lines, Contains(LogLine{4, "OrdaneClient::RetrieveStats: no stats available."}));
    EXPECT_EQ(lines.back(), completedLine);
    RequestAt(20);
    EXPECT_EQ(CountRebuilds(), 1);
}

TEST_F(RefreshTest, GoesOnWithoutAPerformanceManager) {
    AddFullVm("16");
    host.content->SetPerfManager(nullptr);
    RequestAt(0);
    EXPECT_THAT(TestRows::Counts(), ElementsAre(1, 2, 2, 2, 2, 2, 2, 1, 2, 2));
    EXPECT_THAT(log.Take(), Contains(LogLine{4, "OrdaneClient::CollectVMStats failed, no perf manager.\n"}));
}

// Nothing to show.

TEST_F(RefreshTest, SaysThatThereIsNoVmOncePerInterval) {
    RequestAt(0);
    EXPECT_THAT(log.Take(), ElementsAre(noVmLine));
    RequestAt(20);
    EXPECT_THAT(log.Take(), IsEmpty());
    RequestAt(21);
    EXPECT_THAT(log.Take(), ElementsAre(noVmLine));
    EXPECT_EQ(TestRows::Counts(), noRows);
}

TEST_F(RefreshTest, EmptiesTheTablesWhenTheVmsAreGone) {
    AddFullVm("16");
    RequestAt(0);
    host.vms.clear();
    RequestAt(21);
    EXPECT_EQ(TestRows::Counts(), noRows);
    EXPECT_EQ(vmInfoTableNumEnt, 0);
    EXPECT_THAT(log.Take(), Contains(noVmLine));
}

TEST_F(RefreshTest, EmptiesTheTablesWithoutAClient) {
    daemon.down = "connection refused";
    AddFullVm("16");
    RequestAt(0);
    EXPECT_EQ(log.Take().back(),
              (LogLine{4, "SNMPRAskRefreshCache: Could not acquire ordane client to tovric-vessad.\n"}));
    EXPECT_EQ(TestRows::Counts(), noRows);
    // Tried again in its turn, not at once.
    daemon.down.clear();
    RequestAt(20);
    EXPECT_EQ(TestRows::Counts(), noRows);
    RequestAt(21);
    EXPECT_EQ(TestRows::Vms().size(), 1U);

    // And lost again: the rows go before the client is asked for.
    daemon.down = "connection refused";
    daemon.WhenSent("GetChildEntity", [] { throw Tessim::StreamException("reset"); });
    RequestAt(42);
    EXPECT_EQ(TestRows::Counts(), noRows);
    log.Take();
    RequestAt(63);
    EXPECT_EQ(log.Take().back(),
              (LogLine{4, "SNMPRAskRefreshCache: Could not acquire ordane client to tovric-vessad.\n"}));
    EXPECT_EQ(TestRows::Counts(), noRows);
}

TEST_F(RefreshTest, EmptiesFilledTablesWhenTheConnectionIsNotItsOwnAndTheDaemonIsDown) {
    AddFullVm("16");
    RequestAt(0);
    ASSERT_THAT(TestRows::Counts(), ElementsAre(1, 2, 2, 2, 2, 2, 2, 1, 2, 2));
    log.Take();
    daemon.foreignStreams = true;
    daemon.down = "connection refused";
    RequestAt(20);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
    RequestAt(21);
    EXPECT_EQ(TestRows::Counts(), noRows);
    EXPECT_EQ(vmInfoTableNumEnt, 0);
    EXPECT_EQ(
        TextsOf(log.Take(), 4),
        (std::vector<std::string>{
            "OrdaneClient::Init: :connection refused\n", "Could not init ordane client to tovric-vessad.\n",
            "SNMPRAskRefreshCache: Could not acquire ordane client to tovric-vessad.\n"}));
    // No failure of the rebuild: it is tried again in its turn.
    daemon.foreignStreams = false;
    daemon.down.clear();
    RequestAt(41);
    EXPECT_EQ(TestRows::Counts(), noRows);
    RequestAt(42);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
}

TEST_F(RefreshTest, FindsNoVmWhenTheConnectionBreaksAndReconnectsInTheNextTurn) {
    AddFullVm("16");
    RequestAt(0);
    daemon.WhenSent("GetChildEntity", [] { throw Tessim::StreamException("reset"); });
    log.Take();
    RequestAt(21);
    EXPECT_THAT(log.Take(), ElementsAre(noVmLine));
    EXPECT_EQ(TestRows::Counts(), noRows);
    daemon.WhenSent("GetChildEntity", nullptr);
    RequestAt(41);
    EXPECT_EQ(TestRows::Counts(), noRows);
    RequestAt(42);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
    EXPECT_EQ(daemon.openings.size(), 2U);
}

// No memory.

TEST_F(RefreshTest, ServesEmptyTablesWhenTheVmRowsCannotBeAllocated) {
    AddFullVm("16");
    RequestAt(0);
    log.Take();
    clock->FailCalloc(sizeof(vmEntry));
    RequestAt(21);
    EXPECT_THAT(log.Take(), ElementsAre(startLine, noMemoryLine));
    EXPECT_EQ(TestRows::Counts(), noRows);
    EXPECT_EQ(*SNMPVMInfoTable_GetPtr(), nullptr);
    EXPECT_EQ(vmInfoTableNumEnt, 0);
    EXPECT_EQ(host.queries.size(), 1U);
    RequestAt(41);
    EXPECT_EQ(TestRows::Counts(), noRows);
    RequestAt(42);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
}

// The second row of one table cannot be allocated in a rebuild of two VMs with two devices of each kind.
struct NoMemoryCase {
    const char* table;
    std::size_t size;
    int nth;  // which allocation of that size it is
    std::vector<std::size_t> counts;
    const char* message;

    friend std::ostream& operator<<(std::ostream& stream, const NoMemoryCase& each) {
        return stream << each.table;
    }
};

class NoMemoryTest : public RefreshTest, public testing::WithParamInterface<NoMemoryCase> {};

TEST_P(NoMemoryTest, GoesOnWithTheNextFillerAndVm) {
    AddFullVm("16");
    AddFullVm("32");
    clock->FailCalloc(GetParam().size, GetParam().nth);
    RequestAt(0);
    EXPECT_THAT(log.Take(),
                ElementsAre(startLine, ExaminingLine(2), LogLine{4, GetParam().message}, completedLine));
    EXPECT_EQ(TestRows::Counts(), GetParam().counts);
    // Not an exception: the next turn is in its time.
    RequestAt(20);
    EXPECT_EQ(CountRebuilds(), 1);
    RequestAt(21);
    EXPECT_THAT(TestRows::Counts(), ElementsAre(2, 4, 4, 4, 4, 4, 4, 2, 4, 4));
}

// Rows of some tables are of one size; within a VM they are made table by table: cards, adapters, disks,
// CD-ROM drives, floppy drives, then CPUs, memory, disks and cards of the resource groups.
static_assert(sizeof(vmNetNode) != sizeof(vmHBANode) && sizeof(vmHBANode) == sizeof(vmCDROMNode) &&
              sizeof(vmHBANode) == sizeof(vmFloppyNode));
static_assert(sizeof(vmHBATgtNode) == sizeof(resCPUNode) && sizeof(resCPUNode) == sizeof(resMemNode));

INSTANTIATE_TEST_SUITE_P(
    Tables, NoMemoryTest,
    testing::Values(
        NoMemoryCase{
            "nic", sizeof(vmNetNode), 2, {2, 3, 4, 4, 4, 4, 4, 2, 4, 4}, "SetNicInfo: Out of memory?\n"},
        NoMemoryCase{"hba",
                     sizeof(vmHBANode),
                     2,
                     {2, 4, 3, 4, 4, 4, 4, 2, 4, 4},
                     "SetStorageInfo: HBANode: Out of memory?\n"},
        NoMemoryCase{"cdrom",
                     sizeof(vmCDROMNode),
                     4,
                     {2, 4, 4, 4, 4, 3, 4, 2, 4, 4},
                     "SetCdromInfo: Out of memory?\n"},
        NoMemoryCase{"floppy",
                     sizeof(vmFloppyNode),
                     6,
                     {2, 4, 4, 4, 3, 4, 4, 2, 4, 4},
                     "SetFloppyInfo: Out of memory?\n"},
        NoMemoryCase{"target",
                     sizeof(vmHBATgtNode),
                     2,
                     {2, 4, 4, 3, 4, 4, 4, 2, 4, 4},
                     "SetStorageInfo: HBATgt: Out of memory?\n"},
        NoMemoryCase{
            "cpu", sizeof(resCPUNode), 4, {2, 4, 4, 4, 4, 4, 3, 2, 4, 4}, "SetCPUResource: Out of memory?\n"},
        NoMemoryCase{"memory",
                     sizeof(resMemNode),
                     5,
                     {2, 4, 4, 4, 4, 4, 4, 1, 4, 4},
                     "SetMemResource: Out of memory?\n"},
        NoMemoryCase{"disk",
                     sizeof(resDiskNode),
                     2,
                     {2, 4, 4, 4, 4, 4, 4, 2, 3, 4},
                     "SetDiskResource: Out of memory?\n"},
        NoMemoryCase{"card",
                     sizeof(resNetNode),
                     2,
                     {2, 4, 4, 4, 4, 4, 4, 2, 4, 3},
                     "SetNetResource: Out of memory?\n"}),
    [](const auto& info) { return std::string(info.param.table); });

// Exceptions.

class FailingRebuildTest : public RefreshTest, public testing::WithParamInterface<const char*> {};

TEST_P(FailingRebuildTest, EmptiesTheTablesAndTriesAgainAtOnce) {
    AddFullVm("16");
    AddFullVm("32");
    RequestAt(0);
    log.Take();
    // The second VM fails, so that there are rows already.
    int calls = 0;
    daemon.WhenCalled(GetParam(), [&] {
        if (++calls == 2) {
            throw failure;
        }
    });
    RequestAt(21);
    const std::vector<LogLine> lines = log.Take();
    const auto report = Report("SNMPRaskRefreshCache exception:it failed\n", failure, 4);
    ASSERT_GE(lines.size(), report.size());
    EXPECT_THAT(std::vector<LogLine>(lines.end() - static_cast<std::ptrdiff_t>(report.size()), lines.end()),
                ElementsAreArray(report));
    EXPECT_EQ(TestRows::Counts(), noRows);
    EXPECT_EQ(vmInfoTableNumEnt, 0);

    daemon.WhenCalled(GetParam(), nullptr);
    RequestAt(21);
    EXPECT_THAT(TestRows::Counts(), ElementsAre(2, 4, 4, 4, 4, 4, 4, 2, 4, 4));
    EXPECT_THAT(log.Take(), ElementsAre(startLine, ExaminingLine(2), completedLine));
    RequestAt(41);
    EXPECT_EQ(CountRebuilds(), 3);
}

INSTANTIATE_TEST_SUITE_P(Calls, FailingRebuildTest, testing::Values("GetConfig", "GetRuntime", "GetGuest"),
                         [](const auto& info) { return std::string(info.param); });

TEST_F(RefreshTest, TriesAgainAtOnceAsLongAsRebuildsFail) {
    AddFullVm("16");
    daemon.WhenCalled("GetConfig", [this] { throw failure; });
    for (int request = 1; request <= 3; ++request) {
        RequestAt(0);
        EXPECT_EQ(CountRebuilds(), request);
        EXPECT_EQ(TestRows::Counts(), noRows);
    }
}

TEST_F(RefreshTest, TreatsAFaultLikeAnyException) {
    AddFullVm("16");
    host.WhenAsked("GetConfig", [] { throw Tessim::Exception("not today"); });
    RequestAt(0);
    const auto lines = log.Take();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[0], startLine);
    EXPECT_EQ(lines[1], (LogLine{4, "SNMPRaskRefreshCache exception:not today\n"}));
    EXPECT_THAT(std::vector<LogLine>(lines.begin() + 2, lines.end()),
                Each(testing::Field(&LogLine::priority, 4)));
}

TEST_F(RefreshTest, ReportsAConnectionThatBreaksInTheMiddle) {
    AddFullVm("16");
    daemon.WhenSent("GetRuntime", [] { throw Tessim::StreamException("reset by peer"); });
    RequestAt(0);
    EXPECT_THAT(log.Take(), Contains(LogLine{4, "SNMPRaskRefreshCache exception:reset by peer\n"}));
    EXPECT_EQ(TestRows::Counts(), noRows);
    // The next request finds out that the connection is gone, the one after that makes another.
    daemon.WhenSent("GetRuntime", nullptr);
    RequestAt(0);
    EXPECT_THAT(log.Take(), ElementsAre(noVmLine));
    RequestAt(21);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
    EXPECT_EQ(daemon.openings.size(), 2U);
}

TEST_F(RefreshTest, ReconnectsAtOnceWhenTheFiguresBreakTheConnection) {
    AddFullVm("16");
    daemon.WhenSent("QueryPerf", [] { throw Tessim::StreamException("reset by peer"); });
    RequestAt(0);
    const std::vector<std::string> texts = TextsOf(log.Take(), 4);
    EXPECT_THAT(texts, Contains("OrdaneClient::CollectVMStats: :reset by peer\n"));
    EXPECT_EQ(TestRows::Counts(), noRows);
    daemon.WhenSent("QueryPerf", nullptr);
    RequestAt(0);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
    EXPECT_EQ(TestRows::Memories().at(0)->memActive, 9);
    EXPECT_EQ(daemon.openings.size(), 2U);
}

TEST_F(RefreshTest, LetsStrangeExceptionsPassAndKeepsNoHalfCache) {
    AddFullVm("16");
    AddFullVm("32");
    int calls = 0;
    daemon.WhenCalled("GetGuest", [&] {
        if (++calls == 2) {
            throw std::runtime_error("not of the runtime");
        }
    });
    EXPECT_THROW(RequestAt(0), std::runtime_error);
    EXPECT_EQ(TestRows::Counts(), noRows);
    EXPECT_EQ(vmInfoTableNumEnt, 0);
    for (const LogLine& line : log.Take()) {
        EXPECT_THAT(line.text, Not(testing::HasSubstr("exception")));
    }
    RequestAt(0);
    EXPECT_EQ(TestRows::Vms().size(), 2U);
}

TEST_F(RefreshTest, LetsAnAllocationFailurePassAndKeepsNoHalfCache) {
    AddFullVm("16");
    daemon.WhenCalled("GetGuest", [] { throw std::bad_alloc(); });
    EXPECT_THROW(RequestAt(0), std::bad_alloc);
    EXPECT_EQ(TestRows::Counts(), noRows);
}

// Without the log capture, which needs memory itself.
TEST(RefreshWithoutMemory, KeepsNoHalfCacheWhenNotEvenTheReportCanBeMade) {
    FakeDaemon daemon;
    daemon.host.vms = {Vm("16", FullConfig("web"))};
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
    daemon.WhenCalled("GetConfig", [this] { throw failure; });
    EXPECT_THROW(SNMPRaskRefreshCache(), Tessim::Exception);
}

// Emptying.

const std::vector<std::string> emptyingOrder = {"SNMPVMInfo",   "SNMPVMNet",   "SNMPVMHBA",  "SNMPVMHBATgt",
                                                "SNMPVMFloppy", "SNMPVMCDROM", "SNMPResCPU", "SNMPResMem",
                                                "SNMPResDisk",  "SNMPResNet"};

TEST_F(RefreshTest, EmptiesTheTablesInAFixedOrder) {
    emptied.clear();
    SNMPRaskTable_Destroy();
    EXPECT_EQ(emptied, emptyingOrder);
}

TEST_F(RefreshTest, EmptiesTheTablesOnceBeforeARebuild) {
    AddFullVm("16");
    emptied.clear();
    std::vector<std::string> emptiedFirst;
    daemon.WhenSent("AcquireLocalTicket", [&] { emptiedFirst = emptied; });
    RequestAt(0);
    EXPECT_EQ(emptiedFirst, emptyingOrder);
    EXPECT_EQ(emptied, emptyingOrder);
}

TEST_F(RefreshTest, EmptiesTheTablesAgainAfterAnException) {
    AddFullVm("16");
    daemon.WhenCalled("GetRuntime", [this] { throw failure; });
    emptied.clear();
    RequestAt(0);
    EXPECT_EQ(emptied.size(), 2 * emptyingOrder.size());
}

TEST_F(RefreshTest, IsFreshAfterBeingEmptiedByHand) {
    AddFullVm("16");
    RequestAt(0);
    SNMPRaskTable_Destroy();
    RequestAt(20);
    EXPECT_EQ(TestRows::Counts(), noRows);
    RequestAt(21);
    EXPECT_EQ(TestRows::Vms().size(), 1U);
}

}  // namespace
