// The backend on libvirt's own test driver, which runs in this process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/vessad/backends/LibvirtBackend.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad {
namespace {

using namespace Libvirt;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using testing::UnorderedElementsAre;

// Returns the inventory of a host file with these elements, beside its CPUs and memory.
std::shared_ptr<const Inventory> Read(const std::string& elements) {
    const VessadTest::TemporaryDirectory directory;
    const VessadTest::LogLines log;
    const auto file = directory.GetPath() / "host.xml";
    VessadTest::WriteAll(file,
                         "<node xmlns:test='http://libvirt.org/schemas/domain/test/1.0'>" + elements +
                             "<cpu><mhz>3000</mhz><model>x86_64</model><active>12</active><nodes>1</nodes>"
                             "<sockets>1</sockets><cores>6</cores><threads>2</threads></cpu>"
                             "<memory>8388608</memory></node>");
    return MakeLibvirtBackend("test://" + file.string(), directory.GetPath() / "state", {})->GetInventory();
}

// A domain of the host file; `digit` ends its name and UUID.
std::string HostFileDomain(char digit, const std::string& elements, const std::string& devices = "") {
    return std::string("<domain type='test'><name>vm-") + digit +
           "</name><uuid>00000000-0000-4000-8000-00000000000" + digit +
           "</uuid><memory unit='KiB'>524288</memory><vcpu>2</vcpu><os><type arch='x86_64'>hvm</type></os>" +
           elements + "<devices>" + devices + "</devices></domain>";
}

TEST(TestDriver, HasItsHostAndADomainWithItsDevicesAndStatistics) {
    const auto inventory = Read(
        HostFileDomain('1', "<cputune><shares>4096</shares></cputune>", R"(
<controller type='scsi' index='0' model='lsilogic'/>
<disk type='file' device='disk'><source file='/images/1.img'/><target dev='sda' bus='scsi'/></disk>
<disk type='block' device='disk'><source dev='/dev/vg/two'/><target dev='vda' bus='virtio'/></disk>
<disk type='volume' device='disk'><source pool='images' volume='web.img'/><target dev='vdb' bus='virtio'/></disk>
<disk type='volume' device='disk'><source pool='images' volume='missing'/><target dev='vdc' bus='virtio'/></disk>
<disk type='file' device='cdrom'><target dev='hdc' bus='ide'/></disk>
<disk type='file' device='floppy'><source file='/images/b.flp'/><target dev='fda' bus='fdc'/></disk>
<interface type='bridge'><mac address='52:54:00:00:00:01'/><source bridge='br0'/></interface>
<memballoon model='virtio'/>)") +
        R"(<pool type='dir'><name>images</name><target><path>/kelv/images</path></target><volume type='file'>
<name>web.img</name><capacity>1048576</capacity><target><path>/kelv/images/web.img</path></target></volume></pool>)");
    EXPECT_THAT(
        HostLine(*inventory),
        MatchesRegex("TEST 0.0.2, libvirt [0-9.]+, 6 cores, 8589934592 bytes, 0 reserved, 10 counters"));
    EXPECT_THAT(VmLines(*inventory), ElementsAre(StartsWith("1000 vm-1 poweredOn running ")));
    const auto& vm = *inventory->vms.at(0);
    EXPECT_EQ(ConfigLine(*vm.config),
              "vm-1 | 2 CPUs, 4096 shares | 512 MB, 512 shares | hvm (x86_64) | no file");
    EXPECT_THAT(
        DeviceLines(*vm.config),
        UnorderedElementsAre(StartsWith("LsiLogicController "), StartsWith("IDEController "),
                             StartsWith("IDEController "), StartsWith("SIOController "), StartsWith("Disk "),
                             HasSubstr(" | device /dev/vg/two"), HasSubstr(" | pool:images [images] web.img"),
                             HasSubstr(" | device images/missing"), StartsWith("Cdrom "),
                             StartsWith("Floppy "), StartsWith("EthernetCard ")));
    for (const char* const name : {"cpu.used 0=", "cpu.used 1=", "mem.active =",
                                   "disk.numberRead /dev/vg/two=", "disk.write /dev/vg/two="}) {
        EXPECT_THAT(SeriesText(vm.series), ContainsRegex(name + std::string("[1-9]")));
    }
}

TEST(TestDriver, HasSharesFromItsSchedulerAndShutOffAndPausedDomains) {
    const auto state = [](const std::string& number) {
        return "<test:runstate xmlns:test='http://libvirt.org/schemas/domain/test/1.0'>" + number +
               "</test:runstate>";
    };
    const auto inventory = Read(HostFileDomain('1', state("5")) + HostFileDomain('2', state("3")));
    EXPECT_THAT(VmLines(*inventory), UnorderedElementsAre(EndsWith("vm-1 poweredOff notRunning"),
                                                          HasSubstr("vm-2 suspended notRunning cpu.used")));
    EXPECT_EQ(inventory->vms.at(0)->config->GetCpuAllocation()->GetShares()->GetShares(), 50);
}

}  // namespace
}  // namespace Vessad
