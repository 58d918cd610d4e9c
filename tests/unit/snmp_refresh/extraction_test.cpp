#include <algorithm>
#include <map>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/refresh/ResourceExtraction.h"
#include "apps/snmp/refresh/VMExtraction.h"
#include "tests/support/fault_injection.h"
#include "tests/support/files.h"
#include "tests/unit/snmp_refresh/fixture.h"
#include "tests/unit/snmp_refresh/rows.h"

namespace RefreshTests {
namespace {

namespace Device = Hask::Vm::Device;

// A VM that is on, with these members of its hardware and these statistics.
std::string OnVm(const std::string& id, const std::string& hardware, const std::string& stats = "") {
    return "  - {id: '" + id + "', runtime: {powerState: poweredOn}, config: {name: '', guestFullName: '', " +
           "hardware: {" + hardware + "}}, stats: {" + stats + "}}\n";
}

// A VM that is on and has nothing but these devices.
std::string DeviceVm(const std::string& id, const std::string& devices, const std::string& stats = "") {
    return OnVm(id, "numCPU: 0, memoryMB: 0, device: [" + devices + "]", "mem.active: {'': 0}, " + stats);
}

// A file of the folder extraction/: VMs in the format of described hosts, the rows that a rebuild makes of
// them in the named tables, and the log.
struct ExtractionCase {
    explicit ExtractionCase(const std::filesystem::path& path) {
        const std::string text = TestSupport::ReadFile(path);
        const std::size_t tablesAt = text.find("-- ");
        const std::size_t rowsAt = text.find('\n', tablesAt);
        const std::size_t logAt = text.find("-- log", rowsAt);
        vms = text.substr(0, tablesAt);
        tables = text.substr(tablesAt + 3, rowsAt - tablesAt - 3);
        rows = text.substr(rowsAt, logAt - rowsAt);
        log = text.substr(logAt + 6);
    }

    std::string vms;
    std::string tables;
    std::string rows;
    std::string log;  // see TakeLog
};

class FillerTest : public ClientTest {
  protected:
    FillerTest() {
        Add("cores", GetNumCpu);
        Add("memory", [] {
            long reserved = -5;
            long total = -5;
            GetMemory(&reserved, &total);
            return std::to_string(reserved) + " of " + std::to_string(total);
        });
    }
    ~FillerTest() override { SNMPRaskTable_Destroy(); }

    void Rebuild(const std::string& vms) {
        Describe(host,
                 "datastores:\n"
                 "  - {id: drell, type: DrellDatastoreInfo,\n"
                 "     drell: {extent: [{diskName: 'disk-0:0'}, {diskName: 'disk-0:1'}]}}\n"
                 "  - {id: plain}\n"
                 "  - {id: no volume, type: DrellDatastoreInfo}\n"
                 "  - {id: no extent, type: DrellDatastoreInfo, drell: {}}\n"
                 "vms:\n" +
                     vms);
        host.datastores["mute"] = nullptr;
        SNMPRaskRefreshCache();
    }
    // The log without the lines of the rebuild itself, those about missing statistics and backtraces. A line
    // of another priority than 4 begins with it.
    std::string TakeLog() {
        std::string text = "\n";
        for (const LogLine& line : log.Take()) {
            if (line.priority != 7 && !line.text.starts_with("SNMPRask") &&
                !line.text.starts_with("OrdaneClient::RetrieveStats: couldn't find stats for ")) {
                text += (line.priority == 4 ? "" : std::to_string(line.priority) + ' ') + line.text;
            }
        }
        return text;
    }
};

class ExtractionTest : public FillerTest, public testing::WithParamInterface<std::filesystem::path> {};

TEST_P(ExtractionTest, MakesTheRowsAndLogsWhatIsMissing) {
    const ExtractionCase expected(GetParam());
    host.newer = true;
    Rebuild(expected.vms);
    const std::map<std::string, std::string (*)()> texts{
        {"VMs", TestRows::VmText}, {"devices", TestRows::DeviceText}, {"resources", TestRows::ResourceText}};
    EXPECT_EQ('\n' + texts.at(expected.tables)(), expected.rows);
    EXPECT_EQ(TakeLog(), expected.log);
}

INSTANTIATE_TEST_SUITE_P(Cases, ExtractionTest, testing::ValuesIn(TestSupport::ListFiles(EXTRACTION_CASES)),
                         [](const auto& info) { return info.param.stem().string(); });

TEST(DsPath, BecomesAPathOnTheHost) {
    const auto pairs = MakeRef<Ordane::DataArray<Hask::Vm::ConfigInfo::DatastoreUrlPair>>();
    for (const auto& [name, url] :
         std::vector<std::pair<std::string, std::string>>{{"storage", "/wrong/"},
                                                          {"storage1", "/volumes/4a5b/"},
                                                          {"storage1", "/second/"},
                                                          {"noslash", "/volumes/4a5b"},
                                                          {"", "/empty/"},
                                                          {"two words", "/volumes/tw/"}}) {
        pairs->Append(MakeRef<Hask::Vm::ConfigInfo::DatastoreUrlPair>());
        (*pairs)[pairs->GetLength() - 1]->SetName(name);
        (*pairs)[pairs->GetLength() - 1]->SetUrl(url);
    }
    const auto pathOf = [&](std::string dsPath, bool withPairs) {
        std::string result = "old";
        GetPathFromDsPath(withPairs ? pairs.Get() : nullptr, dsPath, result);
        return result;
    };
    for (const auto& [dsPath, expected] : TestSupport::ReadCases(DATASTORE_PATHS)) {
        EXPECT_EQ(pathOf(dsPath, true), expected) << '"' << dsPath << '"';
    }
    EXPECT_EQ(pathOf("[storage1] vm.cfg", false), "[storage1] vm.cfg");
    EXPECT_EQ(pathOf("[] vm.cfg", false), "vm.cfg");
}

// A model that a later API may add.
template <class Model>
class NewerModel final : public Model {
  public:
    const Ordane::DataObjectType* GetDataObjectType() const override {
        static constexpr Ordane::DataObjectType type{
            "NewerModel", &Model::staticType, {}, {}, []() -> Ref<Ordane::DataObject> {
                return MakeRef<NewerModel>();
            }};
        return &type;
    }
};

TEST_F(FillerTest, ShowsASubtypeOfANamedModelAsUnknown) {
    const auto controllers =
        Array<Device::VirtualSCSIController>({MakeRef<NewerModel<Device::VirtualLsiLogicController>>(),
                                              MakeRef<NewerModel<Device::VirtualBusLogicController>>()});
    const Ordane::DataObjectType* const newer = (*controllers)[0]->GetDataObjectType();
    ASSERT_TRUE(Ordane::GetDoType<Device::VirtualLsiLogicController>().Includes(newer));
    SetStorageHBA(0, controllers.Get(), &vmHBAList);
    EXPECT_EQ(TestRows::DeviceText(),
              "hba 0 0 \"SNMP Error\" \"unknown\"\nhba 0 0 \"SNMP Error\" \"unknown\"\n");
}

TEST_F(FillerTest, FetchesOnlyTheDatastoresOfFiles) {
    Rebuild(DeviceVm("16", R"(
        {type: VirtualDisk, key: 1, backing: {type: DeviceBackingInfo, deviceName: raw}},
        {type: VirtualDisk, key: 2, backing: {type: FileBackingInfo, fileName: ""}},
        {type: VirtualDisk, key: 3, backing: {type: FileBackingInfo, fileName: "", datastore: drell}})"));
    EXPECT_EQ(daemon.CountCalls("GetInfo"), 1);
}

TEST_F(FillerTest, MakesAtMost65536CpuRowsOfAVm) {
    host.vms = {{"16", nullptr, nullptr, nullptr}};
    const auto vms = AllVms();
    const auto config = MakeRef<Hask::Vm::ConfigInfo>();
    config->SetHardware(MakeRef<Hask::Vm::VirtualHardware>());
    constexpr std::int32_t most = 65536;
    for (const std::int32_t cpus : {most - 1, most, most + 1, INT32_MAX}) {
        config->GetHardware()->SetNumCPU(cpus);
        resCPUNode* const last = SetCPUResource(client.Get(), (*vms)[0], config.Get(), &resCPUList);
        log.Take();
        EXPECT_EQ(TestRows::List<resCPUNode>().size(), static_cast<std::size_t>(std::min(cpus, most)))
            << cpus;
        EXPECT_EQ(last->cpuVMID, 16 + std::min(cpus, most) - 1) << cpus;
        SNMPResCPUTable_Destroy();
    }
}

// Without the log capture, which needs memory itself.
TEST(DiskWithoutMemoryForItsName, HasNoStatistics) {
    FakeDaemon daemon;
    // Statistics that a lookup of any instance would find.
    Describe(daemon.host,
             "vms:\n" + DeviceVm("16", R"(
        {type: VirtualDisk, key: 1, shares: {shares: 1000},
         backing: {type: DeviceBackingInfo, deviceName: raw-1}})",
                                 R"(disk.numberRead: {raw-1: 101}, disk.numberWrite: {raw-1: 102},
                                                 disk.read: {raw-1: 103}, disk.write: {raw-1: 104})"));
    const auto client = MakeRef<OrdaneClient>();
    Ref<VmArray> vms;
    client->GetAllVM(vms);
    client->CollectVMStats(vms.Get());
    const auto* const hardware = daemon.host.vms[0].config->GetHardware();
    const auto disks = Array<Device::VirtualDisk>(
        {Ref<Device::VirtualDisk>(Tessim::NarrowToType<Device::VirtualDisk>((*hardware->GetDevice())[0]))});
    snmp_disable_log();
    {
        TestSupport::FaultInjection faults;
        faults.FailNew(1, 2);  // for the disk's own name, and for the one that takes its place
        SetDiskResource(client.Get(), (*vms)[0], disks.Get(), &resDiskList);
    }
    EXPECT_EQ(TestRows::ResourceText(), "disk 1 null 16 1000 -1 -1 -1 -1\n");
    SNMPResDiskTable_Destroy();
}

// The scalars.

TEST_F(FillerTest, NarrowsCoresAndReservation) {
    const std::string down = R"(
  6 Disconnect: not connected.
  4 OrdaneClient::Init: :connection refused (7 backtrace)
  4 Could not init ordane client to tovric-vessad.
)";
    // The reservation in bytes first, then in kilobytes.
    Check("\ndown; cores -> 0 (open stream, shut service down)" + down +
          "  4 GetNumCPu: Could not acquire ordane client to tovric-vessad.\n" +
          "memory -> 0 of 0 (open stream, shut service down)" + down +
          R"(  4 GetMemory: Could not acquire ordane client to tovric-vessad.
up; has-cores 40000; cores -> -25536 (open stream, AcquireLocalTicket, Login, GetHardware)
has-memory 6442450944 4391604064256; memory -> -2147483648 of 4 (GetConsoleReservationInfo)
memory -> 6291456 of 4
)");
}

TEST(MemoryDeathTest, NeedsBothPointers) {
    long value = 0;
    EXPECT_DEATH(GetMemory(nullptr, &value), "assertion failed: reserved && total");
    EXPECT_DEATH(GetMemory(&value, nullptr), "assertion failed: reserved && total");
}

}  // namespace
}  // namespace RefreshTests
