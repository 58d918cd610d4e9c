// YAML documents, cursors over them, and the API's objects read from them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "apps/vessad/backends/YamlReader.h"
#include "runtime/hask/api.h"

namespace Vessad::Yaml {
namespace {

using Hask::Vm::Device::VirtualDevice;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;
using Use = std::function<void(const Cursor&)>;

constexpr std::int64_t low = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t high = std::numeric_limits<std::int64_t>::max();

// Checks the error of `use` on the root of `text`.
void ExpectMistake(const std::string& text, const Use& use, const ::testing::Matcher<std::string>& message) {
    const auto read = [&] {
        const Document document(text, "h.yaml");
        use(Cursor(document));
    };
    EXPECT_THAT(read, ThrowsMessage<Error>(message)) << text;
}

template <class T>
Tessim::Ref<T> ReadText(const std::string& text) {
    const Document document(text, "h.yaml");
    return Read<T>(Cursor(document));
}

const Use asText = [](const Cursor& cursor) { cursor.Text(); };
const Use asBool = [](const Cursor& cursor) { cursor.Bool(); };
const Use asWhole = [](const Cursor& cursor) { cursor.Whole(-2, 2); };
const Use asNumber = [](const Cursor& cursor) { cursor.Number(); };
template <class T>
const Use asObject = [](const Cursor& cursor) { Read<T>(cursor); };

TEST(YamlCursor, ReadsPlainAndQuotedText) {
    for (const auto& [scalar, text] : std::vector<std::pair<std::string, std::string>>{
             {"VM Network", "VM Network"},
             {"\"13638\"", "13638"},
             {"'true'", "true"},
             {"\"\"", ""},
             {"!!str 5", "5"},
             {"3.0.2", "3.0.2"},
             {"00:16:3e:00:00:01", "00:16:3e:00:00:01"},
             {"5e", "5e"},
             {"1.5.2e3", "1.5.2e3"},
             {"inf", "inf"},
             {"-x", "-x"},
             {"größe \"\xf0\x9f\x90\xa7\"", "größe \"\xf0\x9f\x90\xa7\""}}) {
        const Document document("v: " + scalar, "h.yaml");
        EXPECT_EQ(Cursor(document).Require("v").Text(), text);
    }
}

TEST(YamlCursor, ReadsWholeNumbersOfSixtyFourBits) {
    for (const std::int64_t number : {std::int64_t{0}, std::int64_t{-7}, 4611686018427387904, low, high}) {
        const Document document(std::to_string(number), "h.yaml");
        EXPECT_EQ(Cursor(document).Whole(low, high), number);
    }
}

TEST(YamlCursor, ReadsNumbersWithFractions) {
    for (const auto& [scalar, number] :
         std::vector<std::pair<std::string, double>>{{"35", 35}, {"-0.25", -0.25}, {"1.5e3", 1500}}) {
        const Document document(scalar, "h.yaml");
        EXPECT_DOUBLE_EQ(Cursor(document).Number(), number);
    }
}

TEST(YamlCursor, RejectsPlainNumbersAndTruthValuesAsText) {
    for (const std::string scalar :
         {"13638", "-5", "3.0", "1e3", "0x10", "0o17", ".5", ".inf", "true", "False"}) {
        ExpectMistake(scalar, asText, "h.yaml:1:1: expected text in quotes, found " + scalar);
    }
}

TEST(YamlCursor, RejectsOtherNotationsAndRangesOfNumbers) {
    for (const char* scalar : {"3", "-3", "1.0", "010", "+1", "0x1", "1_0", "9223372036854775808", "true"}) {
        ExpectMistake(scalar, asWhole,
                      StartsWith("h.yaml:1:1: expected a whole number from -2 to 2, found "));
    }
    for (const char* scalar : {"fast", "\"1\"", ".inf", ".nan", "1e999", "0x10"}) {
        ExpectMistake(scalar, asNumber, StartsWith("h.yaml:1:1: expected a number, found "));
    }
}

TEST(YamlCursor, StatesPlacePathExpectationAndFinding) {
    struct Row {
        std::string text;
        Use use;
        std::string message;
    };
    for (const auto& [text, use, message] : std::vector<Row>{
             {"null", asText, "1:1: expected text, found nothing"},
             {"~", asText, "1:1: expected text, found nothing"},
             {"[a]", asText, "1:1: expected text, found a list"},
             {"{a: b}", asText, "1:1: expected text, found a mapping"},
             {"\"a\\x01\"", asText,
              "1:1: expected text without control characters, found the text \"a\\x01\""},
             {"\"1\"", asWhole, "1:1: expected a whole number from -2 to 2, found the text \"1\""},
             {"yes", asBool, "1:1: expected true or false, found the text \"yes\""},
             {"\"true\"", asBool, "1:1: expected true or false, found the text \"true\""},
             {"{shares: 1, \"shares\": 2}", asObject<Hask::SharesInfo>,
              "1:13: expected each key once, found shares again"},
             {"powerState: on", asObject<Hask::Vm::RuntimeInfo>,
              "1:13: powerState: expected one of poweredOff, poweredOn, suspended, found the text \"on\""},
             {"{type: VirtualToaster, key: 1}", asObject<VirtualDevice>,
              "1:8: type: expected a kind of VirtualDevice, found the text \"VirtualToaster\""},
             {"{type: FileBackingInfo, key: 1}", asObject<VirtualDevice>,
              "1:8: type: expected a kind of VirtualDevice, found the text \"FileBackingInfo\""},
             {"{type: SharesInfo, shares: 1}", asObject<Hask::SharesInfo>,
              "1:2: expected one of shares, found type"},
             {"{type: VirtualIDEController, key: 1}", asObject<VirtualDevice>,
              "1:1: expected the member busNumber, found none"},
             {"{key: 1, busNumber: 0, type: VirtualDisk}", asObject<VirtualDevice>,
              "1:10: expected one of key, deviceInfo, backing, connectable, controllerKey, unitNumber, "
              "shares, type, found busNumber"},
             {"shares: 2147483648", asObject<Hask::SharesInfo>,
              "1:9: shares: expected a whole number from -2147483648 to 2147483647, found 2147483648"},
             {"extent: {diskName: x}", asObject<Hask::Host::DrellVolume>,
              "1:9: extent: expected a list, found a mapping"},
             {"cpuInfo: [{numCpuCores: 1}]", asObject<Hask::Host::HardwareInfo>,
              "1:10: cpuInfo: expected a mapping with the members of CpuInfo, found a list"}}) {
        ExpectMistake(text, use, "h.yaml:" + message);
    }
}

TEST(YamlDocument, RejectsWhatIsNotOneWellFormedDocument) {
    for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
             {"v: 1\nw: [1, 2\nx: 3\n", "h.yaml:3:"},
             {"v: \"open", "h.yaml:1:"},
             {"v:\n\tw: 1\n", "h.yaml:2:3: expected well-formed YAML: "},
             {"v: 1\n---\nv: 2\n", "h.yaml:2:1: expected one document, found another"},
             {"v: ok\nw: a\xff\n", "h.yaml:2:5: expected UTF-8 text without control characters"},
             {"v: a\x04\nw: 2\n", "h.yaml:1:5: expected UTF-8 text without control characters"},
             {std::string("v: a\0b", 6), "h.yaml:1:5: expected UTF-8 text without control characters"},
             {"v: !!int \"5\"", "h.yaml:1:4: expected a value without a tag, found tag:yaml.org,2002:int"},
             {"? [a]\n: 1\n", "h.yaml:1:3: expected a key, found a list"},
             {"v: &x [1, *x]", "h.yaml:1:11: expected the name of a value that is complete"},
             {std::string(100'000, '['), "h.yaml:"}}) {
        ExpectMistake(text, asText, StartsWith(message));
    }
}

TEST(YamlDocument, ExpandsAliases) {
    const Document document("a: &x {n: 5}\nv: [*x, *x]\n", "h.yaml");
    EXPECT_EQ(Cursor(document).Require("v").Items().at(1).Require("n").Whole(low, high), 5);
}

TEST(YamlDocument, CountsTheValuesOfExpandedAliases) {
    std::string bomb = "a0: &a0 [x, x, x, x, x, x, x, x, x, x]\n";
    for (int level = 1; level < 12; ++level) {
        const std::string before = "*a" + std::to_string(level - 1);
        bomb += "a" + std::to_string(level) + ": &a" + std::to_string(level) + " [" + before;
        for (int count = 1; count < 10; ++count) {
            bomb.append(", ").append(before);
        }
        bomb += "]\n";
    }
    ExpectMistake(bomb, asText, HasSubstr("the document has too many values"));
    EXPECT_THROW(Document("[1, 2, 3]", "h.yaml", 3), Error);
    EXPECT_NO_THROW(Document("[1, 2, 3]", "h.yaml", 4));
}

TEST(YamlReader, ReadsMembersOfEveryKind) {
    const auto config = ReadText<Hask::Vm::ConfigInfo>(R"(
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

TEST(YamlReader, ReadsEnumerationsAndLimitsOfNumbers) {
    EXPECT_EQ(ReadText<Hask::Vm::RuntimeInfo>("powerState: suspended")->GetPowerState(),
              Hask::VirtualMachine::PowerState::suspended);
    EXPECT_EQ(ReadText<Hask::SharesInfo>("shares: -2147483648")->GetShares(), -2147483648);
}

TEST(YamlReader, ReadsTheDeclaredTypeWhenNoneIsNamed) {
    EXPECT_EQ(ReadText<Hask::Datastore::Info>("{}")->GetDataObjectType(), &Hask::Datastore::Info::staticType);
    EXPECT_EQ(ReadText<VirtualDevice>("{type: VirtualDevice, key: 1}")->GetDataObjectType(),
              &VirtualDevice::staticType);
}

// From its required members alone.
TEST(YamlReader, ReadsEveryTypeOfTheApi) {
    using Ordane::ValueKind;
    for (const Ordane::DataObjectType* type : Hask::AllDataObjectTypes()) {
        std::string text;
        bool readable = true;
        for (const Ordane::Member* member : type->GetMembers()) {
            if (member->optional || member->list) {
                continue;
            }
            readable = readable && member->kind != ValueKind::Object && member->kind != ValueKind::Reference;
            text += std::string(text.empty() ? "" : ", ") + std::string(member->name) + ": " +
                    (member->kind == ValueKind::Bool     ? "true"
                     : member->kind == ValueKind::String ? "text"
                     : member->kind == ValueKind::Enum   ? std::string(member->enumType->texts[0])
                                                         : "5");
        }
        if (readable) {
            const Document document("{" + text + "}", "h.yaml");
            EXPECT_EQ(ReadObject(Cursor(document), *type)->GetDataObjectType(), type) << text;
        }
    }
}

}  // namespace
}  // namespace Vessad::Yaml
