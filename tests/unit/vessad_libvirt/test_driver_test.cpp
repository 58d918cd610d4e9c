// The backend on libvirt's own test driver, which runs within the process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "apps/vessad/backends/LibvirtBackend.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/wait_for.h"

namespace Vessad {
namespace {

using testing::HasSubstr;
using namespace Hask::Vm::Device;

// A domain of the test driver's host file; `number` makes its name, UUID and MAC address.
std::string HostFileDomain(int number, const std::string& elements = "", const std::string& devices = "") {
    std::ostringstream text;
    text << "<domain type='test'><name>vm-" << number << "</name><uuid>00000000-0000-4000-8000-" << std::hex;
    text.width(12);
    text.fill('0');
    text << number << std::dec << "</uuid><memory unit='KiB'>524288</memory><vcpu>2</vcpu>"
         << "<os><type arch='x86_64'>hvm</type></os>" << elements << "<devices>" << devices
         << "</devices></domain>";
    return text.str();
}

class TestDriver : public testing::Test {
  protected:
    std::unique_ptr<Backend> Open(const std::string& domains) {
        const auto file = directory.GetPath() / "host.xml";
        VessadTest::WriteAll(
            file, "<node xmlns:test='http://libvirt.org/schemas/domain/test/1.0'>" + domains +
                      "<cpu><mhz>3000</mhz><model>x86_64</model><active>12</active><nodes>1</nodes>"
                      "<sockets>1</sockets><cores>6</cores><threads>2</threads></cpu>"
                      "<memory>8388608</memory></node>");
        return MakeLibvirtBackend("test://" + file.string(), directory.GetPath() / "state");
    }

    VessadTest::TemporaryDirectory directory;
    VessadTest::LogLines log;
};

TEST_F(TestDriver, ShowsItsHost) {
    const auto backend = Open(HostFileDomain(1));
    const auto inventory = backend->GetInventory();
    EXPECT_EQ(inventory->about->GetName(), "TEST");
    EXPECT_EQ(inventory->about->GetVersion(), "0.0.2");
    EXPECT_EQ(inventory->hardware->GetCpuInfo()->GetNumCpuCores(), 6);
    EXPECT_EQ(inventory->serviceConsole->GetUnreserved(), 8388608LL * 1024);
}

TEST_F(TestDriver, ShowsADomainWithItsDevices) {
    const auto backend = Open(HostFileDomain(
        1, "<cputune><shares>4096</shares></cputune>",
        "<controller type='scsi' index='0' model='lsilogic'/>"
        "<disk type='file' device='disk'><source file='/images/1.img'/><target dev='sda' bus='scsi'/></disk>"
        "<disk type='block' device='disk'><source dev='/dev/vg/two'/><target dev='vda' bus='virtio'/></disk>"
        "<disk type='file' device='cdrom'><target dev='hdc' bus='ide'/></disk>"
        "<disk type='file' device='floppy'><source file='/images/boot.flp'/><target dev='fda' "
        "bus='fdc'/></disk>"
        "<interface type='bridge'><mac address='52:54:00:00:00:01'/><source bridge='br0'/></interface>"));
    const auto inventory = backend->GetInventory();
    ASSERT_EQ(inventory->vms.size(), 1U);
    const Vm& machine = *inventory->vms[0];
    EXPECT_EQ(machine.id, "1000");
    EXPECT_EQ(machine.config->GetName(), "vm-1");
    EXPECT_EQ(machine.config->GetGuestFullName(), "hvm (x86_64)");
    EXPECT_EQ(machine.config->GetCpuAllocation()->GetShares()->GetShares(), 4096);
    EXPECT_EQ(machine.runtime->GetPowerState(), Hask::VirtualMachine::PowerState::poweredOn);
    EXPECT_EQ(machine.guest->GetGuestState(), "running");

    int scsi = 0;
    int ide = 0;
    int disks = 0;
    int cdroms = 0;
    int floppies = 0;
    int cards = 0;
    for (const auto& device : *machine.config->GetHardware()->GetDevice()) {
        scsi += Tessim::NarrowToType<VirtualLsiLogicController>(device) != nullptr ? 1 : 0;
        ide += Tessim::NarrowToType<VirtualIDEController>(device) != nullptr ? 1 : 0;
        disks += Tessim::NarrowToType<VirtualDisk>(device) != nullptr ? 1 : 0;
        cdroms += Tessim::NarrowToType<VirtualCdrom>(device) != nullptr ? 1 : 0;
        floppies += Tessim::NarrowToType<VirtualFloppy>(device) != nullptr ? 1 : 0;
        cards += Tessim::NarrowToType<VirtualEthernetCard>(device) != nullptr ? 1 : 0;
    }
    EXPECT_EQ(scsi, 1);
    EXPECT_EQ(ide, 2);
    EXPECT_EQ(disks, 2);
    EXPECT_EQ(cdroms, 1);
    EXPECT_EQ(floppies, 1);
    EXPECT_EQ(cards, 1);
}

TEST_F(TestDriver, TellsFiguresThroughItsOlderCalls) {
    const auto backend =
        Open(HostFileDomain(1, "",
                            "<disk type='block' device='disk'><source dev='/dev/vg/two'/><target "
                            "dev='vda'/></disk><memballoon model='virtio'/>"));
    const auto inventory = backend->GetInventory();
    std::map<std::pair<int, std::string>, std::int64_t> figures;
    for (const Series& series : inventory->vms.at(0)->series) {
        figures[{series.counterKey, series.instance}] = series.start;
    }
    std::map<std::string, int> keys;
    for (const auto& counter : inventory->counters) {
        keys[counter->GetGroupInfo()->GetKey() + "." + counter->GetNameInfo()->GetKey()] = counter->GetKey();
    }
    EXPECT_GT((figures[{keys["cpu.used"], "0"}]), 0);
    EXPECT_GT((figures[{keys["cpu.used"], "1"}]), 0);
    EXPECT_GT((figures[{keys["mem.active"], ""}]), 0);
    EXPECT_GT((figures[{keys["disk.numberRead"], "/dev/vg/two"}]), 0);
    EXPECT_GT((figures[{keys["disk.write"], "/dev/vg/two"}]), 0);
}

TEST_F(TestDriver, TellsTheSchedulersWeightAsShares) {
    const auto backend = Open(HostFileDomain(1));
    EXPECT_EQ(backend->GetInventory()->vms.at(0)->config->GetCpuAllocation()->GetShares()->GetShares(), 50);
}

TEST_F(TestDriver, FindsTheVolumesOfItsPools) {
    const auto backend = Open(
        HostFileDomain(1, "",
                       "<disk type='volume' device='disk'><source pool='images' volume='web.img'/><target "
                       "dev='vda' bus='virtio'/></disk>"
                       "<disk type='volume' device='disk'><source pool='images' volume='missing'/><target "
                       "dev='vdb' bus='virtio'/></disk>") +
        "<pool type='dir'><name>images</name><target><path>/kelv/images</path></target>"
        "<volume type='file'><name>web.img</name><capacity>1048576</capacity>"
        "<target><path>/kelv/images/web.img</path></target></volume></pool>");
    const auto inventory = backend->GetInventory();
    std::vector<const VirtualDevice*> disks;
    for (const auto& device : *inventory->vms.at(0)->config->GetHardware()->GetDevice()) {
        if (const auto* disk = Tessim::NarrowToType<VirtualDisk>(device)) {
            disks.push_back(disk);
        }
    }
    ASSERT_EQ(disks.size(), 2U);
    const auto* file = Tessim::NarrowToType<VirtualDevice::FileBackingInfo>(disks[0]->GetBacking());
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->GetFileName(), "[images] web.img");
    const auto* device = Tessim::NarrowToType<VirtualDevice::DeviceBackingInfo>(disks[1]->GetBacking());
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->GetDeviceName(), "images/missing");
}

TEST_F(TestDriver, ShowsStates) {
    const auto backend =
        Open(HostFileDomain(1,
                            "<test:runstate xmlns:test='http://libvirt.org/schemas/domain/test/1.0'>"
                            "5</test:runstate>") +
             HostFileDomain(2,
                            "<test:runstate xmlns:test='http://libvirt.org/schemas/domain/test/1.0'>"
                            "3</test:runstate>"));
    const auto inventory = backend->GetInventory();
    ASSERT_EQ(inventory->vms.size(), 2U);
    std::map<std::string, std::shared_ptr<const Vm>> byName;
    for (const auto& machine : inventory->vms) {
        byName[machine->config->GetName()] = machine;
    }
    EXPECT_EQ(byName.at("vm-1")->runtime->GetPowerState(), Hask::VirtualMachine::PowerState::poweredOff);
    EXPECT_TRUE(byName.at("vm-1")->series.empty());
    EXPECT_EQ(byName.at("vm-2")->runtime->GetPowerState(), Hask::VirtualMachine::PowerState::suspended);
    EXPECT_FALSE(byName.at("vm-2")->series.empty());
}

TEST_F(TestDriver, ShowsAThousandDomainsOnceEach) {
    std::string domains;
    for (int number = 1; number <= 1000; ++number) {
        domains += HostFileDomain(number);
    }
    const auto backend = Open(domains);
    // A slow machine has not read them all when the backend is made.
    ASSERT_TRUE(Libvirt::WaitFor([&] { return !backend->GetInventory()->vms.empty(); }));
    const auto inventory = backend->GetInventory();
    std::set<std::string> names;
    for (const auto& machine : inventory->vms) {
        names.insert(machine->config->GetName());
    }
    EXPECT_EQ(names.size(), 1000U);
    EXPECT_EQ(inventory->vmsById.size(), 1000U);
}

TEST_F(TestDriver, KeepsTheNumbersOfMachinesOverARestart) {
    std::map<std::string, std::string> before;
    {
        const auto backend = Open(HostFileDomain(2) + HostFileDomain(1));
        for (const auto& machine : backend->GetInventory()->vms) {
            before[machine->config->GetName()] = machine->id;
        }
    }
    const auto backend = Open(HostFileDomain(3) + HostFileDomain(1) + HostFileDomain(2));
    const auto inventory = backend->GetInventory();
    ASSERT_EQ(inventory->vms.size(), 3U);
    for (const auto& machine : inventory->vms) {
        if (const auto found = before.find(machine->config->GetName()); found != before.end()) {
            EXPECT_EQ(machine->id, found->second);
        } else {
            EXPECT_EQ(machine->id, "3000");
        }
    }
}

TEST_F(TestDriver, RefusesAHostFileThatIsNotThere) {
    EXPECT_THROW(MakeLibvirtBackend("test:///does/not/exist.xml", directory.GetPath()), std::runtime_error);
}

TEST(LibvirtUri, ThatCannotWorkIsRefusedWithTheReason) {
    const VessadTest::TemporaryDirectory directory;
    const VessadTest::LogLines log;
    for (const std::string& uri : {std::string("nonsense"), std::string(":::"), std::string("bad uri")}) {
        try {
            MakeLibvirtBackend(uri, directory.GetPath());
            ADD_FAILURE() << uri << " is accepted";
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), HasSubstr("the libvirt URI " + uri + " cannot be used: "));
        }
    }
    EXPECT_THROW(MakeLibvirtBackend("", directory.GetPath()), std::runtime_error);
}

TEST(LibvirtUri, OfAHostThatIsDownGivesAnEmptyInventory) {
    const VessadTest::TemporaryDirectory directory;
    const VessadTest::LogLines log;
    const auto backend =
        MakeLibvirtBackend("qemu+unix:///system?socket=" + (directory.GetPath() / "none").string(),
                           directory.GetPath() / "state");
    EXPECT_TRUE(backend->GetInventory()->vms.empty());
    EXPECT_THAT(log.GetText(),
                HasSubstr("warning The host's libvirt cannot be reached: Failed to connect socket"));
}

TEST(LibvirtStateDirectory, ThatCannotBeMadeIsRefused) {
    const VessadTest::TemporaryDirectory directory;
    VessadTest::WriteAll(directory.GetPath() / "file", "");
    EXPECT_THROW(MakeLibvirtBackend("test:///default", directory.GetPath() / "file"), std::runtime_error);
}

}  // namespace
}  // namespace Vessad
