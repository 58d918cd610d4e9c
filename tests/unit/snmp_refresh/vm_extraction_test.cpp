#include "apps/snmp/refresh/VMExtraction.h"

#include <cstdlib>
#include <ostream>

#include "tests/unit/snmp_refresh/fixture.h"
#include "tests/unit/snmp_refresh/rows.h"

namespace RefreshTests {
namespace {

using testing::IsNull;

// Works on the module's own collections, which release what was made.
class ExtractionTest : public testing::Test {
  protected:
    ~ExtractionTest() override {
        ForgetReportedVMID();
        SNMPRaskTable_Destroy();
    }

    // The object of that VM, as the daemon has it.
    Ref<Hask::VirtualMachine> Find(const std::string& id) {
        const auto object = host.Find(Ordane::MoRef("VirtualMachine", id));
        return Tessim::NarrowToType<Hask::VirtualMachine>(object);
    }
    Ref<Hask::VirtualMachine> Add(const TestSupport::FakeVm& vm) {
        host.vms.push_back(vm);
        return Find(vm.id);
    }
    static vmEntry* MakeRows(int count) {
        auto* const rows =
            static_cast<vmEntry*>(std::calloc(static_cast<std::size_t>(count), sizeof(vmEntry)));
        *SNMPVMInfoTable_GetPtr() = rows;
        SNMPVMInfoTable_SetNumEntries(count);
        return rows;
    }

    FakeHost host;
    LogCapture log;
};

// GetVMID.

TEST_F(ExtractionTest, ReadsTheNumberOfTheId) {
    EXPECT_EQ(GetVMID(Add(Vm("16", nullptr)).Get()), 16);
    EXPECT_EQ(GetVMID(Add(Vm("-7", nullptr)).Get()), -7);
    EXPECT_EQ(GetVMID(Add(Vm("2147483647", nullptr)).Get()), 2147483647);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ExtractionTest, LogsAnIdThatIsNoNumberOncePerRebuild) {
    for (const char* id : {"vm-16", "16x", "2147483648"}) {
        const auto vm = Add(Vm(id, nullptr));
        for (int rebuild = 1; rebuild <= 2; ++rebuild) {
            EXPECT_EQ(GetVMID(vm.Get()), -1);
            EXPECT_EQ(GetVMID(vm.Get()), -1);
            EXPECT_EQ(log.Take(), Warnings({std::string("SetVMInfo: invalid VM Id: ") + id + "\n"}));
            ForgetReportedVMID();
        }
    }
}

// SetVMInfo.

TEST_F(ExtractionTest, FillsTheRowOfAVm) {
    const auto config = Config("web-1", 2, 512);
    const auto files = MakeRef<Hask::Vm::FileInfo>();
    files->SetVmPathName("[storage1] web-1/web-1.cfg");
    config->SetFiles(files);
    config->SetDatastoreUrl(UrlPairs({{"storage1", "/volumes/4a5b/"}}));
    vmEntry* const rows = MakeRows(3);
    EXPECT_TRUE(SetVMInfo(1, Add(Vm("16", config)).Get(), config.Get(), rows));
    EXPECT_EQ(rows[1].vmIdx, 1);
    EXPECT_STREQ(rows[1].vmDisplayName, "web-1");
    EXPECT_STREQ(rows[1].vmConfigFile, "/volumes/4a5b/web-1/web-1.cfg");
    EXPECT_STREQ(rows[1].vmGuestOS, "Guest of web-1");
    EXPECT_EQ(rows[1].vmMemSize, 512);
    EXPECT_STREQ(rows[1].vmState, "poweredOn");
    EXPECT_EQ(rows[1].vmVMID, 16);
    EXPECT_STREQ(rows[1].vmGuestState, "running");
    EXPECT_THAT(log.Take(), IsEmpty());
    // The neighbours are untouched.
    for (const int other : {0, 2}) {
        EXPECT_EQ(rows[other].vmIdx, 0);
        EXPECT_EQ(rows[other].vmDisplayName, nullptr);
    }
    EXPECT_STREQ(files->GetVmPathName()->c_str(), "[storage1] web-1/web-1.cfg");
}

TEST_F(ExtractionTest, NamesThePowerState) {
    const auto config = Config("web-1");
    vmEntry* const rows = MakeRows(3);
    EXPECT_FALSE(SetVMInfo(0, Add(Vm("1", config, PowerState::poweredOff)).Get(), config.Get(), rows));
    EXPECT_TRUE(SetVMInfo(1, Add(Vm("2", config, PowerState::poweredOn)).Get(), config.Get(), rows));
    EXPECT_TRUE(SetVMInfo(2, Add(Vm("3", config, PowerState::suspended)).Get(), config.Get(), rows));
    EXPECT_STREQ(rows[0].vmState, "poweredOff");
    EXPECT_STREQ(rows[1].vmState, "poweredOn");
    EXPECT_STREQ(rows[2].vmState, "suspended");
}

TEST_F(ExtractionTest, ShowsTheIdOfAVmWithoutAConfigurationFile) {
    const auto withoutPath = Config("web-1");
    withoutPath->SetFiles(MakeRef<Hask::Vm::FileInfo>());
    const auto withoutFiles = Config("web-2");
    vmEntry* const rows = MakeRows(2);
    SetVMInfo(0, Add(Vm("42", withoutPath)).Get(), withoutPath.Get(), rows);
    SetVMInfo(1, Add(Vm("vm-x", withoutFiles)).Get(), withoutFiles.Get(), rows);
    EXPECT_STREQ(rows[0].vmConfigFile, "Unknown config: 42");
    EXPECT_STREQ(rows[1].vmConfigFile, "Unknown config: vm-x");
    EXPECT_EQ(rows[1].vmVMID, -1);
    EXPECT_EQ(log.Take(), Warnings({"SetVMInfo: invalid VM Id: vm-x\n"}));
}

TEST_F(ExtractionTest, ShowsUnknownForWhatTheDaemonDoesNotKnowOfAVm) {
    const auto config = MakeRef<Hask::Vm::ConfigInfo>();
    vmEntry* const rows = MakeRows(1);
    EXPECT_FALSE(SetVMInfo(0, Add({"7", config, nullptr, nullptr}).Get(), config.Get(), rows));
    EXPECT_STREQ(rows[0].vmState, "unknown");
    EXPECT_STREQ(rows[0].vmGuestState, "unknown");
    EXPECT_EQ(rows[0].vmMemSize, 0);
    EXPECT_STREQ(rows[0].vmDisplayName, "");
}

TEST_F(ExtractionTest, LetsFailuresOfTheDaemonPass) {
    const auto config = Config("web-1");
    const auto vm = Add(Vm("16", config));
    vmEntry* const rows = MakeRows(1);
    host.WhenAsked("GetGuest", [] { throw Tessim::Exception("no guest today"); });
    EXPECT_THROW(SetVMInfo(0, vm.Get(), config.Get(), rows), Tessim::Exception);
}

// GetPathFromDsPath.

struct DsPathCase {
    std::string dsPath;
    std::string expected;

    friend std::ostream& operator<<(std::ostream& stream, const DsPathCase& each) {
        return stream << '"' << each.dsPath << '"';
    }
};

class DsPathTest : public testing::TestWithParam<DsPathCase> {};

TEST_P(DsPathTest, BecomesAPathOnTheHost) {
    const auto pairs = UrlPairs({{"storage", "/wrong/"},
                                 {"storage1", "/volumes/4a5b/"},
                                 {"storage1", "/second/"},
                                 {"noslash", "/volumes/4a5b"},
                                 {"", "/empty/"},
                                 {"two words", "/volumes/tw/"}});
    std::string dsPath = GetParam().dsPath;
    std::string result = "old";
    GetPathFromDsPath(pairs.Get(), dsPath, result);
    EXPECT_EQ(result, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(DsPaths, DsPathTest,
                         testing::Values(DsPathCase{"[storage1] vm/vm.cfg", "/volumes/4a5b/vm/vm.cfg"},
                                         DsPathCase{"[noslash] vm/vm.cfg", "/volumes/4a5bvm/vm.cfg"},
                                         DsPathCase{"[ storage1 ]  vm.cfg  ", "/volumes/4a5b/vm.cfg"},
                                         DsPathCase{"[storage1]vm.cfg", "/volumes/4a5b/vm.cfg"},
                                         DsPathCase{"[two words] a b.cfg", "/volumes/tw/a b.cfg"},
                                         DsPathCase{"[storage1]", "/volumes/4a5b/"},
                                         DsPathCase{"[storage1] [x] y.cfg", "/volumes/4a5b/[x] y.cfg"},
                                         DsPathCase{"before [storage1] vm.cfg", "/volumes/4a5b/vm.cfg"},
                                         DsPathCase{"] [storage1] vm.cfg", "/volumes/4a5b/vm.cfg"},
                                         DsPathCase{"[] vm.cfg", "vm.cfg"},
                                         DsPathCase{"[  ] vm.cfg ", "vm.cfg"},
                                         DsPathCase{"vm/vm.cfg", "vm/vm.cfg"},
                                         DsPathCase{"storage1] vm.cfg", "storage1] vm.cfg"},
                                         DsPathCase{"[storage1 vm.cfg", "[storage1 vm.cfg"},
                                         DsPathCase{"] x [storage1 vm.cfg", "] x [storage1 vm.cfg"},
                                         DsPathCase{"[Storage1] vm.cfg", "[Storage1] vm.cfg"},
                                         DsPathCase{"[storage2]  vm.cfg ", "[storage2]  vm.cfg "},
                                         DsPathCase{" plain ", " plain "}, DsPathCase{"", ""}));

TEST(DsPath, StaysAsItIsWithoutPairs) {
    std::string dsPath = "[storage1] vm.cfg";
    std::string result;
    GetPathFromDsPath(nullptr, dsPath, result);
    EXPECT_EQ(result, "[storage1] vm.cfg");
    dsPath = "[] vm.cfg";
    GetPathFromDsPath(nullptr, dsPath, result);
    EXPECT_EQ(result, "vm.cfg");
}

// FindVirtualDevices.

// The devices by kind.
struct FoundDevices {
    explicit FoundDevices(const Hask::Vm::VirtualHardware* hardware) {
        FindVirtualDevices(hardware, nics, scsi, disks, ide, cdroms, floppies);
    }
    // Of every kind, in the order of the parameters.
    std::vector<std::vector<std::int32_t>> Keys() const {
        return {KeysOf(nics), KeysOf(scsi), KeysOf(disks), KeysOf(ide), KeysOf(cdroms), KeysOf(floppies)};
    }
    template <class T>
    static std::vector<std::int32_t> KeysOf(const Ref<Ordane::DataArray<T>>& array) {
        std::vector<std::int32_t> keys;
        for (const auto& device : *array) {
            keys.push_back(device->GetKey());
        }
        return keys;
    }

    Ref<Ordane::DataArray<Device::VirtualEthernetCard>> nics = Array<Device::VirtualEthernetCard>();
    Ref<Ordane::DataArray<Device::VirtualSCSIController>> scsi = Array<Device::VirtualSCSIController>();
    Ref<Ordane::DataArray<Device::VirtualDisk>> disks = Array<Device::VirtualDisk>();
    Ref<Ordane::DataArray<Device::VirtualIDEController>> ide = Array<Device::VirtualIDEController>();
    Ref<Ordane::DataArray<Device::VirtualCdrom>> cdroms = Array<Device::VirtualCdrom>();
    Ref<Ordane::DataArray<Device::VirtualFloppy>> floppies = Array<Device::VirtualFloppy>();
};

TEST(FindVirtualDevices, SortsDevicesByKindInTheirOrder) {
    const auto config = Config(
        "vm", 1, 0,
        {MakeDevice<Device::VirtualFloppy>(1, "f"), MakeDevice<Device::VirtualEthernetCard>(2, "n"),
         MakeDevice<Device::VirtualKeyboard>(3, "k"), MakeDevice<Device::VirtualDisk>(4, "d"),
         MakeController<Device::VirtualLsiLogicController>(5, 0),
         MakeDevice<Device::VirtualE1000Card>(6, "n"), MakeController<Device::VirtualIDEController>(7, 0),
         MakeController<Device::VirtualPCIController>(8, 0), MakeDevice<Device::VirtualCdrom>(9, "c"),
         MakeController<Device::ParaVirtualSCSIController>(10, 1),
         MakeDevice<Device::VirtualPCNetCard>(11, "n"), MakeDevice<Device::VirtualDevice>(12, "plain"),
         MakeController<Device::VirtualSCSIController>(13, 2),
         MakeController<Device::VirtualSIOController>(14, 0),
         MakeController<Device::VirtualUSBController>(15, 0), MakeDevice<Device::VirtualVideoCard>(16, "v"),
         MakeController<Device::VirtualController>(17, 0),
         MakeController<Device::VirtualSATAController>(18, 0), MakeDevice<Device::VirtualDisk>(19, "d")});
    using KeyLists = std::vector<std::vector<std::int32_t>>;
    EXPECT_EQ(FoundDevices(config->GetHardware()).Keys(),
              (KeyLists{{2, 6, 11}, {5, 10, 13}, {4, 19}, {7}, {9}, {1}}));
    const KeyLists none(6);
    EXPECT_EQ(FoundDevices(nullptr).Keys(), none);
    EXPECT_EQ(FoundDevices(MakeRef<Hask::Vm::VirtualHardware>().Get()).Keys(), none);
}

// The list fillers.

TEST_F(ExtractionTest, MakesARowPerNetworkCard) {
    const auto nics = Array<Device::VirtualEthernetCard>(
        {Nic(4000, "Adapter 1", "VM Network"), Nic(4001, "Adapter 2", "Other")});
    vmNetNode** const head = SNMPVMNetTable_GetPtr();
    vmNetNode* const last = SetNicInfo(3, nics.Get(), head);
    const auto rows = TestRows::Nics();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[1], last);
    EXPECT_EQ(rows[0]->vmIdx, 3);
    EXPECT_EQ(rows[0]->nicIdx, 0);
    EXPECT_STREQ(rows[0]->nicLabel, "Adapter 1");
    EXPECT_STREQ(rows[0]->nicNetwork, "VM Network");
    EXPECT_STREQ(rows[0]->nicDevice, "monitor_dev");
    EXPECT_EQ(rows[1]->vmIdx, 3);
    EXPECT_EQ(rows[1]->nicIdx, 1);
    EXPECT_STREQ(rows[1]->nicNetwork, "Other");
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ExtractionTest, ShowsAnUnknownNetworkWithoutADeviceBacking) {
    const auto nics = Array<Device::VirtualEthernetCard>(
        {MakeDevice<Device::VirtualEthernetCard>(1, "none"),
         MakeDevice<Device::VirtualEthernetCard>(2, "file", FileBacking("x")),
         MakeDevice<Device::VirtualEthernetCard>(3, "remote", RemoteBacking("x"))});
    SetNicInfo(0, nics.Get(), SNMPVMNetTable_GetPtr());
    ASSERT_EQ(TestRows::Nics().size(), 3U);
    for (const auto* row : TestRows::Nics()) {
        EXPECT_STREQ(row->nicNetwork, "unknown");
        EXPECT_STREQ(row->nicDevice, "monitor_dev");
    }
    const LogLine line{4, "SetNicInfo: Null device backing.\n"};
    EXPECT_THAT(log.Take(), ElementsAre(line, line, line));
}

TEST_F(ExtractionTest, KeepsTheCursorOfAVmWithoutDevices) {
    vmNetNode** const head = SNMPVMNetTable_GetPtr();
    EXPECT_EQ(SetNicInfo(0, Array<Device::VirtualEthernetCard>().Get(), head), nullptr);
    EXPECT_EQ(SetStorageHBA(0, Array<Device::VirtualSCSIController>().Get(), SNMPVMHBATable_GetPtr()),
              nullptr);
    EXPECT_EQ(SetStorageTgt(0, Array<Device::VirtualDisk>().Get(), SNMPVMHBATgtTable_GetPtr()), nullptr);
    EXPECT_EQ(SetCDRomInfo(0, Array<Device::VirtualIDEController>().Get(),
                           Array<Device::VirtualCdrom>().Get(), SNMPVMCDROMTable_GetPtr()),
              nullptr);
    EXPECT_EQ(SetFloppyInfo(0, Array<Device::VirtualFloppy>().Get(), SNMPVMFloppyTable_GetPtr()), nullptr);

    vmNetNode* last =
        SetNicInfo(0, Array<Device::VirtualEthernetCard>({Nic(1, "a")}).Get(), SNMPVMNetTable_GetPtr());
    EXPECT_EQ(SetNicInfo(1, Array<Device::VirtualEthernetCard>().Get(), &last), last);
    EXPECT_EQ(TestRows::Nics().size(), 1U);
}

TEST_F(ExtractionTest, NamesTheModelOfAnAdapterByItsExactType) {
    const auto controllers = Array<Device::VirtualSCSIController>(
        {MakeController<Device::VirtualLsiLogicController>(1000, 0, "SCSI 0"),
         MakeController<Device::VirtualBusLogicController>(1001, 1, "SCSI 1"),
         MakeController<Device::VirtualLsiLogicSASController>(1002, 2, "SCSI 2"),
         MakeController<Device::ParaVirtualSCSIController>(1003, 3, "SCSI 3"),
         MakeController<Device::VirtualSCSIController>(1004, 7, "")});
    vmHBANode* const last = SetStorageHBA(5, controllers.Get(), SNMPVMHBATable_GetPtr());
    const auto rows = TestRows::Hbas();
    ASSERT_EQ(rows.size(), 5U);
    EXPECT_EQ(rows.back(), last);
    const std::vector<std::string> models = {"lsilogic", "buslogic", "unknown", "unknown", "unknown"};
    const std::vector<std::string> labels = {"SCSI 0", "SCSI 1", "SCSI 2", "SCSI 3", "SNMP Error"};
    const std::vector<int> buses = {0, 1, 2, 3, 7};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i]->vmIdx, 5);
        EXPECT_EQ(rows[i]->hbaBus, buses[i]);
        EXPECT_EQ(rows[i]->hbaLabel, labels[i]);
        EXPECT_EQ(rows[i]->hbaType, models[i]);
    }
    EXPECT_THAT(log.Take(), IsEmpty());
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

TEST_F(ExtractionTest, ShowsASubtypeOfANamedModelAsUnknown) {
    using Lsi = NewerModel<Device::VirtualLsiLogicController>;
    using Bus = NewerModel<Device::VirtualBusLogicController>;
    const auto config = Config("vm", 1, 0, {MakeController<Lsi>(1000, 0), MakeController<Bus>(1001, 1)});
    ASSERT_TRUE(Ordane::GetDoType<Device::VirtualLsiLogicController>().Includes(Lsi().GetDataObjectType()));
    const FoundDevices found(config->GetHardware());
    SetStorageHBA(0, found.scsi.Get(), SNMPVMHBATable_GetPtr());
    const auto rows = TestRows::Hbas();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_STREQ(rows[0]->hbaType, "unknown");
    EXPECT_STREQ(rows[1]->hbaType, "unknown");
}

TEST_F(ExtractionTest, MakesARowPerDisk) {
    const auto disks = Array<Device::VirtualDisk>({Disk("Hard Disk 1", 0), Disk("Hard Disk 2", 6),
                                                   MakeDevice<Device::VirtualDisk>(2002, "Hard Disk 3"),
                                                   MakeDevice<Device::VirtualDisk>(1, "")});
    vmHBATgtNode* const last = SetStorageTgt(2, disks.Get(), SNMPVMHBATgtTable_GetPtr());
    const auto rows = TestRows::Targets();
    ASSERT_EQ(rows.size(), 4U);
    EXPECT_EQ(rows.back(), last);
    const std::vector<int> units = {0, 6, 0, 0};
    const std::vector<std::string> labels = {"Hard Disk 1", "Hard Disk 2", "Hard Disk 3", "SNMP Error"};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i]->vmIdx, 2);
        EXPECT_EQ(rows[i]->tgtUnit, units[i]);
        EXPECT_EQ(rows[i]->tgtLabel, labels[i]);
    }
    EXPECT_EQ(log.Take(), Warnings({"SetStorageInfo: cannot find unit number for disk Hard Disk 3.\n",
                                    "SetStorageInfo: cannot find unit number for disk without label.\n"}));
}

// GetDeviceBackingName.

TEST(BackingName, ComesFromTheKindOfTheBacking) {
    EXPECT_EQ(GetDeviceBackingName(nullptr), "");
    EXPECT_EQ(GetDeviceBackingName(DeviceBacking("/dev/cdrom").Get()), "/dev/cdrom");
    EXPECT_EQ(GetDeviceBackingName(FileBacking("[storage1] a.iso").Get()), "[storage1] a.iso");
    EXPECT_EQ(GetDeviceBackingName(RemoteBacking("console").Get()), "console");
    EXPECT_EQ(GetDeviceBackingName(RemoteBacking("").Get()), "remote device backing");
    EXPECT_EQ(GetDeviceBackingName(DeviceBacking("").Get()), "");
    EXPECT_EQ(GetDeviceBackingName(PipeBacking().Get()), "");
}

// SetCDRomInfo.

class CdromTest : public ExtractionTest {
  protected:
    CdromTest() {
        ide->Append(MakeController<Device::VirtualIDEController>(200, 0));
        ide->Append(MakeController<Device::VirtualIDEController>(201, 1));
    }
    // The row of the only drive.
    const vmCDROMNode& Fill(const Ref<Device::VirtualCdrom>& cdrom) {
        SNMPVMCDROMTable_Destroy();
        SetCDRomInfo(4, ide.Get(), Array<Device::VirtualCdrom>({cdrom}).Get(), SNMPVMCDROMTable_GetPtr());
        return *TestRows::Cdroms().at(0);
    }

    Ref<Ordane::DataArray<Device::VirtualIDEController>> ide = Array<Device::VirtualIDEController>();
};

TEST_F(CdromTest, HasTwoPlacesPerBus) {
    const auto cdroms = Array<Device::VirtualCdrom>(
        {Cdrom(200, 1, FileBacking("[s] a.iso"), true), Cdrom(201, 0, DeviceBacking("/dev/cdrom"), false)});
    vmCDROMNode* const last = SetCDRomInfo(4, ide.Get(), cdroms.Get(), SNMPVMCDROMTable_GetPtr());
    const auto rows = TestRows::Cdroms();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[1], last);
    EXPECT_EQ(rows[0]->vmIdx, 4);
    EXPECT_EQ(rows[0]->cdIdeIndex, 1);
    EXPECT_STREQ(rows[0]->cdBacking, "[s] a.iso");
    EXPECT_STREQ(rows[0]->cdConnected, "true");
    EXPECT_EQ(rows[1]->vmIdx, 4);
    EXPECT_EQ(rows[1]->cdIdeIndex, 2);
    EXPECT_STREQ(rows[1]->cdBacking, "/dev/cdrom");
    EXPECT_STREQ(rows[1]->cdConnected, "false");
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CdromTest, HasTheBusOfTheLastControllerWithItsKey) {
    ide->Append(MakeController<Device::VirtualIDEController>(200, 3));
    EXPECT_EQ(Fill(Cdrom(200, 1, DeviceBacking("x"), true)).cdIdeIndex, 7);
}

// What a drive lacks, and what its row and the log say.
struct CdromCase {
    const char* name;
    void (*spoil)(Device::VirtualCdrom& cdrom);  // of a whole drive at place 3
    int index;
    const char* connected;  // null: no text
    const char* backing;
    std::vector<std::string> warnings;

    friend std::ostream& operator<<(std::ostream& stream, const CdromCase& each) {
        return stream << each.name;
    }
};

class IncompleteCdromTest : public CdromTest, public testing::WithParamInterface<CdromCase> {};

TEST_P(IncompleteCdromTest, HasARow) {
    const auto cdrom = Cdrom(201, 1, DeviceBacking("x"), true);
    GetParam().spoil(*cdrom);
    const vmCDROMNode& row = Fill(cdrom);
    EXPECT_EQ(row.cdIdeIndex, GetParam().index);
    EXPECT_STREQ(row.cdConnected, GetParam().connected);
    EXPECT_STREQ(row.cdBacking, GetParam().backing);
    EXPECT_EQ(log.Take(), Warnings(GetParam().warnings));
}

const std::string noUnit = "SetCdromInfo:  No unit number for cdrom.\n";
const std::string unknownBacking = "SetCdromInfo: Found cdrom of unknown backing.\n";

INSTANTIATE_TEST_SUITE_P(
    Drives, IncompleteCdromTest,
    testing::Values(
        CdromCase{"Whole", [](auto&) {}, 3, "true", "x", {}},
        CdromCase{"UnknownController",
                  [](auto& cdrom) { cdrom.SetControllerKey(777); },
                  0,
                  "true",
                  "x",
                  {"SetCdromInfo:  No IDE controller with key 777 exists\n"}},
        CdromCase{
            "NoUnitNumber", [](auto& cdrom) { cdrom.SetUnitNumber(std::nullopt); }, 0, "true", "x", {noUnit}},
        CdromCase{"NeitherUnitNumberNorController",
                  [](auto& cdrom) {
                      cdrom.SetUnitNumber(std::nullopt);
                      cdrom.SetControllerKey(std::nullopt);
                  },
                  0,
                  "true",
                  "x",
                  {noUnit}},
        CdromCase{"NoControllerKey",
                  [](auto& cdrom) { cdrom.SetControllerKey(std::nullopt); },
                  0,
                  "true",
                  "x",
                  {"SetCdromInfo:  No controller key for cdrom.\n"}},
        CdromCase{"NoConnectInfo",
                  [](auto& cdrom) { cdrom.SetConnectable(nullptr); },
                  3,
                  nullptr,
                  "x",
                  {"SetCdromInfo:  No ConnectInfo found for cdrom 3\n"}},
        CdromCase{"NoBacking",
                  [](auto& cdrom) { cdrom.SetBacking(nullptr); },
                  3,
                  "true",
                  "unknown",
                  {unknownBacking}},
        CdromCase{"BackingWithoutName",
                  [](auto& cdrom) { cdrom.SetBacking(DeviceBacking("")); },
                  3,
                  "true",
                  "unknown",
                  {unknownBacking}},
        CdromCase{"OtherBacking",
                  [](auto& cdrom) { cdrom.SetBacking(PipeBacking()); },
                  3,
                  "true",
                  "unknown",
                  {unknownBacking}},
        CdromCase{"RemoteBackingWithoutName",
                  [](auto& cdrom) { cdrom.SetBacking(RemoteBacking("")); },
                  3,
                  "true",
                  "remote device backing",
                  {}},
        CdromCase{"Nothing",
                  [](auto& cdrom) {
                      cdrom.SetUnitNumber(std::nullopt);
                      cdrom.SetConnectable(nullptr);
                      cdrom.SetBacking(nullptr);
                  },
                  0,
                  nullptr,
                  "unknown",
                  {noUnit, "SetCdromInfo:  No ConnectInfo found for cdrom 0\n", unknownBacking}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CdromTest, HasARowWhenItsPlaceOverflows) {
    ide->Append(MakeController<Device::VirtualIDEController>(300, 2147483647));
    Fill(Cdrom(300, 2147483647, DeviceBacking("x"), true));
    EXPECT_EQ(TestRows::Cdroms().size(), 1U);
}

// SetFloppyInfo.

TEST_F(ExtractionTest, MakesARowPerFloppyDrive) {
    const auto floppies = Array<Device::VirtualFloppy>(
        {Floppy(0, FileBacking("[s] boot.flp"), false), Floppy(1, RemoteBacking("console"), true)});
    vmFloppyNode* const last = SetFloppyInfo(6, floppies.Get(), SNMPVMFloppyTable_GetPtr());
    const auto rows = TestRows::Floppies();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[1], last);
    EXPECT_EQ(rows[0]->vmIdx, 6);
    EXPECT_EQ(rows[0]->fdUnit, 0);
    EXPECT_STREQ(rows[0]->fdBacking, "[s] boot.flp");
    EXPECT_STREQ(rows[0]->fdConnected, "false");
    EXPECT_EQ(rows[1]->fdUnit, 1);
    EXPECT_STREQ(rows[1]->fdBacking, "console");
    EXPECT_STREQ(rows[1]->fdConnected, "true");
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ExtractionTest, LogsWhatAFloppyDriveLacks) {
    SetFloppyInfo(0, Array<Device::VirtualFloppy>({MakeDevice<Device::VirtualFloppy>(8000, "F")}).Get(),
                  SNMPVMFloppyTable_GetPtr());
    ASSERT_EQ(TestRows::Floppies().size(), 1U);
    EXPECT_EQ(TestRows::Floppies()[0]->fdUnit, 0);
    EXPECT_THAT(TestRows::Floppies()[0]->fdConnected, IsNull());
    EXPECT_STREQ(TestRows::Floppies()[0]->fdBacking, "unknown");
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "SetFloppyInfo: No unit number for floppy.\n"},
                                        LogLine{4, "SetFloppyInfo:  Null ConnectInfo for floppy.\n"},
                                        LogLine{4, "SetCdromInfo: Found floppy of unknown backing.\n"}));
}

}  // namespace
}  // namespace RefreshTests
