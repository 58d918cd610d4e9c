#include "apps/vessad/backends/libvirt/Drives.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/vessad_libvirt/description.h"

namespace Vessad::Libvirt {
namespace {

using namespace Hask::Vm::Device;
using testing::ElementsAre;
using DeviceBacking = VirtualDevice::DeviceBackingInfo;
using FileBacking = VirtualDevice::FileBackingInfo;

std::string Drive(const std::string& device, const std::string& type, const std::string& source,
                  const std::string& target, const std::string& bus, const std::string& address = "") {
    return "<disk type='" + type + "' device='" + device + "'>" + source + "<target dev='" + target +
           "' bus='" + bus + "'/>" + address + "</disk>";
}

std::string Address(int controller, int bus, int target, int unit) {
    return "<address type='drive' controller='" + std::to_string(controller) + "' bus='" +
           std::to_string(bus) + "' target='" + std::to_string(target) + "' unit='" + std::to_string(unit) +
           "'/>";
}

std::string Pci(const std::string& bus, const std::string& slot) {
    return "<address type='pci' domain='0x0000' bus='" + bus + "' slot='" + slot + "' function='0x0'/>";
}

template <class T>
std::vector<int> KeysOf(const DomainDescription& description) {
    std::vector<int> keys;
    for (const T* device : DevicesOf<T>(description)) {
        keys.push_back(device->GetKey());
    }
    return keys;
}

std::string DeviceName(const VirtualDevice* device) {
    const auto* backing = Tessim::NarrowToType<DeviceBacking>(device->GetBacking());
    return backing == nullptr ? "no device" : backing->GetDeviceName();
}

TEST(ScsiControllers, AreToldByTheirModel) {
    const auto description =
        Describer()(DomainXmlWith("<controller type='scsi' index='0' model='lsilogic'/>"
                                  "<controller type='scsi' index='1' model='buslogic'/>"
                                  "<controller type='scsi' index='2' model='lsisas1078'/>"
                                  "<controller type='scsi' index='3' model='virtio-scsi'/>"
                                  "<controller type='scsi' index='4' model='am53c974'/>"
                                  "<controller type='scsi' index='5'/><controller type='usb' index='0'/>"));
    const auto controllers = DevicesOf<VirtualSCSIController>(description);
    ASSERT_EQ(controllers.size(), 6U);
    EXPECT_EQ(controllers[0]->GetDataObjectType(), Ordane::GetType<VirtualLsiLogicController>());
    EXPECT_EQ(controllers[1]->GetDataObjectType(), Ordane::GetType<VirtualBusLogicController>());
    EXPECT_EQ(controllers[2]->GetDataObjectType(), Ordane::GetType<VirtualLsiLogicSASController>());
    EXPECT_EQ(controllers[3]->GetDataObjectType(), Ordane::GetType<ParaVirtualSCSIController>());
    EXPECT_EQ(controllers[4]->GetDataObjectType(), Ordane::GetType<VirtualSCSIController>());
    EXPECT_EQ(controllers[5]->GetDataObjectType(), Ordane::GetType<VirtualSCSIController>());
    EXPECT_THAT(KeysOf<VirtualSCSIController>(description), ElementsAre(1000, 1001, 1002, 1003, 1004, 1005));
    EXPECT_EQ(controllers[4]->GetBusNumber(), 4);
    EXPECT_EQ(controllers[4]->GetDeviceInfo()->GetLabel(), "SCSI controller 4");
    EXPECT_EQ(controllers[4]->GetDeviceInfo()->GetSummary(), "am53c974");
}

TEST(IdeControllers, AreTwoBusesEach) {
    const auto description = Describer()(DomainXmlWith("<controller type='ide' index='0'/>"));
    EXPECT_THAT(KeysOf<VirtualIDEController>(description), ElementsAre(200, 201));
    EXPECT_EQ(DevicesOf<VirtualIDEController>(description)[1]->GetBusNumber(), 1);
}

TEST(Controllers, ThatOnlyADriveSpeaksOfAreThere) {
    const auto description =
        Describer()(DomainXmlWith(Drive("cdrom", "file", "", "hda", "ide", Address(1, 1, 0, 0)) +
                                  Drive("disk", "file", "", "sda", "scsi", Address(3, 0, 0, 0)) +
                                  Drive("disk", "file", "", "sdb", "sata", Address(0, 0, 0, 0)) +
                                  Drive("floppy", "file", "", "fda", "fdc", Address(0, 0, 0, 0))));
    EXPECT_THAT(KeysOf<VirtualIDEController>(description), ElementsAre(202, 203));
    EXPECT_THAT(KeysOf<VirtualSCSIController>(description), ElementsAre(1003));
    EXPECT_THAT(KeysOf<VirtualSATAController>(description), ElementsAre(15000));
    EXPECT_THAT(KeysOf<VirtualSIOController>(description), ElementsAre(400));
    EXPECT_EQ(DevicesOf<VirtualCdrom>(description)[0]->GetControllerKey(), 203);
    EXPECT_EQ(DevicesOf<VirtualFloppy>(description)[0]->GetControllerKey(), 400);
}

TEST(Disks, HaveTheirPlaceOnTheirController) {
    const auto description =
        Describer()(DomainXmlWith(Drive("disk", "file", "", "hdd", "ide", Address(0, 1, 0, 1)) +
                                  Drive("disk", "file", "", "sdc", "scsi", Address(1, 0, 0, 7)) +
                                  Drive("lun", "block", "", "sdd", "scsi", Address(1, 0, 9, 0)) +
                                  Drive("disk", "file", "", "sde", "scsi", Address(1, 0, 2, 3)) +
                                  Drive("disk", "file", "", "sdf", "sata", Address(2, 0, 0, 4))));
    const auto disks = DevicesOf<VirtualDisk>(description);
    ASSERT_EQ(disks.size(), 5U);
    EXPECT_EQ(disks[0]->GetControllerKey(), 201);
    EXPECT_EQ(disks[0]->GetUnitNumber(), 1);
    EXPECT_EQ(disks[1]->GetControllerKey(), 1001);
    EXPECT_EQ(disks[1]->GetUnitNumber(), 7);
    EXPECT_EQ(disks[2]->GetUnitNumber(), 9);
    EXPECT_EQ(disks[3]->GetUnitNumber(), 2 * 16384 + 3);
    EXPECT_EQ(disks[4]->GetControllerKey(), 15002);
    EXPECT_EQ(disks[4]->GetUnitNumber(), 4);
    EXPECT_EQ(disks[0]->GetDeviceInfo()->GetLabel(), "Hard disk 1 (hdd)");
    EXPECT_THAT(KeysOf<VirtualDisk>(description), ElementsAre(2003, 2102, 2103, 2104, 2105));
}

TEST(Disks, WithoutAControllerAreNumberedByTheirLetters) {
    const auto description = Describer()(DomainXmlWith(
        Drive("disk", "file", "", "vdc", "virtio") + Drive("disk", "file", "", "vda", "virtio") +
        Drive("disk", "file", "", "vdab", "virtio") + Drive("disk", "file", "", "xvdb", "xen")));
    const auto disks = DevicesOf<VirtualDisk>(description);
    EXPECT_EQ(disks[0]->GetUnitNumber(), 2);
    EXPECT_EQ(disks[0]->GetControllerKey(), std::nullopt);
    EXPECT_EQ(disks[1]->GetUnitNumber(), 0);
    EXPECT_EQ(disks[2]->GetUnitNumber(), 27);
    EXPECT_EQ(disks[3]->GetUnitNumber(), 1);
    EXPECT_THAT(KeysOf<VirtualDisk>(description), ElementsAre(2202, 2200, 2227, 2301));
}

TEST(Disks, WithoutAControllerGiveWayToThoseWithOne) {
    const auto description = Describer()(DomainXmlWith(
        Drive("disk", "file", "", "vda", "virtio") + Drive("disk", "file", "", "vdb", "virtio") +
        Drive("disk", "file", "", "hda", "ide", Address(0, 0, 0, 0))));
    const auto disks = DevicesOf<VirtualDisk>(description);
    EXPECT_EQ(disks[0]->GetUnitNumber(), 1);
    EXPECT_EQ(disks[1]->GetUnitNumber(), 2);
    EXPECT_EQ(disks[2]->GetUnitNumber(), 0);
}

TEST(Disks, WithStrangeNamesAreNumberedAllTheSame) {
    const auto description = Describer()(
        DomainXmlWith(Drive("disk", "file", "", "", "virtio") + Drive("disk", "file", "", "v1", "virtio") +
                      Drive("disk", "file", "", "vdzzzzzzzzzzzz", "virtio") + "<disk/>"));
    const auto disks = DevicesOf<VirtualDisk>(description);
    ASSERT_EQ(disks.size(), 4U);
    EXPECT_EQ(disks[0]->GetUnitNumber(), 0);
    EXPECT_EQ(disks[3]->GetUnitNumber(), 3);
    EXPECT_EQ(disks[0]->GetDeviceInfo()->GetLabel(), "Hard disk 1");
    EXPECT_EQ(disks[0]->GetBacking(), nullptr);
    EXPECT_THAT(description.disks, testing::IsEmpty());
}

TEST(Disks, InFilesBelongToADatastore) {
    const auto description =
        Describer()(DomainXmlWith(Drive("disk", "file", "<source file='/pool/web/1.img'/>", "vda", "virtio") +
                                  Drive("disk", "file", "<source file='/var/2.img'/>", "vdb", "virtio") +
                                  Drive("disk", "file", "<source file='/nfs/3.img'/>", "vdc", "virtio")));
    const auto disks = DevicesOf<VirtualDisk>(description);
    const auto* backing = Tessim::NarrowToType<FileBacking>(disks[0]->GetBacking());
    ASSERT_NE(backing, nullptr);
    EXPECT_EQ(backing->GetFileName(), "[default] web/1.img");
    EXPECT_EQ(backing->GetDatastore()->GetType(), "Datastore");
    EXPECT_EQ(backing->GetDatastore()->GetId(), "pool:default");
    const auto* local =
        Tessim::NarrowToType<Hask::Host::DrellDatastoreInfo>(description.datastores.at("pool:default").Get());
    ASSERT_NE(local, nullptr);
    EXPECT_EQ(local->GetName(), "default");
    EXPECT_EQ((*local->GetDrell()->GetExtent())[0]->GetDiskName(), "/dev/sda1");

    backing = Tessim::NarrowToType<FileBacking>(disks[1]->GetBacking());
    EXPECT_EQ(backing->GetFileName(), "[/] var/2.img");
    EXPECT_TRUE(description.datastores.contains("directory:/"));

    backing = Tessim::NarrowToType<FileBacking>(disks[2]->GetBacking());
    EXPECT_EQ(backing->GetFileName(), "[/nfs] 3.img");
    EXPECT_EQ(description.datastores.at("directory:/nfs")->GetDataObjectType(),
              Ordane::GetType<Hask::Datastore::Info>());

    // Figures go by the device below; those of a network file system are asked for by nobody.
    ASSERT_EQ(description.disks.size(), 2U);
    EXPECT_EQ(description.disks[0].target, "vda");
    EXPECT_EQ(description.disks[0].name, "/dev/sda1");
    EXPECT_EQ(description.disks[1].name, "/dev/sda1");
}

TEST(Disks, TellWhereTheirDatastoresAreMounted) {
    const auto description =
        Describer()(DomainXmlWith(Drive("disk", "file", "<source file='/pool/1.img'/>", "vda", "virtio") +
                                  Drive("disk", "file", "<source file='/pool/2.img'/>", "vdb", "virtio") +
                                  Drive("disk", "file", "<source file='/3.img'/>", "vdc", "virtio")));
    const auto* pairs = description.config->GetDatastoreUrl();
    ASSERT_EQ(pairs->GetLength(), 2);
    EXPECT_EQ((*pairs)[0]->GetName(), "/");
    EXPECT_EQ((*pairs)[0]->GetUrl(), "/");
    EXPECT_EQ((*pairs)[1]->GetName(), "default");
    EXPECT_EQ((*pairs)[1]->GetUrl(), "/pool/");
}

TEST(Disks, OnDevicesAndOnTheNetworkAreBackedByADevice) {
    const auto description = Describer()(DomainXmlWith(
        Drive("disk", "block", "<source dev='/dev/vg/web'/>", "vda", "virtio") +
        Drive("disk", "network", "<source protocol='rbd' name='images/web'/>", "vdb", "virtio") +
        Drive("disk", "volume", "<source pool='pool' volume='block'/>", "vdc", "virtio") +
        Drive("disk", "nvme",
              "<source type='pci' namespace='1'><address domain='0x0000' bus='0x01' slot='0x00' "
              "function='0x0'/></source>",
              "vdd", "virtio") +
        Drive("disk", "vhostuser", "<source type='unix' path='/run/spdk.sock'/>", "vde", "virtio")));
    std::vector<std::string> names;
    for (const auto& disk : description.disks) {
        names.push_back(disk.name);
    }
    EXPECT_THAT(names, ElementsAre("/dev/vg/web", "rbd:images/web", "/dev/vg/block",
                                   "nvme:0x0000:0x01:0x00.0x0/1", "/run/spdk.sock"));
    EXPECT_EQ(DeviceName(DevicesOf<VirtualDisk>(description)[2]), "/dev/vg/block");
    EXPECT_FALSE(description.provisional);
}

TEST(Disks, InVolumesAreFilesOrDevicesAsThePoolSays) {
    const auto description = Describer()(
        DomainXmlWith(Drive("disk", "volume", "<source pool='pool' volume='file'/>", "vda", "virtio")));
    const auto* backing =
        Tessim::NarrowToType<FileBacking>(DevicesOf<VirtualDisk>(description)[0]->GetBacking());
    ASSERT_NE(backing, nullptr);
    EXPECT_EQ(backing->GetFileName(), "[default] file.img");
}

TEST(Disks, InAVolumeThatIsNotThereYetAreDescribedAgain) {
    const auto description = Describer()(
        DomainXmlWith(Drive("disk", "volume", "<source pool='gone' volume='1'/>", "vda", "virtio")));
    EXPECT_TRUE(description.provisional);
    EXPECT_EQ(DeviceName(DevicesOf<VirtualDisk>(description)[0]), "gone/1");
}

TEST(Disks, HaveTheSharesOfTheirDeviceElseOfTheMachineElseTheKernels) {
    const std::string disks = Drive("disk", "block", "<source dev='/dev/a'/>", "vda", "virtio") +
                              Drive("disk", "block", "<source dev='/dev/b'/>", "vdb", "virtio");
    const auto shares = [&](const std::string& tune, std::size_t index) {
        const auto description = Describer()(DomainXmlWith(disks, tune));
        return DevicesOf<VirtualDisk>(description)[index]->GetShares()->GetShares();
    };
    EXPECT_EQ(shares("", 0), 100);
    EXPECT_EQ(shares("<blkiotune><weight>800</weight></blkiotune>", 0), 800);
    const std::string both =
        "<blkiotune><weight>800</weight>"
        "<device><path>/dev/b</path><weight>300</weight></device></blkiotune>";
    EXPECT_EQ(shares(both, 0), 800);
    EXPECT_EQ(shares(both, 1), 300);
}

TEST(CdromDrives, AreConnectedWhileTheyHoldAMedium) {
    const auto description = Describer()(DomainXmlWith(
        Drive("cdrom", "file", "<source file='/pool/a.iso'/>", "hdc", "ide", Address(0, 1, 0, 0)) +
        Drive("cdrom", "file", "", "hdb", "ide", Address(0, 0, 0, 1)) +
        Drive("cdrom", "block", "<source dev='/dev/sr0'/>", "sda", "sata", Address(0, 0, 0, 0))));
    const auto drives = DevicesOf<VirtualCdrom>(description);
    ASSERT_EQ(drives.size(), 3U);
    EXPECT_TRUE(drives[0]->GetConnectable()->IsConnected());
    EXPECT_EQ(drives[0]->GetControllerKey(), 201);
    EXPECT_EQ(drives[0]->GetUnitNumber(), 0);
    EXPECT_EQ(Tessim::NarrowToType<FileBacking>(drives[0]->GetBacking())->GetFileName(), "[default] a.iso");
    EXPECT_FALSE(drives[1]->GetConnectable()->IsConnected());
    EXPECT_EQ(DeviceName(drives[1]), "no medium");
    EXPECT_EQ(drives[1]->GetControllerKey(), 200);
    EXPECT_EQ(drives[1]->GetUnitNumber(), 1);
    EXPECT_TRUE(drives[2]->GetConnectable()->IsConnected());
    EXPECT_EQ(DeviceName(drives[2]), "/dev/sr0");
    EXPECT_THAT(KeysOf<VirtualCdrom>(description), ElementsAre(3002, 3001, 3100));
    EXPECT_TRUE(description.disks.empty());
}

TEST(FloppyDrives, HaveUnitAndMedium) {
    const auto description = Describer()(DomainXmlWith(
        Drive("floppy", "file", "<source file='/pool/boot.flp'/>", "fda", "fdc", Address(0, 0, 0, 0)) +
        Drive("floppy", "file", "", "fdb", "fdc", Address(0, 0, 0, 1))));
    const auto drives = DevicesOf<VirtualFloppy>(description);
    ASSERT_EQ(drives.size(), 2U);
    EXPECT_TRUE(drives[0]->GetConnectable()->IsConnected());
    EXPECT_FALSE(drives[1]->GetConnectable()->IsConnected());
    EXPECT_EQ(drives[1]->GetUnitNumber(), 1);
    EXPECT_THAT(KeysOf<VirtualFloppy>(description), ElementsAre(8000, 8001));
}

TEST(NetworkCards, AreOnTheNetworkThatTheirConnectionNames) {
    const auto description = Describer()(DomainXmlWith(
        "<interface type='network'><mac address='52:54:00:00:00:01'/><source network='default' "
        "bridge='virbr0'/>"
        "<target dev='vnet0'/><model type='virtio'/></interface>"
        "<interface type='bridge'><source bridge='br0'/><model type='e1000e'/></interface>"
        "<interface type='direct'><source dev='eth0' mode='bridge'/><model type='pcnet'/></interface>"
        "<interface type='user'><model type='rtl8139'/></interface>"
        "<interface type='ethernet'><target dev='tap7'/></interface>"
        "<interface type='hostdev'><source><address type='pci'/></source></interface>"
        "<interface type='internal'><source name='inside'/><link state='down'/></interface>"));
    const auto cards = DevicesOf<VirtualEthernetCard>(description);
    ASSERT_EQ(cards.size(), 7U);
    std::vector<std::string> networks;
    for (const auto* card : cards) {
        networks.push_back(DeviceName(card));
        EXPECT_EQ(card->GetDeviceInfo()->GetSummary(), DeviceName(card));
    }
    EXPECT_THAT(networks, ElementsAre("default", "br0", "eth0", "user", "tap7", "hostdev", "inside"));
    EXPECT_EQ(cards[0]->GetMacAddress(), "52:54:00:00:00:01");
    EXPECT_EQ(cards[0]->GetDeviceInfo()->GetLabel(), "Network adapter 1");
    EXPECT_EQ(cards[6]->GetDeviceInfo()->GetLabel(), "Network adapter 7");
    EXPECT_EQ(cards[0]->GetDataObjectType(), Ordane::GetType<VirtualVirtioCard>());
    EXPECT_EQ(cards[1]->GetDataObjectType(), Ordane::GetType<VirtualE1000Card>());
    EXPECT_EQ(cards[2]->GetDataObjectType(), Ordane::GetType<VirtualPCNetCard>());
    EXPECT_EQ(cards[3]->GetDataObjectType(), Ordane::GetType<VirtualEthernetCard>());
    EXPECT_TRUE(cards[5]->GetConnectable()->IsConnected());
    EXPECT_FALSE(cards[6]->GetConnectable()->IsConnected());
    EXPECT_THAT(KeysOf<VirtualEthernetCard>(description),
                ElementsAre(0x1000001, 4001, 4002, 4003, 4004, 4005, 4006));
    EXPECT_EQ(description.cards[0].device, "vnet0");
    EXPECT_EQ(description.cards[0].key, 0x1000001);
    EXPECT_EQ(description.cards[1].device, "");
}

TEST(NetworkCards, KeepTheirKeyWhenAnotherGoes) {
    const std::string first = "<interface type='user'>" + Pci("0x00", "0x03") + "</interface>";
    const std::string second = "<interface type='user'>" + Pci("0x01", "0x00") + "</interface>";
    EXPECT_THAT(KeysOf<VirtualEthernetCard>(Describer()(DomainXmlWith(first + second))),
                ElementsAre(4024, 4256));
    EXPECT_THAT(KeysOf<VirtualEthernetCard>(Describer()(DomainXmlWith(second))), ElementsAre(4256));
}

TEST(NetworkCards, WithoutAPciSlotKeepTheirKeyToo) {
    const auto card = [](const std::string& mac, const std::string& address = "") {
        return "<interface type='user'><mac address='" + mac + "'/>" + address + "</interface>";
    };
    const std::string second = card("52:54:00:00:01:0a");
    EXPECT_THAT(KeysOf<VirtualEthernetCard>(Describer()(DomainXmlWith(card("52:54:00:ff:ff:ff") + second))),
                ElementsAre(0x1ffffff, 0x100010a));
    EXPECT_THAT(KeysOf<VirtualEthernetCard>(Describer()(DomainXmlWith(second))), ElementsAre(0x100010a));
    const std::string onAnotherBus = "<address type='ccw' cssid='0xfe' ssid='0x0' devno='0x0001'/>";
    EXPECT_THAT(
        KeysOf<VirtualEthernetCard>(Describer()(DomainXmlWith(card("52:54:00:00:00:02", onAnotherBus)))),
        ElementsAre(0x1000002));
    EXPECT_THAT(KeysOf<VirtualEthernetCard>(Describer()(DomainXmlWith(
                    card("52:54:00:00:00:g2") + card("52:54:00:-1:00:02") + card("52:54") + card("")))),
                ElementsAre(4000, 4001, 4002, 4003));
}

TEST(Devices, HaveKeysOfTheirOwnInEveryMachine) {
    // A card whose slot would give it the key of the floppy drive.
    const auto description = Describer()(DomainXmlWith(
        Drive("floppy", "file", "", "fda", "fdc", Address(0, 0, 0, 0)) + "<interface type='user'>" +
        Pci("0x0f", "0x14") + "</interface><interface type='user'>" + Pci("0x0f", "0x14") + "</interface>"));
    EXPECT_THAT(KeysOf<VirtualFloppy>(description), ElementsAre(8000));
    EXPECT_THAT(KeysOf<VirtualEthernetCard>(description), ElementsAre(8001, 8002));
}

}  // namespace
}  // namespace Vessad::Libvirt
