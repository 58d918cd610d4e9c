// The devices of a description: controllers, drives and network cards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

using testing::ElementsAre;

// `address`: "CONTROLLER:BUS:TARGET:UNIT", of one digit each.
std::string Drive(const std::string& device, const std::string& target, const std::string& bus,
                  const std::string& address = "", const std::string& source = "",
                  const std::string& type = "file") {
    const std::string place = address.empty() ? ""
                                              : std::string("<address type='drive' controller='") +
                                                    address[0] + "' bus='" + address[2] + "' target='" +
                                                    address[4] + "' unit='" + address[6] + "'/>";
    return "<disk type='" + type + "' device='" + device + "'>" + source + "<target dev='" + target +
           "' bus='" + bus + "'/>" + place + "</disk>";
}

std::string Disk(const std::string& target, const std::string& type, const std::string& source) {
    return Drive("disk", target, "virtio", "", source, type);
}

std::string File(const std::string& target, const std::string& path) {
    return Disk(target, "file", "<source file='" + path + "'/>");
}

std::string Block(const std::string& target, const std::string& path) {
    return Disk(target, "block", "<source dev='" + path + "'/>");
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

std::vector<std::string> Devices(const std::string& xml) {
    return DeviceLines(*Describer()(DomainXmlWith(xml)).config);
}

std::vector<std::string> DevicesBesideControllers(const std::string& xml) {
    auto lines = Devices(xml);
    std::erase_if(lines, [](const std::string& line) { return line.find("Controller ") < line.find('|'); });
    return lines;
}

TEST(Controllers, HaveTheTypeOfTheirModel) {
    EXPECT_THAT(
        Devices("<controller type='scsi' index='0' model='lsilogic'/>"
                "<controller type='scsi' index='1' model='buslogic'/>"
                "<controller type='scsi' index='2' model='lsisas1078'/>"
                "<controller type='scsi' index='3' model='virtio-scsi'/>"
                "<controller type='scsi' index='4' model='am53c974'/>"
                "<controller type='scsi' index='5'/><controller type='usb' index='0'/>"
                "<controller type='ide' index='0' model='piix3'/>"),
        ElementsAre("LsiLogicController 1000 | SCSI controller 0 | lsilogic | bus 0",
                    "BusLogicController 1001 | SCSI controller 1 | buslogic | bus 1",
                    "LsiLogicSASController 1002 | SCSI controller 2 | lsisas1078 | bus 2",
                    "ParaVirtualSCSIController 1003 | SCSI controller 3 | virtio-scsi | bus 3",
                    "SCSIController 1004 | SCSI controller 4 | am53c974 | bus 4",
                    "SCSIController 1005 | SCSI controller 5 | SCSI | bus 5",
                    "IDEController 200 | IDE 0 | IDE | bus 0", "IDEController 201 | IDE 1 | IDE | bus 1"));
}

TEST(Controllers, ThatOnlyADriveNamesAreAdded) {
    EXPECT_THAT(
        Devices(Drive("floppy", "fda", "fdc", "0:0:0:0") + Drive("disk", "sdb", "sata", "0:0:0:0") +
                Drive("cdrom", "hda", "ide", "1:1:0:0") + Drive("disk", "sda", "scsi", "3:0:0:0")),
        ElementsAre("SCSIController 1003 | SCSI controller 3 | SCSI | bus 3",
                    "IDEController 202 | IDE 2 | IDE | bus 2", "IDEController 203 | IDE 3 | IDE | bus 3",
                    "SATAController 15000 | SATA controller 0 | SATA | bus 0",
                    "SIOController 400 | Floppy controller 0 | Floppy | bus 0",
                    "Floppy 8000 | Floppy drive 1 |  | 400:0 | device no medium | disconnected",
                    "Disk 2101 | Hard disk 1 (sdb) |  | 15000:0",
                    "Cdrom 3000 | CD/DVD drive 1 |  | 203:0 | device no medium | disconnected",
                    "Disk 2100 | Hard disk 2 (sda) |  | 1003:0"));
}

TEST(Drives, HaveTheirUnitOnTheirController) {
    EXPECT_THAT(
        DevicesBesideControllers(
            Drive("disk", "hdd", "ide", "0:1:0:1") + Drive("disk", "sdc", "scsi", "1:0:0:7") +
            Drive("lun", "sdd", "scsi", "1:0:9:0") + Drive("disk", "sde", "scsi", "1:0:2:3") +
            Drive("disk", "sdf", "sata", "2:0:0:4")),
        ElementsAre("Disk 2003 | Hard disk 1 (hdd) |  | 201:1", "Disk 2102 | Hard disk 2 (sdc) |  | 1001:7",
                    "Disk 2103 | Hard disk 3 (sdd) |  | 1001:9",
                    "Disk 2104 | Hard disk 4 (sde) |  | 1001:32771",  // 2 × 16384 + 3
                    "Disk 2105 | Hard disk 5 (sdf) |  | 15002:4"));
}

TEST(Drives, WithoutAControllerAreNumberedByTheirLettersPastTheUnitsOfOthers) {
    EXPECT_THAT(
        DevicesBesideControllers(Disk("vdc", "file", "") + Disk("vda", "file", "") +
                                 Disk("vdab", "file", "") + Drive("disk", "xvdb", "xen")),
        ElementsAre("Disk 2202 | Hard disk 1 (vdc) |  | none:2", "Disk 2200 | Hard disk 2 (vda) |  | none:0",
                    "Disk 2227 | Hard disk 3 (vdab) |  | none:27",
                    "Disk 2301 | Hard disk 4 (xvdb) |  | none:1"));
    EXPECT_THAT(
        DevicesBesideControllers(Disk("vda", "file", "") + Disk("vdb", "file", "") +
                                 Drive("disk", "hda", "ide", "0:0:0:0")),
        ElementsAre("Disk 2200 | Hard disk 1 (vda) |  | none:1", "Disk 2201 | Hard disk 2 (vdb) |  | none:2",
                    "Disk 2000 | Hard disk 3 (hda) |  | 200:0"));
}

TEST(Drives, WithOtherNamesAreNumberedInOrder) {
    EXPECT_THAT(Devices(Disk("", "file", "") + Disk("v1", "file", "") + Disk("vdzzzzzzzzzzzz", "file", "") +
                        "<disk/>"),
                ElementsAre("Disk 2000 | Hard disk 1 |  | none:0", "Disk 2001 | Hard disk 2 (v1) |  | none:1",
                            "Disk 2200 | Hard disk 3 (vdzzzzzzzzzzzz) |  | none:2",
                            "Disk 2002 | Hard disk 4 |  | none:3"));
}

TEST(Drives, HaveRemovableMedia) {
    EXPECT_THAT(
        DevicesBesideControllers(Drive("cdrom", "hdc", "ide", "0:1:0:0", "<source file='/pool/a.iso'/>") +
                                 Drive("cdrom", "hdb", "ide", "0:0:0:1") +
                                 Drive("cdrom", "vda", "virtio", "", "<source dev='/dev/sr0'/>", "block") +
                                 Drive("floppy", "fda", "fdc", "0:0:0:0", "<source file='/pool/boot.flp'/>") +
                                 Drive("floppy", "fdb", "fdc", "0:0:0:1")),
        ElementsAre(
            "Cdrom 3002 | CD/DVD drive 1 | /pool/a.iso | 201:0 | pool:default [default] a.iso | connected",
            "Cdrom 3001 | CD/DVD drive 2 |  | 200:1 | device no medium | disconnected",
            "Cdrom 3200 | CD/DVD drive 3 | /dev/sr0 | 600:0 | device /dev/sr0 | connected",
            "Floppy 8000 | Floppy drive 1 | /pool/boot.flp | 400:0 | pool:default [default] boot.flp | "
            "connected",
            "Floppy 8001 | Floppy drive 2 |  | 400:1 | device no medium | disconnected"));
}

// Returns "KEY INDEX" of each CD-ROM drive, with the index that the agent works out.
std::vector<std::string> CdromIndexes(const std::string& devices) {
    const auto description = Describer()(DomainXmlWith(devices));
    std::map<int, int> buses;
    std::vector<std::string> indexes;
    for (const auto& device : *description.config->GetHardware()->GetDevice()) {
        if (const auto* ide = Tessim::NarrowToType<Hask::Vm::Device::VirtualIDEController>(device)) {
            buses[ide->GetKey()] = ide->GetBusNumber();
        }
    }
    for (const auto& device : *description.config->GetHardware()->GetDevice()) {
        if (Tessim::NarrowToType<Hask::Vm::Device::VirtualCdrom>(device) != nullptr) {
            const int index = buses.at(*device->GetControllerKey()) * 2 + *device->GetUnitNumber();
            indexes.push_back(std::to_string(device->GetKey()) + " " + std::to_string(index));
        }
    }
    return indexes;
}

TEST(CdromDrives, HaveAnIndexOfTheirOwnOnEveryBus) {
    const std::string ide = Drive("cdrom", "hda", "ide", "0:0:0:0") + Drive("cdrom", "hdd", "ide", "0:1:0:1");
    const std::string last = Drive("cdrom", "sdc", "usb");
    EXPECT_THAT(CdromIndexes(ide + Drive("cdrom", "sda", "sata", "0:0:0:0") +
                             Drive("cdrom", "sdb", "scsi", "0:0:0:0") + last +
                             Drive("cdrom", "hdc", "sata", "0:0:0:2") + Drive("cdrom", "vda", "virtio") +
                             Drive("cdrom", "xvda", "xen")),
                ElementsAre("3000 0", "3003 3", "3100 200", "3101 201", "3102 202", "3002 102", "3200 300",
                            "3300 400"));
    EXPECT_THAT(CdromIndexes(last + ide), ElementsAre("3102 202", "3000 0", "3003 3"))
        << "kept when others go";
    EXPECT_THAT(CdromIndexes(last + last), ElementsAre("3102 202", "3103 203"));
    EXPECT_THAT(Devices(Drive("cdrom", "sdb", "sata", "0:0:0:1") + Drive("cdrom", "sda", "sata", "0:0:0:0")),
                ElementsAre("SATAController 15000 | SATA controller 0 | SATA | bus 0",
                            "Cdrom 3101 | CD/DVD drive 1 |  | 550:1 | device no medium | disconnected",
                            "IDEController 550 | IDE 100 | CD/DVD drives of other buses | bus 100",
                            "Cdrom 3100 | CD/DVD drive 2 |  | 550:0 | device no medium | disconnected"));
}

TEST(Disks, HaveTheirBackings) {
    EXPECT_THAT(
        Devices(File("vda", "/pool/web/1.img") + File("vdb", "/nfs/3.img") + Block("vdc", "/dev/vg/web") +
                Disk("vdd", "network", "<source protocol='rbd' name='images/web'/>") +
                Disk("vde", "volume", "<source pool='pool' volume='file'/>") +
                Disk("vdf", "nvme", "<source type='pci' namespace='1'>" + Pci("0x01", "0x00") + "</source>") +
                Disk("vdg", "vhostuser", "<source type='unix' path='/run/spdk.sock'/>")),
        ElementsAre(
            "Disk 2200 | Hard disk 1 (vda) | /pool/web/1.img | none:0 | pool:default [default] web/1.img",
            "Disk 2201 | Hard disk 2 (vdb) | /nfs/3.img | none:1 | directory:/nfs [/nfs] 3.img",
            "Disk 2202 | Hard disk 3 (vdc) | /dev/vg/web | none:2 | device /dev/vg/web",
            "Disk 2203 | Hard disk 4 (vdd) | rbd:images/web | none:3 | device rbd:images/web",
            "Disk 2204 | Hard disk 5 (vde) | /pool/file.img | none:4 | pool:default [default] file.img",
            "Disk 2205 | Hard disk 6 (vdf) | nvme:0x0000:0x01:0x00.0x0/1 | none:5 | device "
            "nvme:0x0000:0x01:0x00.0x0/1",
            "Disk 2206 | Hard disk 7 (vdg) | /run/spdk.sock | none:6 | device /run/spdk.sock"));
}

TEST(NetworkCards, HaveTheirConnectionAndModel) {
    EXPECT_THAT(
        Devices(Card(Mac("52:54:00:00:00:01") +
                         "<source network='default' bridge='virbr0'/><model type='virtio'/>",
                     "network") +
                Card("<source bridge='br0'/><model type='e1000e'/>", "bridge") +
                Card("<source dev='eth0' mode='bridge'/><model type='pcnet'/>", "direct") +
                Card("<model type='rtl8139'/>") + Card("<target dev='tap7'/>", "ethernet") +
                Card("<source><address type='pci'/></source>", "hostdev") +
                Card("<source name='inside'/><link state='down'/>", "internal")),
        ElementsAre(
            "VirtioCard 16777217 | Network adapter 1 | default | MAC 52:54:00:00:00:01 | device default | "
            "connected",
            "E1000Card 4001 | Network adapter 2 | br0 | MAC  | device br0 | connected",
            "PCNetCard 4002 | Network adapter 3 | eth0 | MAC  | device eth0 | connected",
            "EthernetCard 4003 | Network adapter 4 | user | MAC  | device user | connected",
            "EthernetCard 4004 | Network adapter 5 | tap7 | MAC  | device tap7 | connected",
            "EthernetCard 4005 | Network adapter 6 | hostdev | MAC  | device hostdev | connected",
            "EthernetCard 4006 | Network adapter 7 | inside | MAC  | device inside | disconnected"));
}

// The slot of the cards would give them the key of the floppy drive.
TEST(NetworkCards, HaveTheNextFreeKeyWhenTheirsIsTaken) {
    const std::string card = Card(Pci("0x0f", "0x14"));
    EXPECT_THAT(Devices(Drive("floppy", "fda", "virtio") + card + card),
                ElementsAre("Floppy 8000 | Floppy drive 1 |  | none:0 | device no medium | disconnected",
                            "EthernetCard 8001 | Network adapter 1 | user | MAC  | device user | connected",
                            "EthernetCard 8002 | Network adapter 2 | user | MAC  | device user | connected"));
}

// libvirt's numbers, and what no int can hold.
TEST(Addresses, ThatNoVmHasAreTakenForTheNearestThatItMayHave) {
    const std::string huge = "'99999999999'";
    const std::string address = "<address type='drive' controller=" + huge + " bus=" + huge +
                                " target=" + huge + " unit='-2147483648'/>";
    EXPECT_THAT(
        Devices("<controller type='scsi' index=" + huge +
                "/><controller type='ide' index='-7'/>"
                "<disk><target dev='sda' bus='scsi'/>" +
                address + "</disk>" + "<disk><target dev='hda' bus='ide'/>" + address + "</disk>" +
                Card("<address type='pci' domain='0' bus=" + huge + " slot=" + huge + " function=" + huge +
                     "/>")),
        ElementsAre("SCSIController 66535 | SCSI controller 65535 | SCSI | bus 65535",
                    "IDEController 200 | IDE 0 | IDE | bus 0", "IDEController 201 | IDE 1 | IDE | bus 1",
                    "IDEController 131270 | IDE 131070 | IDE | bus 131070",
                    "IDEController 131271 | IDE 131071 | IDE | bus 131071",
                    "Disk 2100 | Hard disk 1 (sda) |  | 66535:65535",
                    "Disk 2000 | Hard disk 2 (hda) |  | 131271:0",
                    "EthernetCard 17370775 | Network adapter 1 | user | MAC  | device user | connected"));
    const std::string both = "<address type='drive' controller='0' target=" + huge + " unit=" + huge + "/>";
    EXPECT_THAT(DevicesBesideControllers("<disk><target dev='sda' bus='scsi'/>" + both + "</disk>"),
                ElementsAre("Disk 2100 | Hard disk 1 (sda) |  | 1000:1073790975"));  // 65535 × 16384 + 65535
}

// "KEY DEVICE" of each card, which name its statistics.
std::vector<std::string> Cards(const std::string& devices) {
    std::vector<std::string> cards;
    for (const auto& card : Describer()(DomainXmlWith(devices)).cards) {
        cards.push_back(std::to_string(card.key) + " " + card.device);
    }
    return cards;
}

TEST(NetworkCards, KeepTheirKeysAndDevicesWhenAnotherIsDetached) {
    const std::string pci = Card(Pci("0x01", "0x00") + "<target dev='vnet0'/>");
    EXPECT_THAT(Cards(Card(Pci("0x00", "0x03")) + pci), ElementsAre("4024 ", "4256 vnet0"));
    EXPECT_THAT(Cards(pci), ElementsAre("4256 vnet0"));
    const std::string mac = Card(Mac("52:54:00:00:01:0a"));
    EXPECT_THAT(Cards(Card(Mac("52:54:00:ff:ff:ff")) + mac), ElementsAre("33554431 ", "16777482 "));
    EXPECT_THAT(Cards(mac), ElementsAre("16777482 "));
}

TEST(NetworkCards, HaveKeysByMacAddressOnOtherBusesAndByPositionWithoutOne) {
    const std::string ccw = "<address type='ccw' cssid='0xfe' ssid='0x0' devno='0x0001'/>";
    EXPECT_THAT(Cards(Card(Mac("52:54:00:00:00:02") + ccw)), ElementsAre("16777218 "));
    EXPECT_THAT(Cards(Card(Mac("52:54:00:00:00:g2")) + Card(Mac("52:54:00:-1:00:02")) + Card(Mac("52:54")) +
                      Card(Mac(""))),
                ElementsAre("4000 ", "4001 ", "4002 ", "4003 "));
}

TEST(Disks, AreListedWithTheInstanceOfTheirStatistics) {
    const auto description = Describer()(DomainXmlWith(
        File("vda", "/pool/1.img") + File("vdb", "/var/2.img") + File("vdc", "/nfs/3.img") +
        Disk("vdd", "volume", "<source pool='pool' volume='block'/>") + Disk("vde", "file", "") +
        Drive("cdrom", "hda", "ide", "0:0:0:0", "<source file='/pool/a.iso'/>")));
    std::vector<std::string> disks;
    for (const auto& disk : description.disks) {
        disks.push_back(disk.target + " " + disk.name);
    }
    EXPECT_THAT(disks, ElementsAre("vda /dev/sda1", "vdb /dev/sda1", "vdd /dev/vg/block"));
    EXPECT_FALSE(description.provisional);
}

TEST(Disks, InAVolumeThatIsNotFoundMakeTheDescriptionProvisional) {
    const auto description =
        Describer()(DomainXmlWith(Disk("vda", "volume", "<source pool='gone' volume='1'/>")));
    EXPECT_TRUE(description.provisional);
    EXPECT_THAT(DeviceLines(*description.config),
                ElementsAre("Disk 2200 | Hard disk 1 (vda) | gone/1 | none:0 | device gone/1"));
}

TEST(Disks, HaveTheSharesOfTheirDeviceElseOfTheDomainElseTheKernelsDefault) {
    const auto shares = [](const std::string& tune) {
        std::vector<int> found;
        const auto description = Describer()(DomainXmlWith(Block("vda", "/dev/a") + Block("vdb", "/dev/b"),
                                                           "<blkiotune>" + tune + "</blkiotune>"));
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
    const auto description =
        Describer()(DomainXmlWith(File("vda", "/pool/1.img") + File("vdb", "/pool/2.img") +
                                  File("vdc", "/3.img") + File("vdd", "/nfs/4.img")));
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
