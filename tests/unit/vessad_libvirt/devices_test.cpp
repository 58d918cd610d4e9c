// The devices of a description: controllers, drives and network cards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

std::string Drive(const std::string& device, const std::string& target, const std::string& bus,
                  const std::string& address = "", const std::string& source = "",
                  const std::string& type = "file") {
    return "<disk type='" + type + "' device='" + device + "'>" + source + "<target dev='" + target +
           "' bus='" + bus + "'/>" + address + "</disk>";
}

std::string Disk(const std::string& target, const std::string& type, const std::string& source) {
    return Drive("disk", target, "virtio", "", source, type);
}

std::string At(int controller, int bus, int target, int unit) {
    return "<address type='drive' controller='" + std::to_string(controller) + "' bus='" +
           std::to_string(bus) + "' target='" + std::to_string(target) + "' unit='" + std::to_string(unit) +
           "'/>";
}

std::string Card(const std::string& elements, const std::string& type = "user") {
    return "<interface type='" + type + "'>" + elements + "</interface>";
}

std::string Mac(const std::string& address) {
    return "<mac address='" + address + "'/>";
}

std::string Pci(const std::string& bus, const std::string& slot) {
    return "<address type='pci' domain='0x0000' bus='" + bus + "' slot='" + slot + "' function='0x0'/>";
}

struct DeviceCase {
    const char* name;
    std::string xml;
    std::vector<std::string> lines;
    bool withControllers = false;
};

class DevicesTest : public testing::TestWithParam<DeviceCase> {};

TEST_P(DevicesTest, AreDescribed) {
    auto lines = DeviceLines(*Describer()(DomainXmlWith(GetParam().xml)).config);
    if (!GetParam().withControllers) {
        std::erase_if(lines,
                      [](const std::string& line) { return line.find("Controller ") < line.find('|'); });
    }
    EXPECT_THAT(lines, ElementsAreArray(GetParam().lines));
}

// Long lines are concatenated.
// NOLINTBEGIN(bugprone-suspicious-missing-comma)
INSTANTIATE_TEST_SUITE_P(
    OfDomains, DevicesTest,
    testing::Values(
        DeviceCase{"ScsiByModel",
                   "<controller type='scsi' index='0' model='lsilogic'/>"
                   "<controller type='scsi' index='1' model='buslogic'/>"
                   "<controller type='scsi' index='2' model='lsisas1078'/>"
                   "<controller type='scsi' index='3' model='virtio-scsi'/>"
                   "<controller type='scsi' index='4' model='am53c974'/>"
                   "<controller type='scsi' index='5'/><controller type='usb' index='0'/>",
                   {"VirtualLsiLogicController 1000 | SCSI controller 0 | lsilogic | bus 0",
                    "VirtualBusLogicController 1001 | SCSI controller 1 | buslogic | bus 1",
                    "VirtualLsiLogicSASController 1002 | SCSI controller 2 | lsisas1078 | bus 2",
                    "ParaVirtualSCSIController 1003 | SCSI controller 3 | virtio-scsi | bus 3",
                    "VirtualSCSIController 1004 | SCSI controller 4 | am53c974 | bus 4",
                    "VirtualSCSIController 1005 | SCSI controller 5 | SCSI | bus 5"},
                   true},
        DeviceCase{"IdeIsTwoBuses",
                   "<controller type='ide' index='0' model='piix3'/>",
                   {"VirtualIDEController 200 | IDE 0 | IDE | bus 0",
                    "VirtualIDEController 201 | IDE 1 | IDE | bus 1"},
                   true},
        DeviceCase{
            "NamedByADriveOnly",
            Drive("floppy", "fda", "fdc", At(0, 0, 0, 0)) + Drive("disk", "sdb", "sata", At(0, 0, 0, 0)) +
                Drive("cdrom", "hda", "ide", At(1, 1, 0, 0)) + Drive("disk", "sda", "scsi", At(3, 0, 0, 0)),
            {"VirtualSCSIController 1003 | SCSI controller 3 | SCSI | bus 3",
             "VirtualIDEController 202 | IDE 2 | IDE | bus 2",
             "VirtualIDEController 203 | IDE 3 | IDE | bus 3",
             "VirtualSATAController 15000 | SATA controller 0 | SATA | bus 0",
             "VirtualSIOController 400 | Floppy controller 0 | Floppy | bus 0",
             "VirtualFloppy 8000 | Floppy drive 1 |  | 400:0 | device no medium | disconnected",
             "VirtualDisk 2101 | Hard disk 1 (sdb) |  | 15000:0",
             "VirtualCdrom 3000 | CD/DVD drive 1 |  | 203:0 | device no medium | disconnected",
             "VirtualDisk 2100 | Hard disk 2 (sda) |  | 1003:0"},
            true},
        DeviceCase{
            "UnitsOnControllers",
            Drive("disk", "hdd", "ide", At(0, 1, 0, 1)) + Drive("disk", "sdc", "scsi", At(1, 0, 0, 7)) +
                Drive("lun", "sdd", "scsi", At(1, 0, 9, 0)) + Drive("disk", "sde", "scsi", At(1, 0, 2, 3)) +
                Drive("disk", "sdf", "sata", At(2, 0, 0, 4)),
            {"VirtualDisk 2003 | Hard disk 1 (hdd) |  | 201:1",
             "VirtualDisk 2102 | Hard disk 2 (sdc) |  | 1001:7",
             "VirtualDisk 2103 | Hard disk 3 (sdd) |  | 1001:9",
             "VirtualDisk 2104 | Hard disk 4 (sde) |  | 1001:32771",  // 2 × 16384 + 3
             "VirtualDisk 2105 | Hard disk 5 (sdf) |  | 15002:4"}},
        DeviceCase{"WithoutAControllerNumberedByTheirLetters",
                   Disk("vdc", "file", "") + Disk("vda", "file", "") + Disk("vdab", "file", "") +
                       Drive("disk", "xvdb", "xen"),
                   {"VirtualDisk 2202 | Hard disk 1 (vdc) |  | none:2",
                    "VirtualDisk 2200 | Hard disk 2 (vda) |  | none:0",
                    "VirtualDisk 2227 | Hard disk 3 (vdab) |  | none:27",
                    "VirtualDisk 2301 | Hard disk 4 (xvdb) |  | none:1"}},
        DeviceCase{
            "WithoutAControllerPastTheUnitsOfOthers",
            Disk("vda", "file", "") + Disk("vdb", "file", "") + Drive("disk", "hda", "ide", At(0, 0, 0, 0)),
            {"VirtualDisk 2200 | Hard disk 1 (vda) |  | none:1",
             "VirtualDisk 2201 | Hard disk 2 (vdb) |  | none:2",
             "VirtualDisk 2000 | Hard disk 3 (hda) |  | 200:0"}},
        DeviceCase{
            "WithOtherNamesNumberedInOrder",
            Disk("", "file", "") + Disk("v1", "file", "") + Disk("vdzzzzzzzzzzzz", "file", "") + "<disk/>",
            {"VirtualDisk 2000 | Hard disk 1 |  | none:0", "VirtualDisk 2001 | Hard disk 2 (v1) |  | none:1",
             "VirtualDisk 2200 | Hard disk 3 (vdzzzzzzzzzzzz) |  | none:2",
             "VirtualDisk 2002 | Hard disk 4 |  | none:3"}},
        DeviceCase{"RemovableMedia",
                   Drive("cdrom", "hdc", "ide", At(0, 1, 0, 0), "<source file='/pool/a.iso'/>") +
                       Drive("cdrom", "hdb", "ide", At(0, 0, 0, 1)) +
                       Drive("cdrom", "vda", "virtio", "", "<source dev='/dev/sr0'/>", "block") +
                       Drive("floppy", "fda", "fdc", At(0, 0, 0, 0), "<source file='/pool/boot.flp'/>") +
                       Drive("floppy", "fdb", "fdc", At(0, 0, 0, 1)),
                   {"VirtualCdrom 3002 | CD/DVD drive 1 | /pool/a.iso | 201:0 | Datastore pool:default "
                    "[default] a.iso | connected",
                    "VirtualCdrom 3001 | CD/DVD drive 2 |  | 200:1 | device no medium | disconnected",
                    "VirtualCdrom 3200 | CD/DVD drive 3 | /dev/sr0 | none:2 | device /dev/sr0 | connected",
                    "VirtualFloppy 8000 | Floppy drive 1 | /pool/boot.flp | 400:0 | Datastore pool:default "
                    "[default] boot.flp | connected",
                    "VirtualFloppy 8001 | Floppy drive 2 |  | 400:1 | device no medium | disconnected"}},
        DeviceCase{
            "Backings",
            Disk("vda", "file", "<source file='/pool/web/1.img'/>") +
                Disk("vdb", "file", "<source file='/nfs/3.img'/>") +
                Disk("vdc", "block", "<source dev='/dev/vg/web'/>") +
                Disk("vdd", "network", "<source protocol='rbd' name='images/web'/>") +
                Disk("vde", "volume", "<source pool='pool' volume='file'/>") +
                Disk("vdf", "nvme",
                     "<source type='pci' namespace='1'><address domain='0x0000' bus='0x01' slot='0x00' "
                     "function='0x0'/></source>") +
                Disk("vdg", "vhostuser", "<source type='unix' path='/run/spdk.sock'/>"),
            {"VirtualDisk 2200 | Hard disk 1 (vda) | /pool/web/1.img | none:0 | Datastore pool:default "
             "[default] web/1.img",
             "VirtualDisk 2201 | Hard disk 2 (vdb) | /nfs/3.img | none:1 | Datastore directory:/nfs "
             "[/nfs] 3.img",
             "VirtualDisk 2202 | Hard disk 3 (vdc) | /dev/vg/web | none:2 | device /dev/vg/web",
             "VirtualDisk 2203 | Hard disk 4 (vdd) | rbd:images/web | none:3 | device rbd:images/web",
             "VirtualDisk 2204 | Hard disk 5 (vde) | /pool/file.img | none:4 | Datastore pool:default "
             "[default] file.img",
             "VirtualDisk 2205 | Hard disk 6 (vdf) | nvme:0x0000:0x01:0x00.0x0/1 | none:5 | device "
             "nvme:0x0000:0x01:0x00.0x0/1",
             "VirtualDisk 2206 | Hard disk 7 (vdg) | /run/spdk.sock | none:6 | device /run/spdk.sock"}},
        DeviceCase{
            "ConnectionsAndModels",
            Card(Mac("52:54:00:00:00:01") +
                     "<source network='default' bridge='virbr0'/><model type='virtio'/>",
                 "network") +
                Card("<source bridge='br0'/><model type='e1000e'/>", "bridge") +
                Card("<source dev='eth0' mode='bridge'/><model type='pcnet'/>", "direct") +
                Card("<model type='rtl8139'/>") + Card("<target dev='tap7'/>", "ethernet") +
                Card("<source><address type='pci'/></source>", "hostdev") +
                Card("<source name='inside'/><link state='down'/>", "internal"),
            {"VirtualVirtioCard 16777217 | Network adapter 1 | default | MAC 52:54:00:00:00:01 | device "
             "default "
             "| connected",
             "VirtualE1000Card 4001 | Network adapter 2 | br0 | MAC  | device br0 | connected",
             "VirtualPCNetCard 4002 | Network adapter 3 | eth0 | MAC  | device eth0 | connected",
             "VirtualEthernetCard 4003 | Network adapter 4 | user | MAC  | device user | connected",
             "VirtualEthernetCard 4004 | Network adapter 5 | tap7 | MAC  | device tap7 | connected",
             "VirtualEthernetCard 4005 | Network adapter 6 | hostdev | MAC  | device hostdev | connected",
             "VirtualEthernetCard 4006 | Network adapter 7 | inside | MAC  | device inside | disconnected"}},
        // The slot of the cards would give them the key of the floppy drive.
        DeviceCase{"KeysThatAreTaken",
                   Drive("floppy", "fda", "virtio") + Card(Pci("0x0f", "0x14")) + Card(Pci("0x0f", "0x14")),
                   {"VirtualFloppy 8000 | Floppy drive 1 |  | none:0 | device no medium | disconnected",
                    "VirtualEthernetCard 8001 | Network adapter 1 | user | MAC  | device user | connected",
                    "VirtualEthernetCard 8002 | Network adapter 2 | user | MAC  | device user | connected"}}),
    [](const auto& info) { return info.param.name; });
// NOLINTEND(bugprone-suspicious-missing-comma)

std::vector<int> CardKeys(const std::string& devices) {
    std::vector<int> keys;
    for (const auto& card : Describer()(DomainXmlWith(devices)).cards) {
        keys.push_back(card.key);
    }
    return keys;
}

TEST(NetworkCards, KeepTheirKeysWhenAnotherIsDetached) {
    const std::string pci = Card(Pci("0x01", "0x00"));
    EXPECT_THAT(CardKeys(Card(Pci("0x00", "0x03")) + pci), ElementsAre(4024, 4256));
    EXPECT_THAT(CardKeys(pci), ElementsAre(4256));
    const std::string mac = Card(Mac("52:54:00:00:01:0a"));
    EXPECT_THAT(CardKeys(Card(Mac("52:54:00:ff:ff:ff")) + mac), ElementsAre(0x1ffffff, 0x100010a));
    EXPECT_THAT(CardKeys(mac), ElementsAre(0x100010a));
}

TEST(NetworkCards, HaveKeysByMacAddressOnOtherBusesAndByPositionWithoutOne) {
    const std::string ccw = "<address type='ccw' cssid='0xfe' ssid='0x0' devno='0x0001'/>";
    EXPECT_THAT(CardKeys(Card(Mac("52:54:00:00:00:02") + ccw)), ElementsAre(0x1000002));
    EXPECT_THAT(CardKeys(Card(Mac("52:54:00:00:00:g2")) + Card(Mac("52:54:00:-1:00:02")) +
                         Card(Mac("52:54")) + Card(Mac(""))),
                ElementsAre(4000, 4001, 4002, 4003));
}

TEST(NetworkCards, AreListedWithTheirDeviceOnTheHost) {
    const auto description = Describer()(DomainXmlWith(Card("<target dev='vnet0'/>") + Card("")));
    ASSERT_EQ(description.cards.size(), 2U);
    EXPECT_EQ(description.cards[0].device, "vnet0");
    EXPECT_EQ(description.cards[1].device, "");
}

TEST(Disks, AreListedWithTheInstanceOfTheirStatistics) {
    const auto description = Describer()(DomainXmlWith(
        Disk("vda", "file", "<source file='/pool/1.img'/>") +
        Disk("vdb", "file", "<source file='/var/2.img'/>") +
        Disk("vdc", "file", "<source file='/nfs/3.img'/>") +
        Disk("vdd", "volume", "<source pool='pool' volume='block'/>") + Disk("vde", "file", "") +
        Drive("cdrom", "hda", "ide", At(0, 0, 0, 0), "<source file='/pool/a.iso'/>")));
    std::vector<std::pair<std::string, std::string>> disks;
    for (const auto& disk : description.disks) {
        disks.emplace_back(disk.target, disk.name);
    }
    using testing::Pair;
    EXPECT_THAT(
        disks, ElementsAre(Pair("vda", "/dev/sda1"), Pair("vdb", "/dev/sda1"), Pair("vdd", "/dev/vg/block")));
    EXPECT_FALSE(description.provisional);
}

TEST(Disks, InAVolumeThatIsNotFoundMakeTheDescriptionProvisional) {
    const auto description =
        Describer()(DomainXmlWith(Disk("vda", "volume", "<source pool='gone' volume='1'/>")));
    EXPECT_TRUE(description.provisional);
    EXPECT_THAT(DeviceLines(*description.config),
                ElementsAre("VirtualDisk 2200 | Hard disk 1 (vda) | gone/1 | none:0 | device gone/1"));
}

TEST(Disks, HaveTheSharesOfTheirDeviceElseOfTheDomainElseTheKernelsDefault) {
    const std::string disks =
        Disk("vda", "block", "<source dev='/dev/a'/>") + Disk("vdb", "block", "<source dev='/dev/b'/>");
    const auto shares = [&](const std::string& tune) {
        std::vector<int> found;
        const auto description = Describer()(DomainXmlWith(disks, "<blkiotune>" + tune + "</blkiotune>"));
        for (const auto& device : *description.config->GetHardware()->GetDevice()) {
            found.push_back(
                Tessim::NarrowToType<Hask::Vm::Device::VirtualDisk>(device)->GetShares()->GetShares());
        }
        return found;
    };
    EXPECT_THAT(shares(""), ElementsAre(100, 100));
    EXPECT_THAT(shares("<weight>800</weight><device><path>/dev/b</path><weight>300</weight></device>"),
                ElementsAre(800, 300));
}

TEST(Datastores, HaveTheDeviceOfTheirFileSystemAndTheirDirectory) {
    const auto description = Describer()(DomainXmlWith(Disk("vda", "file", "<source file='/pool/1.img'/>") +
                                                       Disk("vdb", "file", "<source file='/pool/2.img'/>") +
                                                       Disk("vdc", "file", "<source file='/3.img'/>") +
                                                       Disk("vdd", "file", "<source file='/nfs/4.img'/>")));
    const auto& datastores = description.datastores;
    EXPECT_EQ(datastores.size(), 3U);
    EXPECT_TRUE(datastores.contains("directory:/"));
    const auto* local =
        Tessim::NarrowToType<Hask::Host::DrellDatastoreInfo>(datastores.at("pool:default").Get());
    ASSERT_NE(local, nullptr);
    EXPECT_EQ(local->GetName(), "default");
    EXPECT_EQ((*local->GetDrell()->GetExtent())[0]->GetDiskName(), "/dev/sda1");
    EXPECT_EQ(datastores.at("directory:/nfs")->GetDataObjectType(), Ordane::GetType<Hask::Datastore::Info>());
    std::vector<std::string> urls;
    for (const auto& pair : *description.config->GetDatastoreUrl()) {
        urls.push_back(pair->GetName() + " " + pair->GetUrl());
    }
    EXPECT_THAT(urls, ElementsAre("/ /", "/nfs /nfs/", "default /pool/"));
}

}  // namespace
}  // namespace Vessad::Libvirt
