#include "apps/vessad/backends/libvirt/Devices.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "apps/vessad/backends/libvirt/Text.h"

namespace Vessad::Libvirt {
namespace {

namespace Device = Hask::Vm::Device;
using Backing = Device::VirtualDevice::BackingInfo;
using Tessim::MakeRef;
using Tessim::Ref;

constexpr int ideKeys = 200;
constexpr int floppyControllerKeys = 400;
constexpr int scsiKeys = 1000;
constexpr int diskKeys = 2000;
constexpr int cdromKeys = 3000;
constexpr int cardKeys = 4000;
constexpr int floppyKeys = 8000;
constexpr int sataKeys = 15000;
constexpr int macKeys = 1 << 24;
constexpr int busesPerIdeController = 2;
constexpr int unitsPerBus = 1 << 14;  // logical units that a SCSI target may have

// What the kernel gives a group of processes whose disk traffic nobody weighs.
constexpr int defaultDiskShares = 100;

// Where the host keeps what a drive shows.
struct Source {
    enum class Kind { None, File, Device };
    Kind kind = Kind::None;
    std::string name;
};

// <address type='drive'>
struct DriveAddress {
    int controller = 0;
    int bus = 0;
    int target = 0;
    int unit = 0;
};

// A drive's place in the machine.
struct DrivePlace {
    std::optional<int> controllerKey;
    std::optional<int> unit;
};

std::optional<DriveAddress> AddressOf(pugi::xml_node drive) {
    const pugi::xml_node address = drive.child("address");
    if (std::string_view(address.attribute("type").value()) != "drive") {
        return std::nullopt;
    }
    return DriveAddress{address.attribute("controller").as_int(), address.attribute("bus").as_int(),
                        address.attribute("target").as_int(), address.attribute("unit").as_int()};
}

// The number that the letters of a target name count: vda 0, vdb 1, … vdz 25, vdaa 26. -1 for another name.
int TargetNumber(std::string_view target) {
    constexpr int letters = 26;
    constexpr std::size_t longest = 5;
    target.remove_prefix(
        std::min<std::size_t>(target.starts_with("xvd") || target.starts_with("ubd") ? 3 : 2, target.size()));
    if (target.empty() || target.size() > longest) {
        return -1;
    }
    int number = 0;
    for (const char letter : target) {
        if (letter < 'a' || letter > 'z') {
            return -1;
        }
        number = number * letters + (letter - 'a' + 1);
    }
    return number - 1;
}

// The unit on a SCSI bus: some controllers count targets, others logical units of target 0; where both are in
// use, both are in the number.
int ScsiUnit(const DriveAddress& address) {
    if (address.unit == 0) {
        return address.target;
    }
    return address.target == 0 ? address.unit : address.target * unitsPerBus + address.unit;
}

std::string NetworkDiskName(pugi::xml_node source) {
    return std::string(source.attribute("protocol").value()) + ":" + source.attribute("name").value();
}

// The first of the attributes that is there.
std::string FirstOf(pugi::xml_node node, std::initializer_list<const char*> attributes) {
    for (const char* name : attributes) {
        if (const pugi::xml_attribute attribute = node.attribute(name)) {
            return attribute.value();
        }
    }
    return "";
}

// The last three bytes of a MAC address, which tell the cards of one maker apart.
std::optional<int> CardNumber(std::string_view mac) {
    constexpr std::size_t length = 17;
    if (mac.size() != length) {
        return std::nullopt;
    }
    int number = 0;
    for (const std::size_t at : {9U, 12U, 15U}) {
        constexpr int hexadecimal = 16;
        int byte = 0;
        const char* const end = mac.data() + at + 2;
        if (std::from_chars(mac.data() + at, end, byte, hexadecimal).ptr != end || byte < 0) {
            return std::nullopt;
        }
        number = number << 8 | byte;
    }
    return number;
}

// The network that a card is on, by the name that its kind of connection has for it.
std::string NetworkName(pugi::xml_node card) {
    std::string name = FirstOf(card.child("source"), {"network", "bridge", "dev", "name", "path"});
    const std::string type = card.attribute("type").value();
    if (name.empty() && type == "ethernet") {
        name = card.child("target").attribute("dev").value();
    }
    return name.empty() ? type : name;
}

Ref<Device::VirtualSCSIController> MakeScsiController(std::string_view model) {
    if (model == "lsilogic") {
        return MakeRef<Device::VirtualLsiLogicController>();
    }
    if (model == "buslogic") {
        return MakeRef<Device::VirtualBusLogicController>();
    }
    if (model.starts_with("lsisas")) {
        return MakeRef<Device::VirtualLsiLogicSASController>();
    }
    if (model.starts_with("virtio")) {
        return MakeRef<Device::ParaVirtualSCSIController>();
    }
    return MakeRef<Device::VirtualSCSIController>();
}

Ref<Device::VirtualEthernetCard> MakeCard(std::string_view model) {
    if (model.starts_with("e1000")) {
        return MakeRef<Device::VirtualE1000Card>();
    }
    if (model == "pcnet") {
        return MakeRef<Device::VirtualPCNetCard>();
    }
    if (model.starts_with("virtio")) {
        return MakeRef<Device::VirtualVirtioCard>();
    }
    return MakeRef<Device::VirtualEthernetCard>();
}

class Builder {
  public:
    Builder(pugi::xml_node domain, const Surroundings& surroundings, Hask::Vm::VirtualHardware& hardware,
            DomainDescription& description)
        : domain(domain),
          devices(domain.child("devices")),
          surroundings(surroundings),
          hardware(hardware),
          description(description) {}

    void Build() {
        AddControllers();
        FindTakenUnits();
        int disks = 0;
        int cdroms = 0;
        int floppies = 0;
        for (const pugi::xml_node drive : devices.children("disk")) {
            const std::string_view kind = drive.attribute("device").as_string("disk");
            if (kind == "cdrom") {
                auto device = MakeRef<Device::VirtualCdrom>();
                AddRemovable(drive, device, cdromKeys, "CD/DVD drive " + std::to_string(++cdroms));
            } else if (kind == "floppy") {
                auto device = MakeRef<Device::VirtualFloppy>();
                AddRemovable(drive, device, floppyKeys, "Floppy drive " + std::to_string(++floppies));
            } else {
                AddDisk(drive, ++disks);
            }
        }
        int cards = 0;
        for (const pugi::xml_node card : devices.children("interface")) {
            AddCard(card, cards++);
        }
        AddDatastoreUrls();
    }

  private:
    // `wanted`, or the first free number after it.
    int TakeKey(int wanted) {
        while (!keys.insert(wanted).second) {
            ++wanted;
        }
        return wanted;
    }

    void Add(const Ref<Device::VirtualDevice>& device, int key, const std::string& label,
             const std::string& summary) {
        auto info = MakeRef<Hask::Description>();
        info->SetLabel(label);
        info->SetSummary(WireText(summary));
        device->SetKey(key);
        device->SetDeviceInfo(info);
        hardware.GetDevice()->Append(device);
    }

    void AddController(const Ref<Device::VirtualController>& controller, int key, int number,
                       const std::string& kind, const std::string& summary) {
        controller->SetBusNumber(number);
        Add(controller, TakeKey(key), kind + " " + std::to_string(number), summary);
    }

    // The controllers that the domain has, and those that only a drive speaks of.
    void AddControllers() {
        std::map<int, std::string> scsi;
        std::set<int> ide;
        std::set<int> sata;
        std::set<int> floppy;
        for (const pugi::xml_node controller : devices.children("controller")) {
            const std::string_view type = controller.attribute("type").value();
            const int index = controller.attribute("index").as_int();
            if (type == "scsi") {
                scsi[index] = controller.attribute("model").value();
            } else if (type == "ide") {
                ide.insert(index);
            } else if (type == "sata") {
                sata.insert(index);
            } else if (type == "fdc") {
                floppy.insert(index);
            }
        }
        for (const pugi::xml_node drive : devices.children("disk")) {
            const auto address = AddressOf(drive);
            const std::string_view bus = drive.child("target").attribute("bus").value();
            if (!address) {
                continue;
            }
            if (bus == "scsi") {
                scsi.emplace(address->controller, "");
            } else if (bus == "ide") {
                ide.insert(address->controller);
            } else if (bus == "sata") {
                sata.insert(address->controller);
            } else if (bus == "fdc") {
                floppy.insert(address->controller);
            }
        }
        for (const auto& [index, model] : scsi) {
            AddController(MakeScsiController(model), scsiKeys + index, index, "SCSI controller",
                          model.empty() ? "SCSI" : model);
        }
        for (const int index : ide) {
            for (int bus = index * busesPerIdeController; bus < (index + 1) * busesPerIdeController; ++bus) {
                AddController(MakeRef<Device::VirtualIDEController>(), ideKeys + bus, bus, "IDE", "IDE");
            }
        }
        for (const int index : sata) {
            AddController(MakeRef<Device::VirtualSATAController>(), sataKeys + index, index,
                          "SATA controller", "SATA");
        }
        for (const int index : floppy) {
            AddController(MakeRef<Device::VirtualSIOController>(), floppyControllerKeys + index, index,
                          "Floppy controller", "Floppy");
        }
    }

    // Its place on its controller, if it has one.
    static std::optional<DrivePlace> PlaceOnController(pugi::xml_node drive) {
        const auto address = AddressOf(drive);
        const std::string_view bus = drive.child("target").attribute("bus").value();
        if (!address) {
            return std::nullopt;
        }
        if (bus == "ide") {
            return DrivePlace{ideKeys + address->controller * busesPerIdeController + address->bus,
                              address->unit};
        }
        if (bus == "scsi") {
            return DrivePlace{scsiKeys + address->controller, ScsiUnit(*address)};
        }
        if (bus == "sata") {
            return DrivePlace{sataKeys + address->controller, address->unit};
        }
        if (bus == "fdc") {
            return DrivePlace{floppyControllerKeys + address->controller, address->unit};
        }
        return std::nullopt;
    }

    void FindTakenUnits() {
        for (const pugi::xml_node drive : devices.children("disk")) {
            if (const auto place = PlaceOnController(drive)) {
                units.insert(*place->unit);
            }
        }
    }

    // A drive without a controller is numbered by its target's letters, past the units that others have: rows
    // of the agent's target table are told apart by the unit number alone.
    DrivePlace PlaceOf(pugi::xml_node drive) {
        if (const auto place = PlaceOnController(drive)) {
            return *place;
        }
        int unit = std::max(0, TargetNumber(drive.child("target").attribute("dev").value()));
        while (!units.insert(unit).second) {
            ++unit;
        }
        return {std::nullopt, unit};
    }

    static int DriveKey(int base, pugi::xml_node drive) {
        // The kinds of target names start apart, for hda, sda and vda may be in one machine.
        constexpr int perKind = 100;
        const std::string_view target = drive.child("target").attribute("dev").value();
        const int kind = target.starts_with("sd")    ? 1
                         : target.starts_with("vd")  ? 2
                         : target.starts_with("xvd") ? 3
                                                     : 0;
        return base + kind * perKind + std::clamp(TargetNumber(target), 0, perKind - 1);
    }

    Source SourceOf(pugi::xml_node drive) {
        const pugi::xml_node source = drive.child("source");
        const std::string_view type = drive.attribute("type").value();
        if (!source) {
            return {};
        }
        if (type == "volume") {
            const auto volume =
                surroundings.findVolume(source.attribute("pool").value(), source.attribute("volume").value());
            if (!volume) {
                description.provisional = true;
                return {Source::Kind::Device, std::string(source.attribute("pool").value()) + "/" +
                                                  source.attribute("volume").value()};
            }
            return {volume->block ? Source::Kind::Device : Source::Kind::File, volume->path};
        }
        if (type == "network") {
            return {Source::Kind::Device, NetworkDiskName(source)};
        }
        if (type == "nvme") {
            const pugi::xml_node address = source.child("address");
            return {Source::Kind::Device,
                    std::string("nvme:") + address.attribute("domain").value() + ":" +
                        address.attribute("bus").value() + ":" + address.attribute("slot").value() + "." +
                        address.attribute("function").value() + "/" + source.attribute("namespace").value()};
        }
        std::string name = FirstOf(source, {"file", "dev", "dir", "path"});
        if (name.empty()) {
            return {};
        }
        const bool isFile = type == "file" || type == "dir";
        return {isFile ? Source::Kind::File : Source::Kind::Device, std::move(name)};
    }

    // The backing of a source, and the name by which the agent asks for its figures; none where it asks for
    // none.
    std::pair<Ref<Backing>, std::optional<std::string>> BackingOf(const Source& source) {
        if (source.kind == Source::Kind::None) {
            return {};
        }
        if (source.kind == Source::Kind::Device) {
            auto backing = MakeRef<Device::VirtualDevice::DeviceBackingInfo>();
            backing->SetDeviceName(WireText(source.name));
            return {backing, backing->GetDeviceName()};
        }
        const Place place = surroundings.storage.Locate(source.name);
        const std::string id = WireText(place.datastoreId);
        const std::string name = WireText(place.datastoreName);
        std::optional<std::string> device;
        if (place.device) {
            device = WireText(*place.device);
        }
        AddDatastore(id, name, device);
        urls.emplace(name, WireText(place.url));
        auto backing = MakeRef<Device::VirtualDevice::FileBackingInfo>();
        backing->SetFileName("[" + name + "] " + WireText(place.relative));
        backing->SetDatastore(MakeRef<Ordane::MoRef>("Datastore", id));
        return {backing, device};
    }

    void AddDatastore(const std::string& id, const std::string& name,
                      const std::optional<std::string>& device) {
        Ref<Hask::Datastore::Info> info;
        if (device) {
            auto extent = MakeRef<Hask::Host::ScsiDisk::Partition>();
            extent->SetDiskName(*device);
            auto extents = MakeRef<Ordane::DataArray<Hask::Host::ScsiDisk::Partition>>();
            extents->Append(extent);
            auto volume = MakeRef<Hask::Host::DrellVolume>();
            volume->SetExtent(extents);
            auto local = MakeRef<Hask::Host::DrellDatastoreInfo>();
            local->SetDrell(volume);
            info = local;
        } else {
            info = MakeRef<Hask::Datastore::Info>();
        }
        info->SetName(name);
        description.datastores.emplace(id, info);
    }

    void AddDisk(pugi::xml_node drive, int number) {
        const std::string target = drive.child("target").attribute("dev").value();
        const Source source = SourceOf(drive);
        const auto [backing, figuresName] = BackingOf(source);
        const DrivePlace place = PlaceOf(drive);
        auto shares = MakeRef<Hask::SharesInfo>();
        shares->SetShares(DiskShares(source));
        auto disk = MakeRef<Device::VirtualDisk>();
        disk->SetShares(shares);
        disk->SetBacking(backing);
        disk->SetControllerKey(place.controllerKey);
        disk->SetUnitNumber(place.unit);
        Add(disk, TakeKey(DriveKey(diskKeys, drive)),
            "Hard disk " + std::to_string(number) + WireText(target.empty() ? "" : " (" + target + ")"),
            source.name);
        if (figuresName) {
            description.disks.push_back({target, *figuresName});
        }
    }

    // The weight of the device under the disk, else of the machine.
    int DiskShares(const Source& source) const {
        const pugi::xml_node tune = domain.child("blkiotune");
        for (const pugi::xml_node device : tune.children("device")) {
            if (source.name == device.child_value("path") && device.child("weight")) {
                return device.child("weight").text().as_int();
            }
        }
        return tune.child("weight").text().as_int(defaultDiskShares);
    }

    void AddRemovable(pugi::xml_node drive, const Ref<Device::VirtualDevice>& device, int keyBase,
                      const std::string& label) {
        const Source source = SourceOf(drive);
        const DrivePlace place = PlaceOf(drive);
        auto connection = MakeRef<Device::VirtualDevice::ConnectInfo>();
        connection->SetConnected(source.kind != Source::Kind::None);
        auto backing = BackingOf(source).first;
        if (!backing) {
            auto empty = MakeRef<Device::VirtualDevice::DeviceBackingInfo>();
            empty->SetDeviceName("no medium");
            backing = empty;
        }
        device->SetBacking(backing);
        device->SetConnectable(connection);
        device->SetControllerKey(place.controllerKey);
        device->SetUnitNumber(place.unit);
        Add(device, TakeKey(DriveKey(keyBase, drive)), label, source.name);
    }

    // A card is known by its slot on the PCI bus, or where there is none by its MAC address, so that it keeps
    // its key when another card goes.
    static int CardKey(pugi::xml_node card, int position) {
        const pugi::xml_node address = card.child("address");
        if (std::string_view(address.attribute("type").value()) != "pci" ||
            address.attribute("domain").as_int() != 0) {
            const auto number = CardNumber(card.child("mac").attribute("address").value());
            return number ? macKeys + *number : cardKeys + position;
        }
        constexpr int slotsPerBus = 32;
        constexpr int functionsPerSlot = 8;
        const int bus = address.attribute("bus").as_int();
        const int slot = address.attribute("slot").as_int();
        return cardKeys + (bus * slotsPerBus + slot) * functionsPerSlot +
               address.attribute("function").as_int();
    }

    void AddCard(pugi::xml_node node, int position) {
        const std::string network = NetworkName(node);
        auto backing = MakeRef<Device::VirtualDevice::DeviceBackingInfo>();
        backing->SetDeviceName(WireText(network));
        auto connection = MakeRef<Device::VirtualDevice::ConnectInfo>();
        connection->SetConnected(std::string_view(node.child("link").attribute("state").value()) != "down");
        auto card = MakeCard(node.child("model").attribute("type").value());
        card->SetMacAddress(WireText(node.child("mac").attribute("address").value()));
        card->SetBacking(backing);
        card->SetConnectable(connection);
        const int key = TakeKey(CardKey(node, position));
        Add(card, key, "Network adapter " + std::to_string(position + 1), network);
        description.cards.push_back({node.child("target").attribute("dev").value(), key});
    }

    void AddDatastoreUrls() {
        auto pairs = MakeRef<Ordane::DataArray<Hask::Vm::ConfigInfo::DatastoreUrlPair>>();
        for (const auto& [name, url] : urls) {
            auto pair = MakeRef<Hask::Vm::ConfigInfo::DatastoreUrlPair>();
            pair->SetName(name);
            pair->SetUrl(url);
            pairs->Append(pair);
        }
        description.config->SetDatastoreUrl(pairs);
    }

    pugi::xml_node domain;
    pugi::xml_node devices;
    const Surroundings& surroundings;
    Hask::Vm::VirtualHardware& hardware;
    DomainDescription& description;
    std::set<int> keys;
    std::set<int> units;
    std::map<std::string, std::string> urls;  // datastore name → directory
};

}  // namespace

void AddDevices(pugi::xml_node domain, const Surroundings& surroundings, Hask::Vm::VirtualHardware& hardware,
                DomainDescription& description) {
    Builder(domain, surroundings, hardware, description).Build();
}

}  // namespace Vessad::Libvirt
