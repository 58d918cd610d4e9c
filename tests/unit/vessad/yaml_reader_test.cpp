#include "apps/vessad/backends/YamlReader.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/hask/api.h"

namespace Vessad::Yaml {
namespace {

using Hask::Vm::ConfigInfo;
using Hask::Vm::Device::VirtualDevice;

template <class T>
Tessim::Ref<T> ReadText(const std::string& text) {
    const Document document(text, "h.yaml");
    return Read<T>(Cursor(document));
}

template <class T>
std::string Mistake(const std::string& text) {
    try {
        ReadText<T>(text);
    } catch (const Error& error) {
        return error.what();
    }
    return "none";
}

TEST(YamlReader, ReadsMembersOfEveryKind) {
    const auto config = ReadText<ConfigInfo>(R"(
name: web
guestFullName: Debian
files: {vmPathName: "[s] web.cfg"}
datastoreUrl: [{name: s, url: /v/}, {name: t, url: /w/}]
memoryAllocation: {shares: {shares: -5120}}
hardware:
  numCPU: 2
  memoryMB: 512
  device:
    - {type: VirtualDisk, key: 2000, controllerKey: 1000, unitNumber: 0, shares: {shares: 7},
       backing: {type: FileBackingInfo, fileName: "[s] 1.dsk", datastore: ds-1}}
    - {type: VirtualCdrom, key: 3000, connectable: {connected: true}}
)");
    EXPECT_EQ(config->GetName(), "web");
    EXPECT_EQ(config->GetFiles()->GetVmPathName(), "[s] web.cfg");
    ASSERT_EQ(config->GetDatastoreUrl()->GetLength(), 2);
    EXPECT_EQ((*config->GetDatastoreUrl())[1]->GetUrl(), "/w/");
    EXPECT_EQ(config->GetMemoryAllocation()->GetShares()->GetShares(), -5120);
    EXPECT_EQ(config->GetCpuAllocation(), nullptr);
    EXPECT_EQ(config->GetHardware()->GetMemoryMB(), 512);

    const auto& devices = *config->GetHardware()->GetDevice();
    ASSERT_EQ(devices.GetLength(), 2);
    const auto* disk = Tessim::NarrowToType<Hask::Vm::Device::VirtualDisk>(devices[0]);
    ASSERT_NE(disk, nullptr);
    EXPECT_EQ(disk->GetControllerKey(), 1000);
    EXPECT_EQ(disk->GetShares()->GetShares(), 7);
    const auto* backing = Tessim::NarrowToType<VirtualDevice::FileBackingInfo>(disk->GetBacking());
    ASSERT_NE(backing, nullptr);
    EXPECT_EQ(backing->GetDatastore()->GetType(), "Datastore");
    EXPECT_EQ(backing->GetDatastore()->GetId(), "ds-1");
    EXPECT_TRUE(devices[1]->GetConnectable()->IsConnected());
    EXPECT_FALSE(devices[1]->GetUnitNumber().has_value());
}

TEST(YamlReader, ReadsEnumerationsByTheirTexts) {
    const auto runtime = ReadText<Hask::Vm::RuntimeInfo>("powerState: suspended");
    EXPECT_EQ(runtime->GetPowerState(), Hask::VirtualMachine::PowerState::suspended);
    EXPECT_EQ(
        Mistake<Hask::Vm::RuntimeInfo>("powerState: on"),
        "h.yaml:1:13: powerState: expected one of poweredOff, poweredOn, suspended, found the text \"on\"");
}

TEST(YamlReader, TakesTheDeclaredTypeWhereNoneIsNamed) {
    EXPECT_EQ(ReadText<Hask::Datastore::Info>("{}")->GetDataObjectType(), &Hask::Datastore::Info::staticType);
    EXPECT_EQ(ReadText<VirtualDevice>("{type: VirtualDevice, key: 1}")->GetDataObjectType(),
              &VirtualDevice::staticType);
}

TEST(YamlReader, RefusesATypeThatDoesNotExistOrDoesNotFit) {
    EXPECT_EQ(Mistake<VirtualDevice>("{type: VirtualToaster, key: 1}"),
              "h.yaml:1:8: type: expected a kind of VirtualDevice, found the text \"VirtualToaster\"");
    EXPECT_EQ(Mistake<VirtualDevice>("{type: FileBackingInfo, key: 1}"),
              "h.yaml:1:8: type: expected a kind of VirtualDevice, found the text \"FileBackingInfo\"");
    EXPECT_EQ(Mistake<Hask::SharesInfo>("{type: SharesInfo, shares: 1}"),
              "h.yaml:1:2: expected one of shares, found type");
}

TEST(YamlReader, RefusesAMissingMember) {
    EXPECT_EQ(Mistake<VirtualDevice>("{type: VirtualIDEController, key: 1}"),
              "h.yaml:1:1: expected the member busNumber, found none");
}

TEST(YamlReader, RefusesAMemberOfAnotherType) {
    EXPECT_EQ(
        Mistake<VirtualDevice>("{key: 1, busNumber: 0, type: VirtualDisk}"),
        "h.yaml:1:10: expected one of key, deviceInfo, backing, connectable, controllerKey, unitNumber, "
        "shares, type, found busNumber");
}

TEST(YamlReader, RefusesNumbersThatTheirTypeCannotHold) {
    EXPECT_EQ(Mistake<Hask::SharesInfo>("shares: 2147483648"),
              "h.yaml:1:9: shares: expected a whole number from -2147483648 to 2147483647, found 2147483648");
    EXPECT_EQ(ReadText<Hask::SharesInfo>("shares: -2147483648")->GetShares(), -2147483648);
}

TEST(YamlReader, RefusesAValueWhereAListIsDeclaredAndTheReverse) {
    EXPECT_EQ(Mistake<Hask::Host::DrellVolume>("extent: {diskName: x}"),
              "h.yaml:1:9: extent: expected a list, found a mapping");
    EXPECT_EQ(Mistake<Hask::Host::HardwareInfo>("cpuInfo: [{numCpuCores: 1}]"),
              "h.yaml:1:10: cpuInfo: expected a mapping with the members of CpuInfo, found a list");
    EXPECT_EQ(Mistake<Hask::Host::HardwareInfo>("cpuInfo: null"),
              "h.yaml:1:10: cpuInfo: expected a mapping with the members of CpuInfo, found nothing");
}

// Whatever the API declares can be written in YAML: each type is read from its required members alone, and
// the concrete type is the one that was named.
TEST(YamlReader, ReadsEveryTypeOfTheApi) {
    for (const Ordane::DataObjectType* type : Hask::AllDataObjectTypes()) {
        std::string text = "{";
        bool readable = true;
        for (const Ordane::Member* member : type->GetMembers()) {
            if (member->optional || member->list) {
                continue;
            }
            const std::string value = member->kind == Ordane::ValueKind::Bool     ? "true"
                                      : member->kind == Ordane::ValueKind::String ? "text"
                                      : member->kind == Ordane::ValueKind::Enum
                                          ? std::string(member->enumType->texts[0])
                                          : "5";
            readable = readable && member->kind != Ordane::ValueKind::Object &&
                       member->kind != Ordane::ValueKind::Reference;
            text.append(text.size() > 1 ? ", " : "").append(member->name).append(": ").append(value);
        }
        text += "}";
        if (readable) {
            const Document document(text, "h.yaml");
            EXPECT_EQ(ReadObject(Cursor(document), *type)->GetDataObjectType(), type) << text;
        }
    }
}

}  // namespace
}  // namespace Vessad::Yaml
