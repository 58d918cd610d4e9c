#include "apps/snmp/collections/VMTables.h"
#include "apps/snmp/refresh/VMExtraction.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>

#include "runtime/tessim/exception.h"
#include "tests/support/api_objects.h"
#include "tests/support/fake_host.h"
#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp_refresh/rows.h"

namespace {

using namespace ApiObjects;
using Tessim::MakeRef;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsNull;
using TestSupport::FakeHost;
using TestSupport::FaultInjection;
using TestSupport::LogCapture;
using TestSupport::LogLine;

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

TEST_F(ExtractionTest, TakesTheNumberOfTheId) {
    EXPECT_EQ(GetVMID(Add(Vm("16", nullptr)).Get()), 16);
    EXPECT_EQ(GetVMID(Add(Vm("-7", nullptr)).Get()), -7);
    EXPECT_EQ(GetVMID(Add(Vm("2147483647", nullptr)).Get()), 2147483647);
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(ExtractionTest, LogsAnIdThatIsNoNumber) {
    for (const char* id : {"vm-16", "16x", "2147483648"}) {
        EXPECT_EQ(GetVMID(Add(Vm(id, nullptr)).Get()), -1);
        EXPECT_THAT(log.Take(),
                    ElementsAre(LogLine{4, std::string("SetVMInfo: invalid VM Id: ") + id + "\n"}));
    }
}

TEST_F(ExtractionTest, LogsABadIdOncePerRebuild) {
    const auto vm = Add(Vm("vm-16", nullptr));
    EXPECT_EQ(GetVMID(vm.Get()), -1);
    EXPECT_EQ(GetVMID(vm.Get()), -1);
    EXPECT_EQ(log.Take().size(), 1U);
    ForgetReportedVMID();
    EXPECT_EQ(GetVMID(vm.Get()), -1);
    EXPECT_EQ(log.Take().size(), 1U);
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

TEST_F(ExtractionTest, TellsThePowerStateByItsName) {
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
}

TEST_F(ExtractionTest, MarksABadVmIdInItsRow) {
    const auto config = Config("web-1");
    vmEntry* const rows = MakeRows(1);
    SetVMInfo(0, Add(Vm("vm-x", config)).Get(), config.Get(), rows);
    EXPECT_EQ(rows[0].vmVMID, -1);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "SetVMInfo: invalid VM Id: vm-x\n"}));
}

TEST_F(ExtractionTest, SurvivesWhatTheDaemonDoesNotKnowOfAVm) {
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

class FindDevicesTest : public testing::Test {
  protected:
    void Find(const Hask::Vm::VirtualHardware* hardware) {
        FindVirtualDevices(hardware, nics, scsi, disks, ide, cdroms, floppies);
    }
    std::vector<int> Lengths() const {
        return {nics->GetLength(), scsi->GetLength(),   disks->GetLength(),
                ide->GetLength(),  cdroms->GetLength(), floppies->GetLength()};
    }
    template <class T>
    static std::vector<std::int32_t> Keys(const Ref<Ordane::DataArray<T>>& array) {
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

TEST_F(FindDevicesTest, SortsDevicesByKindInTheirOrder) {
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
    Find(config->GetHardware());
    EXPECT_THAT(Keys(nics), ElementsAre(2, 6, 11));
    EXPECT_THAT(Keys(scsi), ElementsAre(5, 10, 13));
    EXPECT_THAT(Keys(disks), ElementsAre(4, 19));
    EXPECT_THAT(Keys(ide), ElementsAre(7));
    EXPECT_THAT(Keys(cdroms), ElementsAre(9));
    EXPECT_THAT(Keys(floppies), ElementsAre(1));
}

TEST_F(FindDevicesTest, FindsNothingWithoutHardwareOrDevices) {
    Find(nullptr);
    EXPECT_THAT(Lengths(), ElementsAre(0, 0, 0, 0, 0, 0));
    Find(MakeRef<Hask::Vm::VirtualHardware>().Get());
    EXPECT_THAT(Lengths(), ElementsAre(0, 0, 0, 0, 0, 0));
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

TEST_F(ExtractionTest, CountsTheNetworkCardsOfEachVmFromZero) {
    const auto three = Array<Device::VirtualEthernetCard>({Nic(1, "a"), Nic(2, "b"), Nic(3, "c")});
    const auto one = Array<Device::VirtualEthernetCard>({Nic(1, "d")});
    vmNetNode* last = SetNicInfo(0, three.Get(), SNMPVMNetTable_GetPtr());
    vmNetNode* const firstLast = last;
    last = SetNicInfo(1, one.Get(), &last);
    std::vector<std::pair<int, int>> keys;
    for (const auto* row : TestRows::Nics()) {
        keys.emplace_back(row->vmIdx, row->nicIdx);
    }
    EXPECT_THAT(keys, ElementsAre(std::pair(0, 0), std::pair(0, 1), std::pair(0, 2), std::pair(1, 0)));
    EXPECT_EQ(firstLast->next, last);
}

TEST_F(ExtractionTest, CallsANetworkUnknownWithoutADeviceBacking) {
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

// A model that the API may bring one day.
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

TEST_F(ExtractionTest, KnowsNoModelBelowTheOnesItNames) {
    using Lsi = NewerModel<Device::VirtualLsiLogicController>;
    using Bus = NewerModel<Device::VirtualBusLogicController>;
    const auto config = Config("vm", 1, 0, {MakeController<Lsi>(1000, 0), MakeController<Bus>(1001, 1)});
    ASSERT_TRUE(Ordane::GetDoType<Device::VirtualLsiLogicController>().Includes(Lsi().GetDataObjectType()));
    auto controllers = Array<Device::VirtualSCSIController>();
    auto nics = Array<Device::VirtualEthernetCard>();
    auto disks = Array<Device::VirtualDisk>();
    auto ide = Array<Device::VirtualIDEController>();
    auto cdroms = Array<Device::VirtualCdrom>();
    auto floppies = Array<Device::VirtualFloppy>();
    FindVirtualDevices(config->GetHardware(), nics, controllers, disks, ide, cdroms, floppies);
    SetStorageHBA(0, controllers.Get(), SNMPVMHBATable_GetPtr());
    const auto rows = TestRows::Hbas();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_STREQ(rows[0]->hbaType, "unknown");
    EXPECT_STREQ(rows[1]->hbaType, "unknown");
}

TEST_F(ExtractionTest, MakesARowPerDisk) {
    const auto disks = Array<Device::VirtualDisk>({Disk("Hard Disk 1", 0), Disk("Hard Disk 2", 6),
                                                   MakeDevice<Device::VirtualDisk>(2002, "Hard Disk 3")});
    vmHBATgtNode* const last = SetStorageTgt(2, disks.Get(), SNMPVMHBATgtTable_GetPtr());
    const auto rows = TestRows::Targets();
    ASSERT_EQ(rows.size(), 3U);
    EXPECT_EQ(rows.back(), last);
    const std::vector<int> units = {0, 6, 0};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i]->vmIdx, 2);
        EXPECT_EQ(rows[i]->tgtUnit, units[i]);
        EXPECT_EQ(rows[i]->tgtLabel, "Hard Disk " + std::to_string(i + 1));
    }
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "SetStorageInfo: cannot find unit number for disk Hard Disk 3.\n"}));
}

TEST_F(ExtractionTest, MakesARowForADiskWithoutALabel) {
    SetStorageTgt(0, Array<Device::VirtualDisk>({MakeDevice<Device::VirtualDisk>(1, "")}).Get(),
                  SNMPVMHBATgtTable_GetPtr());
    ASSERT_EQ(TestRows::Targets().size(), 1U);
    EXPECT_STREQ(TestRows::Targets()[0]->tgtLabel, "SNMP Error");
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "SetStorageInfo: cannot find unit number for disk without label.\n"}));
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

TEST_F(CdromTest, StandsAtTwoPlacesPerBus) {
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

TEST_F(CdromTest, TakesTheBusOfTheLastControllerWithItsKey) {
    ide->Append(MakeController<Device::VirtualIDEController>(200, 3));
    EXPECT_EQ(Fill(Cdrom(200, 1, DeviceBacking("x"), true)).cdIdeIndex, 7);
}

TEST_F(CdromTest, StandsAtZeroOnAnUnknownController) {
    EXPECT_EQ(Fill(Cdrom(777, 1, DeviceBacking("x"), true)).cdIdeIndex, 0);
    EXPECT_THAT(log.Take(),
                ElementsAre(LogLine{4, "SetCdromInfo:  No IDE controller with key 777 exists\n"}));
}

TEST_F(CdromTest, StandsAtZeroWithoutAUnitNumber) {
    const auto cdrom = Cdrom(201, 0, DeviceBacking("x"), true);
    cdrom->SetUnitNumber(std::nullopt);
    EXPECT_EQ(Fill(cdrom).cdIdeIndex, 0);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "SetCdromInfo:  No unit number for cdrom.\n"}));
    // The unit number is looked at first.
    cdrom->SetControllerKey(std::nullopt);
    EXPECT_EQ(Fill(cdrom).cdIdeIndex, 0);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "SetCdromInfo:  No unit number for cdrom.\n"}));
}

TEST_F(CdromTest, StandsAtZeroWithoutAControllerKey) {
    const auto cdrom = Cdrom(201, 1, DeviceBacking("x"), true);
    cdrom->SetControllerKey(std::nullopt);
    EXPECT_EQ(Fill(cdrom).cdIdeIndex, 0);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "SetCdromInfo:  No controller key for cdrom.\n"}));
}

TEST_F(CdromTest, HasNoConnectionTextWithoutConnectionInfo) {
    const auto cdrom = Cdrom(201, 1, DeviceBacking("x"), true);
    cdrom->SetConnectable(nullptr);
    EXPECT_THAT(Fill(cdrom).cdConnected, IsNull());
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "SetCdromInfo:  No ConnectInfo found for cdrom 3\n"}));
}

TEST_F(CdromTest, IsOfUnknownBackingWithoutAName) {
    for (const Backing& backing : {Backing(nullptr), DeviceBacking(""), PipeBacking()}) {
        EXPECT_STREQ(Fill(Cdrom(200, 0, backing, true)).cdBacking, "unknown");
        EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "SetCdromInfo: Found cdrom of unknown backing.\n"}));
    }
    EXPECT_STREQ(Fill(Cdrom(200, 0, RemoteBacking(""), true)).cdBacking, "remote device backing");
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST_F(CdromTest, LogsItsTroublesInOrder) {
    const auto cdrom = MakeDevice<Device::VirtualCdrom>(3000, "CD");
    Fill(cdrom);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, "SetCdromInfo:  No unit number for cdrom.\n"},
                                        LogLine{4, "SetCdromInfo:  No ConnectInfo found for cdrom 0\n"},
                                        LogLine{4, "SetCdromInfo: Found cdrom of unknown backing.\n"}));
}

TEST_F(CdromTest, SurvivesAnAbsurdBus) {
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

// No memory for the second row of three: the first stays, the filler ends.

template <class Row, class Fill>
void ExpectOneRowAndMessage(LogCapture& log, Row** head, const char* message, Fill fill) {
    Row* last = nullptr;
    {
        FaultInjection faults;
        faults.FailCalloc(sizeof(Row), 2);
        last = fill();
    }
    EXPECT_EQ(last, *head);
    EXPECT_EQ(TestRows::List<Row>(*head).size(), 1U);
    EXPECT_THAT(log.Take(), ElementsAre(LogLine{4, message}));
}

TEST_F(ExtractionTest, EndsTheNetworkCardsWithoutMemory) {
    const auto nics = Array<Device::VirtualEthernetCard>({Nic(1, "a"), Nic(2, "b"), Nic(3, "c")});
    ExpectOneRowAndMessage(log, SNMPVMNetTable_GetPtr(), "SetNicInfo: Out of memory?\n",
                           [&] { return SetNicInfo(0, nics.Get(), SNMPVMNetTable_GetPtr()); });
}

TEST_F(ExtractionTest, EndsTheAdaptersWithoutMemory) {
    const auto controllers =
        Array<Device::VirtualSCSIController>({MakeController<Device::VirtualSCSIController>(1, 0),
                                              MakeController<Device::VirtualSCSIController>(2, 1),
                                              MakeController<Device::VirtualSCSIController>(3, 2)});
    ExpectOneRowAndMessage(log, SNMPVMHBATable_GetPtr(), "SetStorageInfo: HBANode: Out of memory?\n",
                           [&] { return SetStorageHBA(0, controllers.Get(), SNMPVMHBATable_GetPtr()); });
}

TEST_F(ExtractionTest, EndsTheDisksWithoutMemory) {
    const auto disks = Array<Device::VirtualDisk>({Disk("a", 0), Disk("b", 1), Disk("c", 2)});
    ExpectOneRowAndMessage(log, SNMPVMHBATgtTable_GetPtr(), "SetStorageInfo: HBATgt: Out of memory?\n",
                           [&] { return SetStorageTgt(0, disks.Get(), SNMPVMHBATgtTable_GetPtr()); });
}

TEST_F(CdromTest, EndWithoutMemory) {
    const auto cdroms = Array<Device::VirtualCdrom>({Cdrom(200, 0, DeviceBacking("x"), true),
                                                     Cdrom(200, 1, DeviceBacking("x"), true),
                                                     Cdrom(201, 0, DeviceBacking("x"), true)});
    ExpectOneRowAndMessage(log, SNMPVMCDROMTable_GetPtr(), "SetCdromInfo: Out of memory?\n", [&] {
        return SetCDRomInfo(0, ide.Get(), cdroms.Get(), SNMPVMCDROMTable_GetPtr());
    });
}

TEST_F(ExtractionTest, EndsTheFloppyDrivesWithoutMemory) {
    const auto floppies = Array<Device::VirtualFloppy>({Floppy(0, DeviceBacking("x"), true),
                                                        Floppy(1, DeviceBacking("x"), true),
                                                        Floppy(2, DeviceBacking("x"), true)});
    ExpectOneRowAndMessage(log, SNMPVMFloppyTable_GetPtr(), "SetFloppyInfo: Out of memory?\n",
                           [&] { return SetFloppyInfo(0, floppies.Get(), SNMPVMFloppyTable_GetPtr()); });
}

}  // namespace
