// The backend on libvirt's own test driver, which runs in this process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/vessad/backends/LibvirtBackend.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad {
namespace {

using Libvirt::DeviceLines;
using testing::ElementsAre;
using testing::HasSubstr;
using PowerState = Hask::VirtualMachine::PowerState;

// A domain of the test driver's host file; `digit` ends its name and UUID.
std::string HostFileDomain(char digit, const std::string& elements = "", const std::string& devices = "") {
    return std::string("<domain type='test'><name>vm-") + digit +
           "</name><uuid>00000000-0000-4000-8000-00000000000" + digit +
           "</uuid><memory unit='KiB'>524288</memory><vcpu>2</vcpu><os><type arch='x86_64'>hvm</type></os>" +
           elements + "<devices>" + devices + "</devices></domain>";
}

class TestDriver : public testing::Test {
  protected:
    std::shared_ptr<const Inventory> Read(const std::string& domains) {
        const auto file = directory.GetPath() / "host.xml";
        VessadTest::WriteAll(
            file, "<node xmlns:test='http://libvirt.org/schemas/domain/test/1.0'>" + domains +
                      "<cpu><mhz>3000</mhz><model>x86_64</model><active>12</active><nodes>1</nodes>"
                      "<sockets>1</sockets><cores>6</cores><threads>2</threads></cpu>"
                      "<memory>8388608</memory></node>");
        return MakeLibvirtBackend("test://" + file.string(), directory.GetPath() / "state")->GetInventory();
    }

    VessadTest::TemporaryDirectory directory;
    VessadTest::LogLines log;
};

TEST_F(TestDriver, HasItsHostAndADomainWithItsDevices) {
    const auto inventory = Read(HostFileDomain(
        '1', "<cputune><shares>4096</shares></cputune>",
        "<controller type='scsi' index='0' model='lsilogic'/>"
        "<disk type='file' device='disk'><source file='/images/1.img'/><target dev='sda' bus='scsi'/></disk>"
        "<disk type='block' device='disk'><source dev='/dev/vg/two'/><target dev='vda' bus='virtio'/></disk>"
        "<disk type='file' device='cdrom'><target dev='hdc' bus='ide'/></disk>"
        "<disk type='file' device='floppy'><source file='/images/b.flp'/><target dev='fda' bus='fdc'/></disk>"
        "<interface type='bridge'><mac address='52:54:00:00:00:01'/><source bridge='br0'/></interface>"));
    EXPECT_EQ(inventory->about->GetName(), "TEST");
    EXPECT_EQ(inventory->about->GetVersion(), "0.0.2");
    EXPECT_EQ(inventory->hardware->GetCpuInfo()->GetNumCpuCores(), 6);
    EXPECT_EQ(inventory->serviceConsole->GetUnreserved(), 8388608LL * 1024);
    ASSERT_EQ(inventory->vms.size(), 1U);
    const Vm& vm = *inventory->vms[0];
    EXPECT_EQ(vm.id, "1000");
    EXPECT_EQ(vm.config->GetName(), "vm-1");
    EXPECT_EQ(vm.config->GetGuestFullName(), "hvm (x86_64)");
    EXPECT_EQ(vm.config->GetCpuAllocation()->GetShares()->GetShares(), 4096);
    EXPECT_EQ(vm.runtime->GetPowerState(), PowerState::poweredOn);
    EXPECT_EQ(vm.guest->GetGuestState(), "running");
    std::vector<std::string> types;
    for (const std::string& line : DeviceLines(*vm.config)) {
        types.push_back(line.substr(0, line.find(' ')));
    }
    std::sort(types.begin(), types.end());
    EXPECT_THAT(types, ElementsAre("VirtualCdrom", "VirtualDisk", "VirtualDisk", "VirtualEthernetCard",
                                   "VirtualFloppy", "VirtualIDEController", "VirtualIDEController",
                                   "VirtualLsiLogicController", "VirtualSIOController"));
}

TEST_F(TestDriver, HasStatisticsFromItsOlderCallsAndSharesFromItsScheduler) {
    const auto inventory =
        Read(HostFileDomain('1', "",
                            "<disk type='block' device='disk'><source dev='/dev/vg/two'/><target "
                            "dev='vda'/></disk><memballoon model='virtio'/>"));
    EXPECT_EQ(inventory->vms.at(0)->config->GetCpuAllocation()->GetShares()->GetShares(), 50);
    std::map<std::string, std::int64_t> values;
    for (const Series& series : inventory->vms.at(0)->series) {
        for (const auto& counter : inventory->counters) {
            if (counter->GetKey() == series.counterKey) {
                values[counter->GetGroupInfo()->GetKey() + "." + counter->GetNameInfo()->GetKey() + " " +
                       series.instance] = series.start;
            }
        }
    }
    for (const char* const name : {"cpu.used 0", "cpu.used 1", "mem.active ", "disk.numberRead /dev/vg/two",
                                   "disk.write /dev/vg/two"}) {
        EXPECT_GT(values[name], 0) << name;
    }
}

TEST_F(TestDriver, FindsTheVolumesOfItsPools) {
    const auto volume = [](const std::string& name, const std::string& target) {
        return "<disk type='volume' device='disk'><source pool='images' volume='" + name +
               "'/><target dev='" + target + "' bus='virtio'/></disk>";
    };
    const auto inventory =
        Read(HostFileDomain('1', "", volume("web.img", "vda") + volume("missing", "vdb")) +
             "<pool type='dir'><name>images</name><target><path>/kelv/images</path></target>"
             "<volume type='file'><name>web.img</name><capacity>1048576</capacity>"
             "<target><path>/kelv/images/web.img</path></target></volume></pool>");
    EXPECT_THAT(
        DeviceLines(*inventory->vms.at(0)->config),
        ElementsAre(HasSubstr("Datastore pool:images [images] web.img"), HasSubstr("device images/missing")));
}

TEST_F(TestDriver, HasStates) {
    const auto state = [](const std::string& number) {
        return "<test:runstate xmlns:test='http://libvirt.org/schemas/domain/test/1.0'>" + number +
               "</test:runstate>";
    };
    const auto inventory = Read(HostFileDomain('1', state("5")) + HostFileDomain('2', state("3")));
    ASSERT_EQ(inventory->vms.size(), 2U);
    for (const auto& vm : inventory->vms) {
        const bool off = vm->config->GetName() == "vm-1";
        EXPECT_EQ(vm->runtime->GetPowerState(), off ? PowerState::poweredOff : PowerState::suspended);
        EXPECT_EQ(vm->series.empty(), off);
    }
}

TEST(LibvirtUri, ThatCannotWorkIsRefusedWithTheReason) {
    const VessadTest::TemporaryDirectory directory;
    const VessadTest::LogLines log;
    for (const std::string uri : {"nonsense", ":::", "bad uri", "test:///does/not/exist.xml"}) {
        try {
            MakeLibvirtBackend(uri, directory.GetPath());
            ADD_FAILURE() << uri << " is accepted";
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), HasSubstr("the libvirt URI " + uri + " cannot be used: "));
        }
    }
    EXPECT_THROW(MakeLibvirtBackend("", directory.GetPath()), std::runtime_error);
}

TEST(LibvirtUri, OfAHostThatIsDownYieldsAnInventoryWithoutVms) {
    const VessadTest::TemporaryDirectory directory;
    const VessadTest::LogLines log;
    const auto backend =
        MakeLibvirtBackend("qemu+unix:///system?socket=" + (directory.GetPath() / "none").string(),
                           directory.GetPath() / "state");
    EXPECT_TRUE(backend->GetInventory()->vms.empty());
    EXPECT_THAT(log.GetText(),
                HasSubstr("warning The host's libvirt cannot be reached: Failed to connect socket"));
}

}  // namespace
}  // namespace Vessad
