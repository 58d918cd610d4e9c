#include "apps/snmp/refresh/ResourceExtraction.h"

#include <algorithm>

#include "apps/snmp/agent/NetSnmp.h"
#include "tests/support/fault_injection.h"
#include "tests/unit/snmp_refresh/fixture.h"
#include "tests/unit/snmp_refresh/rows.h"

namespace RefreshTests {
namespace {

constexpr std::int64_t beyond32Bits = (std::int64_t{3} << 32) + 7;

class ResourceTest : public ClientTest {
  protected:
    ResourceTest() {
        host.counters = AllCounters();
        host.vms = {Vm("16", Config("web-1")), Vm("32", Config("web-2"))};
        vms = AllVms();
        vm = (*vms)[0];
    }
    ~ResourceTest() override { SNMPRaskTable_Destroy(); }

    // Makes VM the only one.
    void UseVm(const std::string& id) {
        host.vms = {Vm(id, Config("x"))};
        vms = AllVms();
        vm = (*vms)[0];
    }
    resCPUNode* FillCpus(std::int32_t count) {
        return SetCPUResource(client.Get(), vm, Config("x", count).Get(), SNMPResCPUTable_GetPtr());
    }
    static std::vector<int> CpuKeys() {
        std::vector<int> keys;
        for (const auto* row : TestRows::Cpus()) {
            keys.push_back(row->cpuVMID);
        }
        return keys;
    }
    // Makes the client know these statistics of the VM 16.
    void Collect(const std::vector<Ref<Performance::MetricSeries>>& series) {
        host.metrics = Array<Performance::EntityMetricBase>({Metric("16", series)});
        client->CollectVMStats(vms.Get());
        log.Take();
        daemon.calls.clear();
    }

    Ref<VmArray> vms;
    Hask::VirtualMachine* vm = nullptr;
};

// CPUs.

TEST_F(ResourceTest, MakesARowPerVirtualCpu) {
    Collect({Series(10, "", {1}), Series(10, "0", {181000}), Series(10, "1", {90500}), Series(10, "2", {35}),
             Series(10, "3", {0})});
    const auto config = Config("web-1", 4);
    config->SetCpuAllocation(Allocation(2000));
    resCPUNode* const last = SetCPUResource(client.Get(), vm, config.Get(), SNMPResCPUTable_GetPtr());
    const auto rows = TestRows::Cpus();
    ASSERT_EQ(rows.size(), 4U);
    EXPECT_EQ(rows.back(), last);
    const std::vector<float> used = {181.0F, 90.5F, static_cast<float>(35.0F / 1000.0), 0.0F};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i]->cpuVMID, 16 + static_cast<int>(i));
        EXPECT_EQ(rows[i]->cpuShares, i == 0 ? 2000 : 0);
        EXPECT_EQ(rows[i]->cpuUsedSec, used[i]);
    }
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ResourceTest, RoundsCpuTimeToAFloatBeforeItDivides) {
    constexpr std::int32_t used = 1080715965;  // as a float: 1080715904
    Collect({Series(10, "0", {used})});
    FillCpus(1);
    EXPECT_EQ(TestRows::Cpus().at(0)->cpuUsedSec, 1080715.875F);
}

TEST_F(ResourceTest, MakesNoCpuRowsOfAVmWithoutCpus) {
    EXPECT_EQ(FillCpus(0), nullptr);
    EXPECT_EQ(FillCpus(-1), nullptr);
    EXPECT_EQ(
        SetCPUResource(client.Get(), vm, MakeRef<Hask::Vm::ConfigInfo>().Get(), SNMPResCPUTable_GetPtr()),
        nullptr);
    resCPUNode* last = FillCpus(1);
    EXPECT_EQ(SetCPUResource(client.Get(), vm, Config("x", 0).Get(), &last), last);
    EXPECT_EQ(TestRows::Cpus().size(), 1U);
}

TEST_F(ResourceTest, LetsTheKeysOfCpusCollideAndWrap) {
    resCPUNode* last = FillCpus(2);
    UseVm("17");
    last = SetCPUResource(client.Get(), vm, Config("x", 2).Get(), &last);
    UseVm("vm-x");
    last = SetCPUResource(client.Get(), vm, Config("x", 2).Get(), &last);
    UseVm("2147483647");
    SetCPUResource(client.Get(), vm, Config("x", 2).Get(), &last);
    EXPECT_THAT(CpuKeys(), ElementsAre(16, 17, 17, 18, -1, 0, INT32_MAX, INT32_MIN));
}

TEST_F(ResourceTest, MakesAtMost65536CpuRowsOfAVm) {
    constexpr std::int32_t most = 65536;
    for (const std::int32_t cpus : {most - 1, most, most + 1, INT32_MAX}) {
        resCPUNode* const last = FillCpus(cpus);
        log.Take();
        EXPECT_EQ(TestRows::Cpus().size(), static_cast<std::size_t>(std::min(cpus, most))) << cpus;
        EXPECT_EQ(last->cpuVMID, 16 + std::min(cpus, most) - 1) << cpus;
        SNMPResCPUTable_Destroy();
    }
}

TEST_F(ResourceTest, StoresAnUnknownStatisticAsItIs) {
    Collect({Series(10, "1", {1000})});
    FillCpus(1);
    EXPECT_EQ(TestRows::Cpus().at(0)->cpuUsedSec, static_cast<float>(-1 / 1000.0));
    EXPECT_EQ(log.Take(), MissingStatistics({"cpu.used.0"}));
}

TEST_F(ResourceTest, HasNoSharesWithoutAnAllocation) {
    const auto config = Config("x");
    config->SetCpuAllocation(MakeRef<Hask::ResourceAllocationInfo>());
    SetCPUResource(client.Get(), vm, config.Get(), SNMPResCPUTable_GetPtr());
    SetMemResource(client.Get(), vm, config.Get(), SNMPResMemTable_GetPtr());
    EXPECT_EQ(TestRows::Cpus().at(0)->cpuShares, 0);
    EXPECT_EQ(TestRows::Memories().at(0)->memShares, 0);
}

// Memory.

TEST_F(ResourceTest, MakesARowOfTheMemory) {
    Collect({Series(9, "", {131072})});
    const auto config = Config("web-1", 1, 512);
    config->SetMemoryAllocation(Allocation(5120));
    config->SetCpuAllocation(Allocation(1));
    resMemNode* const last = SetMemResource(client.Get(), vm, config.Get(), SNMPResMemTable_GetPtr());
    ASSERT_EQ(TestRows::Memories().size(), 1U);
    EXPECT_EQ(TestRows::Memories()[0], last);
    EXPECT_EQ(last->memVMID, 16);
    EXPECT_EQ(last->memShares, 5120);
    EXPECT_EQ(last->memConfiguredKB, 524288);
    EXPECT_EQ(last->memActive, 131072);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ResourceTest, ReadsTheMemoryStatisticOfAnyInstance) {
    Collect({Series(9, "odd", {5}), Series(9, "", {6})});
    EXPECT_EQ(SetMemResource(client.Get(), vm, Config("x").Get(), SNMPResMemTable_GetPtr())->memActive, 5);
}

TEST_F(ResourceTest, TruncatesConfiguredMemoryTo32Bits) {
    resMemNode* last =
        SetMemResource(client.Get(), vm, Config("x", 1, 2097152).Get(), SNMPResMemTable_GetPtr());
    EXPECT_EQ(last->memConfiguredKB, INT32_MIN);
    last = SetMemResource(client.Get(), vm, Config("x", 1, 3000000).Get(), &last);
    EXPECT_EQ(last->memConfiguredKB, 3072000000 - (std::int64_t{1} << 32));
    last = SetMemResource(client.Get(), vm, Config("x", 1, 4194305).Get(), &last);
    EXPECT_EQ(last->memConfiguredKB, 1024);
}

TEST_F(ResourceTest, ReturnsTheLastRowWithoutMemoryForAnother) {
    resMemNode* last = SetMemResource(client.Get(), vm, Config("x").Get(), SNMPResMemTable_GetPtr());
    log.Take();
    TestSupport::FaultInjection faults;
    faults.FailCalloc(sizeof(resMemNode));
    EXPECT_EQ(SetMemResource(client.Get(), vm, Config("x").Get(), &last), last);
    EXPECT_EQ(TestRows::Memories().size(), 1U);
    EXPECT_EQ(log.Take(), Warnings({"SetMemResource: Out of memory?\n"}));
}

// Disks.

class DiskTest : public ResourceTest {
  protected:
    DiskTest() {
        host.datastores["drell"] = DrellDatastore({"disk-0:0", "disk-0:1"});
        host.datastores["plain"] = MakeRef<Hask::Datastore::Info>();
        host.datastores["mute"] = nullptr;
        host.datastores["no volume"] = MakeRef<Hask::Host::DrellDatastoreInfo>();
        host.datastores["no extent"] = DrellDatastore({});
        Collect({});
    }

    void Fill(const std::vector<Ref<Device::VirtualDisk>>& disks) {
        last = SetDiskResource(client.Get(), vm, Array(disks).Get(),
                               last != nullptr ? &last : SNMPResDiskTable_GetPtr());
    }
    std::vector<std::pair<int, std::string>> NumbersAndNames() const {
        std::vector<std::pair<int, std::string>> rows;
        for (const auto* row : TestRows::Disks()) {
            rows.emplace_back(row->diskIdx, row->diskName);
        }
        return rows;
    }
    // The log without the warnings about missing statistics.
    Lines OtherLines() {
        Lines lines = log.Take();
        std::erase_if(
            lines, [](const LogLine& line) { return line.text.starts_with("OrdaneClient::RetrieveStats"); });
        return lines;
    }

    resDiskNode* last = nullptr;
};

TEST_F(DiskTest, FillsARowPerDisk) {
    Collect({Series(1, "disk-0:0", {101}), Series(2, "disk-0:0", {102}), Series(3, "disk-0:0", {103}),
             Series(4, "disk-0:0", {104})});
    Fill({Disk("Hard Disk 1", 0, FileBacking("[s] a.dsk", "drell"), 1000)});
    ASSERT_EQ(TestRows::Disks().size(), 1U);
    EXPECT_EQ(TestRows::Disks()[0], last);
    EXPECT_EQ(last->diskIdx, 1);
    EXPECT_STREQ(last->diskName, "disk-0:0");
    EXPECT_EQ(last->diskVMID, 16);
    EXPECT_EQ(last->diskShares, 1000);
    EXPECT_EQ(last->diskNumRead, 101);
    EXPECT_EQ(last->diskNumWrite, 102);
    EXPECT_EQ(last->diskRead, 103);
    EXPECT_EQ(last->diskWrite, 104);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(DiskTest, NamesDisksByTheirBacking) {
    Fill({Disk("A", 0, DeviceBacking("raw-7")), Disk("B", 1, FileBacking("[s] b", "drell")),
          Disk("C", 2, FileBacking("[s] c", "mute")), Disk("D", 3, FileBacking("[s] d")),
          Disk("E", 4, FileBacking("[s] e", "nowhere")), Disk("F", 5, RemoteBacking("remote")),
          Disk("G", 6, nullptr), Disk("H", 7, FileBacking("[s] h", "no volume")),
          Disk("I", 8, FileBacking("[s] i", "no extent"))});
    using Row = std::pair<int, std::string>;
    EXPECT_THAT(NumbersAndNames(), ElementsAre(Row(1, "raw-7"), Row(2, "disk-0:0"), Row(3, "unknown"),
                                               Row(4, "unknown"), Row(5, "unknown"), Row(6, "unknown"),
                                               Row(7, "unknown"), Row(8, "unknown"), Row(9, "unknown")));
    const Lines lines = OtherLines();
    EXPECT_THAT(TextsOf(lines, 4), ElementsAre("SetDiskResource: no datastore info for C.\n",
                                               "SetDiskResource: no datastore info for D.\n",
                                               "OrdaneClient::GetDatastoreInfo: :no Datastore nowhere\n",
                                               "SetDiskResource: no datastore info for E.\n",
                                               "SetDiskResource: found vdisk of unknown backing.\n",
                                               "SetDiskResource: found vdisk of unknown backing.\n"));
    EXPECT_THAT(TextsOf(lines, 6), IsEmpty());
}

TEST_F(DiskTest, NamesADiskInTheLogByItsLabelOnOneLine) {
    Fill({Disk("", 0, FileBacking("[s] a", "plain")), Disk("", 1, FileBacking("[s] b", "mute")),
          Disk("A\nB", 0, FileBacking("[s] a", "plain")), Disk("C\nD", 1, FileBacking("[s] b", "mute"))});
    EXPECT_EQ(OtherLines(),
              (Lines{{6, "SetDiskResource: skipped disk not backed by drell disk without label.\n"},
                     {4, "SetDiskResource: no datastore info for disk without label.\n"},
                     {6, "SetDiskResource: skipped disk not backed by drell A\\x0aB.\n"},
                     {4, "SetDiskResource: no datastore info for C\\x0aD.\n"}}));
}

TEST_F(DiskTest, SkipsDisksOfOtherDatastoresAndTheirNumbers) {
    Fill({Disk("Hard Disk 1", 0, FileBacking("[s] a", "drell")),
          Disk("Hard Disk 2", 1, FileBacking("[s] b", "plain"))});
    EXPECT_EQ(TestRows::Disks().back(), last);
    EXPECT_EQ(OtherLines(), (Lines{{6, "SetDiskResource: skipped disk not backed by drell Hard Disk 2.\n"}}));
    vm = (*vms)[1];
    Fill({Disk("Hard Disk 1", 0, DeviceBacking("raw-1")), Disk("Hard Disk 2", 1, DeviceBacking("raw-2"))});
    using Row = std::pair<int, std::string>;
    EXPECT_THAT(NumbersAndNames(), ElementsAre(Row(1, "disk-0:0"), Row(2, "raw-1"), Row(3, "raw-2")));
    EXPECT_EQ(TestRows::Disks()[0]->diskVMID, 16);
    EXPECT_EQ(TestRows::Disks()[1]->diskVMID, 32);
}

TEST_F(DiskTest, MakesNoRowWhenAllAreSkipped) {
    Fill({Disk("Hard Disk 1", 0, FileBacking("[s] b", "plain"))});
    EXPECT_EQ(last, nullptr);
    Fill({Disk("Hard Disk 1", 0, DeviceBacking("raw"))});
    EXPECT_EQ(last->diskIdx, 1);
}

TEST_F(DiskTest, FetchesOnlyTheDatastoresOfFiles) {
    Fill({Disk("A", 0, DeviceBacking("raw")), Disk("B", 1, FileBacking("[s] b")),
          Disk("C", 2, FileBacking("[s] c", "drell"))});
    EXPECT_EQ(daemon.CountCalls("GetInfo"), 1);
}

TEST_F(DiskTest, HasNoSharesWithoutThem) {
    const auto disk = Disk("A", 0, DeviceBacking("a"), 5);
    disk->SetShares(nullptr);
    Fill({disk});
    EXPECT_EQ(last->diskShares, 0);
}

TEST_F(DiskTest, KeepsNamesWhenTheRowsAreGone) {
    Fill({Disk("A", 0, DeviceBacking("raw-lasting"))});
    const char* const name = last->diskName;
    SNMPResDiskTable_Destroy();
    EXPECT_STREQ(name, "raw-lasting");
    last = nullptr;
    Fill({Disk("A", 0, DeviceBacking("raw-lasting")), Disk("B", 1, DeviceBacking("raw-lasting"))});
    EXPECT_EQ(TestRows::Disks().at(0)->diskName, name);
    EXPECT_EQ(TestRows::Disks().at(1)->diskName, name);
}

// Without the log capture, which needs memory itself.
TEST(DiskWithoutMemoryForItsName, HasNoStatistics) {
    FakeDaemon daemon;
    daemon.host.counters = AllCounters();
    daemon.host.vms = {Vm("16", Config("web-1"))};
    // Statistics that a lookup of any instance would find.
    daemon.host.metrics->Append(Metric("16", {Series(1, "raw-1", {101}), Series(2, "raw-1", {102}),
                                              Series(3, "raw-1", {103}), Series(4, "raw-1", {104})}));
    const auto client = MakeRef<OrdaneClient>();
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    client->CollectVMStats(vms.Get());
    const auto disks = Array<Device::VirtualDisk>({Disk("Hard Disk 1", 0, DeviceBacking("raw-1"), 1000)});
    snmp_disable_log();
    resDiskNode* row = nullptr;
    {
        TestSupport::FaultInjection faults;
        faults.FailNew(1, 2);  // for the disk's own name, and for the one that takes its place
        row = SetDiskResource(client.Get(), (*vms)[0], disks.Get(), SNMPResDiskTable_GetPtr());
    }
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->diskName, nullptr);
    EXPECT_EQ(row->diskIdx, 1);
    EXPECT_EQ(row->diskVMID, 16);
    EXPECT_EQ(row->diskShares, 1000);
    EXPECT_EQ(row->diskNumRead, -1);
    EXPECT_EQ(row->diskRead, -1);
    EXPECT_EQ(row->diskNumWrite, -1);
    EXPECT_EQ(row->diskWrite, -1);
    SNMPResDiskTable_Destroy();
}

// Network cards.

class CardTest : public ResourceTest {
  protected:
    void Fill(const std::vector<Ref<Device::VirtualEthernetCard>>& nics) {
        last = SetNetResource(client.Get(), vm, Array(nics).Get(),
                              last != nullptr ? &last : SNMPResNetTable_GetPtr());
    }
    static Ref<Device::VirtualEthernetCard> Card(std::int32_t key, const std::string& label,
                                                 const std::string& mac) {
        auto card = Nic(key, label);
        card->SetMacAddress(mac);
        return card;
    }

    resNetNode* last = nullptr;
};

TEST_F(CardTest, FillsARowPerCard) {
    Collect({Series(5, "4000", {105}), Series(6, "4000", {106}), Series(7, "4000", {beyond32Bits}),
             Series(8, "4000", {108}), Series(7, "4001", {207})});
    Fill({Card(4000, "Adapter 1", "00:16:3e:00:00:01"), Card(4001, "Adapter 2", "00:16:3e:00:00:02")});
    const auto rows = TestRows::Cards();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[1], last);
    EXPECT_EQ(rows[0]->netIdx, 1);
    EXPECT_STREQ(rows[0]->netName, "Adapter 1 summary");
    EXPECT_EQ(rows[0]->netVMID, 16);
    EXPECT_STREQ(rows[0]->netMac, "00:16:3e:00:00:01");
    EXPECT_EQ(rows[0]->netSpare, 0);
    EXPECT_EQ(rows[0]->netPktTx, 7);
    EXPECT_EQ(rows[0]->netTx, 106);
    EXPECT_EQ(rows[0]->netPktRx, 108);
    EXPECT_EQ(rows[0]->netRx, 105);
    EXPECT_EQ(rows[0]->netHCPktTx, static_cast<std::uint64_t>(beyond32Bits));
    EXPECT_EQ(rows[0]->netHCTx, 106U);
    EXPECT_EQ(rows[0]->netHCPktRx, 108U);
    EXPECT_EQ(rows[0]->netHCRx, 105U);
    EXPECT_EQ(rows[1]->netIdx, 2);
    EXPECT_EQ(rows[1]->netPktTx, 207);
    EXPECT_EQ(rows[1]->netHCPktTx, 207U);
    EXPECT_EQ(rows[1]->netRx, -1);
    EXPECT_EQ(rows[1]->netHCRx, UINT64_MAX);
}

TEST_F(CardTest, ShowsACardWithoutInformationAsUnknown) {
    Collect({Series(7, "4000", {9})});
    Fill({MakeDevice<Device::VirtualEthernetCard>(4000, "")});
    EXPECT_STREQ(last->netName, "unknown");
    EXPECT_STREQ(last->netMac, "SNMP Error");
    EXPECT_EQ(last->netPktTx, 9);
}

TEST_F(CardTest, KeepsNamesAndAddressesWhenTheRowsAreGone) {
    Fill({Card(4000, "Lasting", "00:16:3e:0a:0b:0c")});
    const char* const name = last->netName;
    const char* const mac = last->netMac;
    SNMPResNetTable_Destroy();
    EXPECT_STREQ(name, "Lasting summary");
    EXPECT_STREQ(mac, "00:16:3e:0a:0b:0c");
    last = nullptr;
    Fill({Card(4000, "Lasting", "00:16:3e:0a:0b:0c")});
    EXPECT_EQ(last->netName, name);
    EXPECT_EQ(last->netMac, mac);
}

// The scalars.

TEST_F(ResourceTest, ReadsTheCoresFromTheProcessWideClient) {
    host.hardware = MakeRef<Hask::Host::HardwareInfo>();
    host.hardware->SetCpuInfo(MakeRef<Hask::Host::CpuInfo>());
    host.hardware->GetCpuInfo()->SetNumCpuCores(40000);
    EXPECT_EQ(GetNumCpu(), 40000 - 65536);
}

TEST_F(ResourceTest, HasNeitherCoresNorMemoryWithoutAClient) {
    daemon.down = "connection refused";
    EXPECT_EQ(GetNumCpu(), 0);
    EXPECT_EQ(log.Take().back(),
              (LogLine{4, "GetNumCPu: Could not acquire ordane client to tovric-vessad.\n"}));
    long reserved = -5;
    long total = -5;
    GetMemory(&reserved, &total);
    EXPECT_EQ(reserved, 0);
    EXPECT_EQ(total, 0);
    EXPECT_EQ(log.Take().back(),
              (LogLine{4, "GetMemory: Could not acquire ordane client to tovric-vessad.\n"}));
}

TEST_F(ResourceTest, NarrowsTheMemoryReservationTo32Bits) {
    host.consoleReservation = MakeRef<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo>();
    host.consoleReservation->SetServiceConsoleReserved((std::int64_t{1} << 32) + 2048);
    host.consoleReservation->SetUnreserved(((std::int64_t{1} << 42) - (std::int64_t{1} << 32)) + 2048);
    long reserved = -5;
    long total = -5;
    GetMemory(&reserved, &total);
    EXPECT_EQ(reserved, 2048);  // bytes
    EXPECT_EQ(total, 4);        // kilobytes
    GetMemory(&reserved, &total);
    EXPECT_EQ(reserved, (1 << 22) + 2);
    EXPECT_EQ(total, 4);
}

TEST_F(ResourceTest, KeepsTheSignOfANarrowedReservation) {
    host.consoleReservation = MakeRef<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo>();
    host.consoleReservation->SetServiceConsoleReserved(std::int64_t{1} << 31);
    long reserved = 0;
    long total = 0;
    GetMemory(&reserved, &total);
    EXPECT_EQ(reserved, INT32_MIN);
    EXPECT_EQ(total, 1 << 21);
}

using MemoryDeathTest = ResourceTest;

TEST_F(MemoryDeathTest, NeedsBothPointers) {
    long value = 0;
    EXPECT_DEATH(GetMemory(nullptr, &value), "assertion failed: reserved && total");
    EXPECT_DEATH(GetMemory(&value, nullptr), "assertion failed: reserved && total");
}

}  // namespace
}  // namespace RefreshTests
