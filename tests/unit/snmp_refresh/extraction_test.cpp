#include <algorithm>
#include <ostream>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/refresh/ResourceExtraction.h"
#include "apps/snmp/refresh/VMExtraction.h"
#include "tests/support/fault_injection.h"
#include "tests/unit/snmp_refresh/fixture.h"
#include "tests/unit/snmp_refresh/rows.h"

namespace RefreshTests {
namespace {

namespace Device = Hask::Vm::Device;

// A VM that is off and has nothing but these devices.
std::string OffVm(const std::string& id, const std::string& devices) {
    return "  - {id: '" + id +
           "', runtime: {powerState: poweredOff}, config: {name: '', guestFullName: '', " +
           "hardware: {numCPU: 0, memoryMB: 0, device: [" + devices + "]}}}\n";
}

// A VM that is on, with these members of its hardware and these statistics.
std::string OnVm(const std::string& id, const std::string& hardware, const std::string& stats = "") {
    return "  - {id: '" + id + "', runtime: {powerState: poweredOn}, config: {name: '', guestFullName: '', " +
           "hardware: {" + hardware + "}}, stats: {" + stats + "}}\n";
}

// A VM that is on and has nothing but these devices.
std::string DeviceVm(const std::string& id, const std::string& devices, const std::string& stats = "") {
    return OnVm(id, "numCPU: 0, memoryMB: 0, device: [" + devices + "]", "mem.active: {'': 0}, " + stats);
}

// The rows and the log that a rebuild makes of the VMs.
struct ExtractionCase {
    const char* name;
    std::string vms;        // a list in the format of described hosts
    std::string (*text)();  // of the tables that the case is about
    std::string rows;
    std::string log = "\n";  // see TakeLog

    friend std::ostream& operator<<(std::ostream& stream, const ExtractionCase& each) {
        return stream << each.name;
    }
};

class FillerTest : public ClientTest {
  protected:
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

class ExtractionTest : public FillerTest, public testing::WithParamInterface<ExtractionCase> {};

TEST_P(ExtractionTest, MakesTheRowsAndLogsWhatIsMissing) {
    Rebuild(GetParam().vms);
    EXPECT_EQ('\n' + GetParam().text(), GetParam().rows);
    EXPECT_EQ(TakeLog(), GetParam().log);
}

const ExtractionCase vmCases[] = {
    {"IdsOfVms",
     OffVm("16", "") + OffVm("-7", "") + OffVm("2147483647", "") + OffVm("vm-16", "") + OffVm("16x", "") +
         OffVm("2147483648", ""),
     TestRows::VmText, R"(
vm 0 "" "Unknown config: 16" "" 0 "poweredOff" 16 "unknown"
vm 1 "" "Unknown config: -7" "" 0 "poweredOff" -7 "unknown"
vm 2 "" "Unknown config: 2147483647" "" 0 "poweredOff" 2147483647 "unknown"
vm 3 "" "Unknown config: vm-16" "" 0 "poweredOff" -1 "unknown"
vm 4 "" "Unknown config: 16x" "" 0 "poweredOff" -1 "unknown"
vm 5 "" "Unknown config: 2147483648" "" 0 "poweredOff" -1 "unknown"
)",
     R"(
SetVMInfo: invalid VM Id: vm-16
SetVMInfo: invalid VM Id: 16x
SetVMInfo: invalid VM Id: 2147483648
)"},
    {"WholeAndIncompleteVms", R"(
  - id: "1"
    config:
      name: web-1
      guestFullName: Guest of web-1
      files: {vmPathName: "[storage1] web-1/web-1.cfg"}
      datastoreUrl: [{name: storage1, url: /volumes/4a5b/}]
      hardware: {numCPU: 0, memoryMB: 512}
    runtime: {powerState: poweredOn}
    guest: {guestState: running}
    stats: {mem.active: {"": 0}}
  - {id: "2", config: {name: no path, guestFullName: "", files: {}}, runtime: {powerState: poweredOff}}
  - {id: "3", config: {name: no files, guestFullName: ""}, runtime: {powerState: suspended}}
  - {id: "4", config: {name: "", guestFullName: ""}}
)",
     TestRows::VmText, R"(
vm 0 "web-1" "/volumes/4a5b/web-1/web-1.cfg" "Guest of web-1" 512 "poweredOn" 1 "running"
vm 1 "no path" "Unknown config: 2" "" 0 "poweredOff" 2 "unknown"
vm 2 "no files" "Unknown config: 3" "" 0 "suspended" 3 "unknown"
vm 3 "" "Unknown config: 4" "" 0 "unknown" 4 "unknown"
)"},
    {"VmsThatAreOffOrOfUnknownStateHaveNoResources",
     OnVm("1", "numCPU: 1, memoryMB: 1") + OffVm("2", "") + R"(
  - {id: "3", config: {name: "", guestFullName: ""}, runtime: {powerState: suspended}}
  - {id: "4", config: {name: "", guestFullName: ""}}
)",
     TestRows::ResourceText, R"(
cpu 1 0 -0.00100000005
memory 1 0 1024 -1
memory 3 0 0 -1
)"},
};
INSTANTIATE_TEST_SUITE_P(Vms, ExtractionTest, testing::ValuesIn(vmCases),
                         [](const auto& info) { return std::string(info.param.name); });

const ExtractionCase deviceCases[] = {
    {"DevicesOfEveryKindAmongOthers", OffVm("1", R"(
        {type: VirtualFloppy, key: 1, unitNumber: 0, connectable: {connected: true},
         backing: {type: DeviceBackingInfo, deviceName: f}},
        {type: VirtualEthernetCard, key: 2, backing: {type: DeviceBackingInfo, deviceName: n1}},
        {type: VirtualKeyboard, key: 3},
        {type: VirtualDisk, key: 4, unitNumber: 4},
        {type: VirtualLsiLogicController, key: 5, busNumber: 5},
        {type: VirtualE1000Card, key: 6, backing: {type: DeviceBackingInfo, deviceName: n2}},
        {type: VirtualIDEController, key: 7, busNumber: 7},
        {type: VirtualPCIController, key: 8, busNumber: 8},
        {type: VirtualCdrom, key: 9, controllerKey: 7, unitNumber: 0, connectable: {connected: true},
         backing: {type: DeviceBackingInfo, deviceName: c}},
        {type: ParaVirtualSCSIController, key: 10, busNumber: 10},
        {type: VirtualPCNetCard, key: 11, backing: {type: DeviceBackingInfo, deviceName: n3}},
        {key: 12},
        {type: VirtualSCSIController, key: 13, busNumber: 13},
        {type: VirtualSIOController, key: 14, busNumber: 14},
        {type: VirtualUSBController, key: 15, busNumber: 15},
        {type: VirtualVideoCard, key: 16},
        {type: VirtualController, key: 17, busNumber: 17},
        {type: VirtualSATAController, key: 18, busNumber: 18},
        {type: VirtualDisk, key: 19, unitNumber: 19})"),
     TestRows::DeviceText, R"(
nic 0 0 "SNMP Error" "n1" "monitor_dev"
nic 0 1 "SNMP Error" "n2" "monitor_dev"
nic 0 2 "SNMP Error" "n3" "monitor_dev"
hba 0 5 "SNMP Error" "lsilogic"
hba 0 10 "SNMP Error" "unknown"
hba 0 13 "SNMP Error" "unknown"
target 0 4 "SNMP Error"
target 0 19 "SNMP Error"
floppy 0 0 "f" "true"
cdrom 0 14 "c" "true"
)"},
    {"NoDevices", OffVm("1", "") + "  - {id: '2', config: {name: '', guestFullName: ''}}\n",
     TestRows::DeviceText, "\n"},
    {"NetworkCardsAroundAVmWithoutDevices",
     OffVm("1", R"({type: VirtualEthernetCard, key: 4000, deviceInfo: {label: Adapter 1, summary: ""},
                    backing: {type: DeviceBackingInfo, deviceName: VM Network}},
                   {type: VirtualEthernetCard, key: 4001, deviceInfo: {label: Adapter 2, summary: ""},
                    backing: {type: DeviceBackingInfo, deviceName: Other}})") +
         OffVm("2", "") +
         OffVm("3", R"({type: VirtualEthernetCard, key: 1, deviceInfo: {label: none, summary: ""}},
                       {type: VirtualEthernetCard, key: 2, deviceInfo: {label: file, summary: ""},
                        backing: {type: FileBackingInfo, fileName: x}},
                       {type: VirtualEthernetCard, key: 3, deviceInfo: {label: remote, summary: ""},
                        backing: {type: RemoteDeviceBackingInfo, deviceName: x}})"),
     TestRows::DeviceText, R"(
nic 0 0 "Adapter 1" "VM Network" "monitor_dev"
nic 0 1 "Adapter 2" "Other" "monitor_dev"
nic 2 0 "none" "unknown" "monitor_dev"
nic 2 1 "file" "unknown" "monitor_dev"
nic 2 2 "remote" "unknown" "monitor_dev"
)",
     R"(
SetNicInfo: Null device backing.
SetNicInfo: Null device backing.
SetNicInfo: Null device backing.
)"},
    {"ModelsOfAdapters", OffVm("1", R"(
        {type: VirtualLsiLogicController, key: 1000, busNumber: 0, deviceInfo: {label: A, summary: ""}},
        {type: VirtualBusLogicController, key: 1001, busNumber: 4, deviceInfo: {label: B, summary: ""}},
        {type: VirtualLsiLogicSASController, key: 1002, busNumber: 2, deviceInfo: {label: C, summary: ""}},
        {type: ParaVirtualSCSIController, key: 1003, busNumber: 3, deviceInfo: {label: D, summary: ""}},
        {type: VirtualSCSIController, key: 1004, busNumber: 7})"),
     TestRows::DeviceText, R"(
hba 0 0 "A" "lsilogic"
hba 0 4 "B" "buslogic"
hba 0 2 "C" "unknown"
hba 0 3 "D" "unknown"
hba 0 7 "SNMP Error" "unknown"
)"},
    {"TargetsWithoutUnitNumberOrLabel", OffVm("1", R"(
        {type: VirtualDisk, key: 2000, deviceInfo: {label: Hard Disk 1, summary: ""}, unitNumber: 0},
        {type: VirtualDisk, key: 2001, deviceInfo: {label: Hard Disk 2, summary: ""}, unitNumber: 6},
        {type: VirtualDisk, key: 2002, deviceInfo: {label: Hard Disk 3, summary: ""}},
        {type: VirtualDisk, key: 1})"),
     TestRows::DeviceText, R"(
target 0 0 "Hard Disk 1"
target 0 6 "Hard Disk 2"
target 0 0 "Hard Disk 3"
target 0 0 "SNMP Error"
)",
     R"(
SetStorageInfo: cannot find unit number for disk Hard Disk 3.
SetStorageInfo: cannot find unit number for disk without label.
)"},
    {"FloppyDrives", OffVm("1", R"(
        {type: VirtualFloppy, key: 1, unitNumber: 0, connectable: {connected: false},
         backing: {type: FileBackingInfo, fileName: "[s] boot.flp"}},
        {type: VirtualFloppy, key: 2, unitNumber: 1, connectable: {connected: true},
         backing: {type: RemoteDeviceBackingInfo, deviceName: console}},
        {type: VirtualFloppy, key: 3})"),
     TestRows::DeviceText, R"(
floppy 0 0 "[s] boot.flp" "false"
floppy 0 1 "console" "true"
floppy 0 0 "unknown" null
)",
     R"(
SetFloppyInfo: No unit number for floppy.
SetFloppyInfo:  Null ConnectInfo for floppy.
SetCdromInfo: Found floppy of unknown backing.
)"},
    {"PlacesOfCdromDrives", OffVm("1", R"(
        {type: VirtualIDEController, key: 200, busNumber: 0},
        {type: VirtualIDEController, key: 201, busNumber: 1},
        {type: VirtualIDEController, key: 202, busNumber: 2},
        {type: VirtualIDEController, key: 202, busNumber: 3},
        {type: VirtualCdrom, key: 1, controllerKey: 200, unitNumber: 1, connectable: {connected: true},
         backing: {type: FileBackingInfo, fileName: "[s] a.iso"}},
        {type: VirtualCdrom, key: 2, controllerKey: 201, unitNumber: 0, connectable: {connected: false},
         backing: {type: DeviceBackingInfo, deviceName: /dev/cdrom}},
        {type: VirtualCdrom, key: 3, controllerKey: 201, unitNumber: 1, connectable: {connected: true},
         backing: {type: RemoteDeviceBackingInfo, deviceName: console}},
        {type: VirtualCdrom, key: 4, controllerKey: 202, unitNumber: 1, connectable: {connected: true},
         backing: {type: DeviceBackingInfo, deviceName: last controller with its key}},
        {type: VirtualCdrom, key: 5, controllerKey: 777, unitNumber: 1, connectable: {connected: true},
         backing: {type: DeviceBackingInfo, deviceName: unknown controller}},
        {type: VirtualCdrom, key: 6, controllerKey: 201, connectable: {connected: true},
         backing: {type: DeviceBackingInfo, deviceName: no unit number}},
        {type: VirtualCdrom, key: 7, connectable: {connected: true},
         backing: {type: DeviceBackingInfo, deviceName: neither unit number nor controller}},
        {type: VirtualCdrom, key: 8, unitNumber: 1, connectable: {connected: true},
         backing: {type: DeviceBackingInfo, deviceName: no controller key}})"),
     TestRows::DeviceText, R"(
cdrom 0 1 "[s] a.iso" "true"
cdrom 0 2 "/dev/cdrom" "false"
cdrom 0 3 "console" "true"
cdrom 0 7 "last controller with its key" "true"
cdrom 0 0 "unknown controller" "true"
cdrom 0 0 "no unit number" "true"
cdrom 0 0 "neither unit number nor controller" "true"
cdrom 0 0 "no controller key" "true"
)",
     R"(
SetCdromInfo:  No IDE controller with key 777 exists
SetCdromInfo:  No unit number for cdrom.
SetCdromInfo:  No unit number for cdrom.
SetCdromInfo:  No controller key for cdrom.
)"},
    {"IncompleteCdromDrives", OffVm("1", R"(
        {type: VirtualIDEController, key: 200, busNumber: 0},
        {type: VirtualCdrom, key: 10, controllerKey: 200, unitNumber: 10,
         backing: {type: DeviceBackingInfo, deviceName: no ConnectInfo}},
        {type: VirtualCdrom, key: 11, controllerKey: 200, unitNumber: 11, connectable: {connected: true}},
        {type: VirtualCdrom, key: 12, controllerKey: 200, unitNumber: 12, connectable: {connected: true},
         backing: {type: DeviceBackingInfo, deviceName: ""}},
        {type: VirtualCdrom, key: 13, controllerKey: 200, unitNumber: 13, connectable: {connected: true},
         backing: {type: PipeBackingInfo, pipeName: ""}},
        {type: VirtualCdrom, key: 14, controllerKey: 200, unitNumber: 14, connectable: {connected: true},
         backing: {type: RemoteDeviceBackingInfo, deviceName: ""}},
        {type: VirtualCdrom, key: 15, controllerKey: 200})"),
     TestRows::DeviceText, R"(
cdrom 0 10 "no ConnectInfo" null
cdrom 0 11 "unknown" "true"
cdrom 0 12 "unknown" "true"
cdrom 0 13 "unknown" "true"
cdrom 0 14 "remote device backing" "true"
cdrom 0 0 "unknown" null
)",
     R"(
SetCdromInfo:  No ConnectInfo found for cdrom 10
SetCdromInfo: Found cdrom of unknown backing.
SetCdromInfo: Found cdrom of unknown backing.
SetCdromInfo: Found cdrom of unknown backing.
SetCdromInfo:  No unit number for cdrom.
SetCdromInfo:  No ConnectInfo found for cdrom 0
SetCdromInfo: Found cdrom of unknown backing.
)"},
    {"CdromDriveWhosePlaceOverflows", OffVm("1", R"(
        {type: VirtualIDEController, key: 300, busNumber: 2147483647},
        {type: VirtualCdrom, key: 1, controllerKey: 300, unitNumber: 2147483647,
         connectable: {connected: true}, backing: {type: DeviceBackingInfo, deviceName: x}})"),
     TestRows::DeviceText, R"(
cdrom 0 2147483645 "x" "true"
)"},
};
INSTANTIATE_TEST_SUITE_P(Devices, ExtractionTest, testing::ValuesIn(deviceCases),
                         [](const auto& info) { return std::string(info.param.name); });

const ExtractionCase resourceCases[] = {
    {"CpusAndMemory", R"(
  - id: "16"
    runtime: {powerState: poweredOn}
    config:
      name: ""
      guestFullName: ""
      cpuAllocation: {shares: {shares: 2000}}
      memoryAllocation: {shares: {shares: 5120}}
      hardware: {numCPU: 4, memoryMB: 512}
    stats: {cpu.used: {"": 1, "0": 181000, "1": 90500, "2": 35, "3": 0}, mem.active: {"": 131072}}
)",
     TestRows::ResourceText, R"(
cpu 16 2000 181
cpu 17 0 90.5
cpu 18 0 0.0350000001
cpu 19 0 0
memory 16 5120 524288 131072
)"},
    {"AllocationsWithoutShares", R"(
  - id: "16"
    runtime: {powerState: poweredOn}
    config: {name: "", guestFullName: "", cpuAllocation: {}, memoryAllocation: {},
             hardware: {numCPU: 1, memoryMB: 0}}
)",
     TestRows::ResourceText, R"(
cpu 16 0 -0.00100000005
memory 16 0 0 -1
)"},
    // As a float the time is 1080715904 milliseconds.
    {"CpuTimeIsRoundedToAFloatBeforeTheDivision",
     OnVm("16", "numCPU: 1, memoryMB: 0", "cpu.used: {'0': 1080715965}"), TestRows::ResourceText, R"(
cpu 16 0 1080715.88
memory 16 0 0 -1
)"},
    {"VmsWithoutCpusBetweenOthers",
     OnVm("10", "numCPU: 1, memoryMB: 0") + OnVm("20", "numCPU: 0, memoryMB: 0") +
         OnVm("30", "numCPU: -1, memoryMB: 0") + OnVm("40", "numCPU: 1, memoryMB: 0"),
     TestRows::ResourceText, R"(
cpu 10 0 -0.00100000005
cpu 40 0 -0.00100000005
memory 10 0 0 -1
memory 20 0 0 -1
memory 30 0 0 -1
memory 40 0 0 -1
)"},
    {"KeysOfCpusCollideAndWrap",
     OnVm("16", "numCPU: 2, memoryMB: 0") + OnVm("17", "numCPU: 2, memoryMB: 0") +
         OnVm("vm-x", "numCPU: 2, memoryMB: 0") + OnVm("2147483647", "numCPU: 2, memoryMB: 0"),
     TestRows::ResourceText, R"(
cpu 16 0 -0.00100000005
cpu 17 0 -0.00100000005
cpu 17 0 -0.00100000005
cpu 18 0 -0.00100000005
cpu -1 0 -0.00100000005
cpu 0 0 -0.00100000005
cpu 2147483647 0 -0.00100000005
cpu -2147483648 0 -0.00100000005
memory 16 0 0 -1
memory 17 0 0 -1
memory -1 0 0 -1
memory 2147483647 0 0 -1
)",
     "\nSetVMInfo: invalid VM Id: vm-x\n"},
    {"MemoryStatisticOfAnyInstanceAndKilobytesOf32Bits",
     OnVm("1", "numCPU: 0, memoryMB: 2097152", "mem.active: {odd: 5, '': 6}") +
         OnVm("2", "numCPU: 0, memoryMB: 3000000") + OnVm("3", "numCPU: 0, memoryMB: 4194305"),
     TestRows::ResourceText, R"(
memory 1 0 -2147483648 5
memory 2 0 -1222967296 -1
memory 3 0 1024 -1
)"},
    {"DisksByTheirBacking",
     DeviceVm("16", R"(
        {type: VirtualDisk, key: 1, unitNumber: 0, deviceInfo: {label: A, summary: ""}, shares: {shares: 1000},
         backing: {type: DeviceBackingInfo, deviceName: raw-7}},
        {type: VirtualDisk, key: 2, unitNumber: 1, deviceInfo: {label: B, summary: ""},
         backing: {type: FileBackingInfo, fileName: "", datastore: drell}},
        {type: VirtualDisk, key: 3, unitNumber: 2, deviceInfo: {label: C, summary: ""}, shares: {shares: 3},
         backing: {type: FileBackingInfo, fileName: "", datastore: mute}},
        {type: VirtualDisk, key: 4, unitNumber: 3, deviceInfo: {label: D, summary: ""}, shares: {shares: 4},
         backing: {type: FileBackingInfo, fileName: ""}},
        {type: VirtualDisk, key: 5, unitNumber: 5, shares: {shares: 5},
         backing: {type: RemoteDeviceBackingInfo, deviceName: remote}},
        {type: VirtualDisk, key: 6, unitNumber: 6, shares: {shares: 6}},
        {type: VirtualDisk, key: 7, unitNumber: 7, shares: {shares: 7},
         backing: {type: FileBackingInfo, fileName: "", datastore: no volume}},
        {type: VirtualDisk, key: 8, unitNumber: 8, shares: {shares: 8},
         backing: {type: FileBackingInfo, fileName: "", datastore: no extent}})",
              R"(disk.numberRead: {raw-7: 101, "disk-0:0": 201},
                                        disk.numberWrite: {raw-7: 102}, disk.read: {raw-7: 103},
                                        disk.write: {raw-7: 104})"),
     TestRows::ResourceText, R"(
memory 16 0 0 0
disk 1 "raw-7" 16 1000 101 103 102 104
disk 2 "disk-0:0" 16 0 201 -1 -1 -1
disk 3 "unknown" 16 3 -1 -1 -1 -1
disk 4 "unknown" 16 4 -1 -1 -1 -1
disk 5 "unknown" 16 5 -1 -1 -1 -1
disk 6 "unknown" 16 6 -1 -1 -1 -1
disk 7 "unknown" 16 7 -1 -1 -1 -1
disk 8 "unknown" 16 8 -1 -1 -1 -1
)",
     R"(
SetDiskResource: no datastore info for C.
SetDiskResource: no datastore info for D.
SetDiskResource: found vdisk of unknown backing.
SetDiskResource: found vdisk of unknown backing.
)"},
    {"DisksOfAVmWithoutDrellThenOfTwoWithIt",
     DeviceVm("16", R"(
        {type: VirtualDisk, key: 1, unitNumber: 0, deviceInfo: {label: Hard Disk 0, summary: ""},
         backing: {type: FileBackingInfo, fileName: "", datastore: plain}})") +
         DeviceVm("32", R"(
        {type: VirtualDisk, key: 1, unitNumber: 0, deviceInfo: {label: Hard Disk 1, summary: ""},
         backing: {type: FileBackingInfo, fileName: "", datastore: drell}},
        {type: VirtualDisk, key: 2, unitNumber: 1, deviceInfo: {label: Hard Disk 2, summary: ""},
         backing: {type: FileBackingInfo, fileName: "", datastore: plain}})") +
         DeviceVm("48", R"(
        {type: VirtualDisk, key: 1, unitNumber: 0, backing: {type: DeviceBackingInfo, deviceName: raw-1}},
        {type: VirtualDisk, key: 2, unitNumber: 1, backing: {type: DeviceBackingInfo, deviceName: raw-2}})"),
     TestRows::ResourceText, R"(
memory 16 0 0 0
memory 32 0 0 0
memory 48 0 0 0
disk 1 "disk-0:0" 32 0 -1 -1 -1 -1
disk 2 "raw-1" 48 0 -1 -1 -1 -1
disk 3 "raw-2" 48 0 -1 -1 -1 -1
)",
     R"(
6 SetDiskResource: skipped disk not backed by drell Hard Disk 0.
6 SetDiskResource: skipped disk not backed by drell Hard Disk 2.
)"},
    {"LabelsOfDisksOnOneLineOfTheLog", DeviceVm("16", R"(
        {type: VirtualDisk, key: 1, unitNumber: 0,
         backing: {type: FileBackingInfo, fileName: "", datastore: plain}},
        {type: VirtualDisk, key: 2, unitNumber: 1,
         backing: {type: FileBackingInfo, fileName: "", datastore: mute}},
        {type: VirtualDisk, key: 3, unitNumber: 2, deviceInfo: {label: "A\nB", summary: ""},
         backing: {type: FileBackingInfo, fileName: "", datastore: plain}},
        {type: VirtualDisk, key: 4, unitNumber: 3, deviceInfo: {label: "C\nD", summary: ""},
         backing: {type: FileBackingInfo, fileName: "", datastore: mute}})"),
     TestRows::ResourceText, R"(
memory 16 0 0 0
disk 1 "unknown" 16 0 -1 -1 -1 -1
disk 2 "unknown" 16 0 -1 -1 -1 -1
)",
     R"(
6 SetDiskResource: skipped disk not backed by drell disk without label.
SetDiskResource: no datastore info for disk without label.
6 SetDiskResource: skipped disk not backed by drell A\x0aB.
SetDiskResource: no datastore info for C\x0aD.
)"},
    {"DiskOfAnUnknownDatastore", DeviceVm("16", R"(
        {type: VirtualDisk, key: 1, unitNumber: 0, deviceInfo: {label: E, summary: ""},
         backing: {type: FileBackingInfo, fileName: "", datastore: nowhere}})"),
     TestRows::ResourceText, R"(
memory 16 0 0 0
disk 1 "unknown" 16 0 -1 -1 -1 -1
)",
     R"(
OrdaneClient::GetDatastoreInfo: :no Datastore nowhere
SetDiskResource: no datastore info for E.
)"},
    {"NetworkCards",
     DeviceVm("16", R"(
        {type: VirtualEthernetCard, key: 4000, deviceInfo: {label: "", summary: Card 1},
         backing: {type: DeviceBackingInfo, deviceName: ""}, macAddress: "00:16:3e:00:00:01"},
        {type: VirtualEthernetCard, key: 4001, deviceInfo: {label: "", summary: Card 2},
         backing: {type: DeviceBackingInfo, deviceName: ""}, macAddress: "00:16:3e:00:00:02"},
        {type: VirtualEthernetCard, key: 4002, backing: {type: DeviceBackingInfo, deviceName: ""}})",
              R"(net.received: {"4000": 105}, net.transmitted: {"4000": 106},
                                 net.packetsTx: {"4000": 12884901895, "4001": 207, "4002": 9},
                                 net.packetsRx: {"4000": 108})"),
     TestRows::ResourceText, R"(
memory 16 0 0 0
card 1 "Card 1" 16 "00:16:3e:00:00:01" 0 7 106 108 105 12884901895 106 108 105
card 2 "Card 2" 16 "00:16:3e:00:00:02" 0 207 -1 -1 -1 207 18446744073709551615 18446744073709551615 18446744073709551615
card 3 "unknown" 16 "SNMP Error" 0 9 -1 -1 -1 9 18446744073709551615 18446744073709551615 18446744073709551615
)"},
};
INSTANTIATE_TEST_SUITE_P(Resources, ExtractionTest, testing::ValuesIn(resourceCases),
                         [](const auto& info) { return std::string(info.param.name); });

// GetPathFromDsPath.

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
    const std::pair<const char*, const char*> cases[] = {{"[storage1] vm/vm.cfg", "/volumes/4a5b/vm/vm.cfg"},
                                                         {"[noslash] vm/vm.cfg", "/volumes/4a5bvm/vm.cfg"},
                                                         {"[ storage1 ]  vm.cfg  ", "/volumes/4a5b/vm.cfg"},
                                                         {"[storage1]vm.cfg", "/volumes/4a5b/vm.cfg"},
                                                         {"[two words] a b.cfg", "/volumes/tw/a b.cfg"},
                                                         {"[storage1]", "/volumes/4a5b/"},
                                                         {"[storage1] [x] y.cfg", "/volumes/4a5b/[x] y.cfg"},
                                                         {"before [storage1] vm.cfg", "/volumes/4a5b/vm.cfg"},
                                                         {"] [storage1] vm.cfg", "/volumes/4a5b/vm.cfg"},
                                                         {"[] vm.cfg", "vm.cfg"},
                                                         {"[  ] vm.cfg ", "vm.cfg"},
                                                         {"vm/vm.cfg", "vm/vm.cfg"},
                                                         {"storage1] vm.cfg", "storage1] vm.cfg"},
                                                         {"[storage1 vm.cfg", "[storage1 vm.cfg"},
                                                         {"] x [storage1 vm.cfg", "] x [storage1 vm.cfg"},
                                                         {"[Storage1] vm.cfg", "[Storage1] vm.cfg"},
                                                         {"[storage2]  vm.cfg ", "[storage2]  vm.cfg "},
                                                         {" plain ", " plain "},
                                                         {"", ""}};
    for (const auto& [dsPath, expected] : cases) {
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
    SetStorageHBA(0, controllers.Get(), SNMPVMHBATable_GetPtr());
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
        resCPUNode* const last =
            SetCPUResource(client.Get(), (*vms)[0], config.Get(), SNMPResCPUTable_GetPtr());
        log.Take();
        EXPECT_EQ(TestRows::Cpus().size(), static_cast<std::size_t>(std::min(cpus, most))) << cpus;
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
        SetDiskResource(client.Get(), (*vms)[0], disks.Get(), SNMPResDiskTable_GetPtr());
    }
    EXPECT_EQ(TestRows::ResourceText(), "disk 1 null 16 1000 -1 -1 -1 -1\n");
    SNMPResDiskTable_Destroy();
}

// The scalars.

TEST_F(FillerTest, ReadsTheCoresFromTheProcessWideClient) {
    SetCores(host, 40000);
    EXPECT_EQ(GetNumCpu(), 40000 - 65536);
}

TEST_F(FillerTest, HasNeitherCoresNorMemoryWithoutAClient) {
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

TEST_F(FillerTest, NarrowsTheMemoryReservationTo32Bits) {
    SetMemory(host, (std::int64_t{1} << 32) + 2048, (std::int64_t{1} << 42) - (std::int64_t{1} << 32) + 2048);
    long reserved = -5;
    long total = -5;
    GetMemory(&reserved, &total);
    EXPECT_EQ(reserved, 2048);  // bytes
    EXPECT_EQ(total, 4);        // kilobytes
    GetMemory(&reserved, &total);
    EXPECT_EQ(reserved, (1 << 22) + 2);
    EXPECT_EQ(total, 4);
}

TEST_F(FillerTest, KeepsTheSignOfANarrowedReservation) {
    SetMemory(host, std::int64_t{1} << 31, 0);
    long reserved = 0;
    long total = 0;
    GetMemory(&reserved, &total);
    EXPECT_EQ(reserved, INT32_MIN);
    EXPECT_EQ(total, 1 << 21);
}

TEST(MemoryDeathTest, NeedsBothPointers) {
    long value = 0;
    EXPECT_DEATH(GetMemory(nullptr, &value), "assertion failed: reserved && total");
    EXPECT_DEATH(GetMemory(&value, nullptr), "assertion failed: reserved && total");
}

}  // namespace
}  // namespace RefreshTests
