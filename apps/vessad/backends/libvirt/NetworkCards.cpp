#include "apps/vessad/backends/libvirt/NetworkCards.h"

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "apps/vessad/backends/libvirt/Text.h"
#include "apps/vessad/backends/libvirt/XmlAttributes.h"

namespace Vessad::Libvirt {
namespace {

namespace Device = Hask::Vm::Device;
using Tessim::MakeRef;
using Tessim::Ref;

constexpr int firstKey = 4000;
constexpr int firstMacKey = 1 << 24;

// Returns the last three bytes of a MAC address, those that its maker assigns.
std::optional<int> MacNumber(std::string_view mac) {
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

int KeyOf(pugi::xml_node card, int position) {
    constexpr int slotsPerBus = 32;
    constexpr int functionsPerSlot = 8;
    const pugi::xml_node address = card.child("address");
    if (std::string_view(address.attribute("type").value()) != "pci" ||
        address.attribute("domain").as_int() != 0) {
        const auto number = MacNumber(card.child("mac").attribute("address").value());
        return number ? firstMacKey + *number : firstKey + position;
    }
    const int slot = AddressNumber(address, "bus") * slotsPerBus + AddressNumber(address, "slot");
    return firstKey + slot * functionsPerSlot + AddressNumber(address, "function");
}

// Returns the name of what the card is connected to, else the kind of the connection.
std::string NetworkName(pugi::xml_node card) {
    std::string name = FirstAttribute(card.child("source"), {"network", "bridge", "dev", "name", "path"});
    const std::string type = card.attribute("type").value();
    if (name.empty() && type == "ethernet") {
        name = card.child("target").attribute("dev").value();
    }
    return name.empty() ? type : name;
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

}  // namespace

void AddNetworkCards(pugi::xml_node domain, DeviceList& devices, DomainDescription& description) {
    int position = 0;
    for (const pugi::xml_node node : domain.child("devices").children("interface")) {
        const std::string network = NetworkName(node);
        auto backing = MakeRef<Device::VirtualDevice::DeviceBackingInfo>();
        backing->SetDeviceName(WireText(network));
        auto connection = MakeRef<Device::VirtualDevice::ConnectInfo>();
        connection->SetConnected(std::string_view(node.child("link").attribute("state").value()) != "down");
        auto card = MakeCard(node.child("model").attribute("type").value());
        card->SetMacAddress(WireText(node.child("mac").attribute("address").value()));
        card->SetBacking(backing);
        card->SetConnectable(connection);
        const int key = devices.Add(card, KeyOf(node, position),
                                    "Network adapter " + std::to_string(position + 1), network);
        description.cards.push_back({node.child("target").attribute("dev").value(), key});
        ++position;
    }
}

}  // namespace Vessad::Libvirt
