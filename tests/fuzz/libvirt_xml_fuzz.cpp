#include <algorithm>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "apps/vessad/backends/libvirt/DomainXml.h"
#include "tests/fuzz/carried.h"
#include "tests/fuzz/fuzz.h"

namespace {

using namespace Vessad::Libvirt;

void CheckDescription(const std::string& xml, const DescribeContext& context) {
    DomainDescription description;
    try {
        description = DescribeDomain(xml, context);
    } catch (const std::runtime_error&) {
        return;
    }
    Fuzz::CheckCarried(description.config);
    for (const auto& [id, info] : description.datastores) {
        Tessim::Assert(Ordane::Xml::IsText(id), "a datastore's id is text");
        Fuzz::CheckCarried(info);
    }
    for (const auto& disk : description.disks) {
        Tessim::Assert(Ordane::Xml::IsText(disk.name), "an instance is text");
    }
    std::set<int> keys;
    std::set<int> controllers;
    for (const auto& device : *description.config->GetHardware()->GetDevice()) {
        Tessim::Assert(device->GetKey() > 0, "a device's key is positive");
        Tessim::Assert(keys.insert(device->GetKey()).second, "no two devices share a key");
        Tessim::Assert(device->GetUnitNumber().value_or(0) >= 0, "a unit number is not negative");
        if (Tessim::NarrowToType<Hask::Vm::Device::VirtualController>(device) != nullptr) {
            controllers.insert(device->GetKey());
        }
    }
    for (const auto& device : *description.config->GetHardware()->GetDevice()) {
        const auto controller = device->GetControllerKey();
        Tessim::Assert(!controller || controllers.contains(*controller), "a drive's controller is one");
    }
    for (const auto& card : description.cards) {
        Tessim::Assert(keys.contains(card.key), "a card's key is that of a device");
    }
}

}  // namespace

// An input is the XML of pools and domains, each ended by a NUL. Every text is taken for either.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> texts;
    for (std::size_t begin = 0; begin < input.size();) {
        const std::size_t end = std::min(input.find('\0', begin), input.size());
        texts.push_back(input.substr(begin, end - begin));
        begin = end + 1;
    }
    std::vector<Pool> pools;
    for (const std::string& text : texts) {
        if (auto pool = ParsePool(text)) {
            pools.push_back(std::move(*pool));
        }
    }
    // A remote host, and one of whose file systems none is read, because it is a server's.
    const Storage remote(std::nullopt, pools);
    const Storage local({{{"server:/export", "/", "nfs4"}}}, pools);
    GuestNames names({});
    const auto findVolume = [](const std::string& pool, const std::string& name) -> std::optional<Volume> {
        return name.empty() ? std::nullopt : std::optional(Volume{"/" + pool + "/" + name, pool.empty()});
    };
    for (const std::string& text : texts) {
        for (const Storage* storage : {&remote, &local}) {
            CheckDescription(text, {*storage, names, findVolume, [] { return std::nullopt; }, "/etc/vm.xml"});
        }
    }
    return 0;
}
