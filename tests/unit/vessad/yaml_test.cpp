// YAML documents, cursors over them, and the API's objects read from them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <pugixml.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "apps/vessad/backends/YamlReader.h"
#include "runtime/hask/api.h"
#include "runtime/ordane/xml_codec.h"

namespace Vessad::Yaml {
namespace {

using Hask::Vm::Device::VirtualDevice;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Use = std::function<std::string(const Cursor&)>;

constexpr std::int64_t low = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t high = std::numeric_limits<std::int64_t>::max();

// Returns what `use` returns for the root of `text`, or the error that reading it fails with.
std::string Outcome(const std::string& text, const Use& use) {
    try {
        const Document document(text, "h.yaml");
        return use(Cursor(document));
    } catch (const Error& error) {
        return error.what();
    }
}

const Use asText = [](const Cursor& cursor) { return cursor.Text(); };
const Use asBool = [](const Cursor& cursor) { return std::string(cursor.Bool() ? "true" : "false"); };
const Use asWhole = [](const Cursor& cursor) { return std::to_string(cursor.Whole(-2, 2)); };
const Use asLarge = [](const Cursor& cursor) { return std::to_string(cursor.Whole(low, high)); };
const Use asNumber = [](const Cursor& cursor) { return std::to_string(cursor.Number()); };
// Returns the type of the object, and its members as XML.
template <class T>
const Use asObject = [](const Cursor& cursor) {
    const auto object = Read<T>(cursor);
    pugi::xml_document members;
    Ordane::Xml::WriteMembers(members, *object);
    std::ostringstream text;
    members.save(text, "", pugi::format_raw | pugi::format_no_declaration);
    return std::string(object->GetDataObjectType()->name) + " " + text.str();
};

TEST(YamlCursor, ReadsPlainAndQuotedTextButNoPlainNumberOrTruthValueAsText) {
    for (const std::string text : {"VM Network", "3.0.2", "00:16:3e:00:00:01", "5e", "1.5.2e3", "inf", "-x",
                                   "größe \"\xf0\x9f\x90\xa7\""}) {
        EXPECT_EQ(Outcome(text, asText), text);
    }
    EXPECT_EQ(Outcome("\"13638\"", asText), "13638");
    EXPECT_EQ(Outcome("'true'", asText), "true");
    EXPECT_EQ(Outcome("\"\"", asText), "");
    EXPECT_EQ(Outcome("!!str 5", asText), "5");
    for (const std::string scalar :
         {"13638", "-5", "3.0", "1e3", "0x10", "0o17", ".5", ".inf", "true", "False"}) {
        EXPECT_EQ(Outcome(scalar, asText), "h.yaml:1:1: expected text in quotes, found " + scalar);
    }
}

TEST(YamlCursor, ReadsNumbersOfOneNotation) {
    for (const std::string number :
         {"0", "-7", "4611686018427387904", "-9223372036854775808", "9223372036854775807"}) {
        EXPECT_EQ(Outcome(number, asLarge), number);
    }
    EXPECT_EQ(Outcome("35", asNumber), "35.000000");
    EXPECT_EQ(Outcome("-0.25", asNumber), "-0.250000");
    EXPECT_EQ(Outcome("1.5e3", asNumber), "1500.000000");
    for (const char* scalar : {"3", "-3", "1.0", "010", "+1", "0x1", "1_0", "9223372036854775808", "true"}) {
        EXPECT_THAT(Outcome(scalar, asWhole),
                    StartsWith("h.yaml:1:1: expected a whole number from -2 to 2, found "));
    }
    for (const char* scalar : {"fast", "\"1\"", ".inf", ".nan", "1e999", "0x10"}) {
        EXPECT_THAT(Outcome(scalar, asNumber), StartsWith("h.yaml:1:1: expected a number, found "));
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
        EXPECT_EQ(Outcome(text, use), "h.yaml:" + message);
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
        EXPECT_THAT(Outcome(text, asText), StartsWith(message));
    }
}

TEST(YamlDocument, ExpandsAliases) {
    const auto second = [](const Cursor& cursor) {
        return asLarge(cursor.Require("v").Items().at(1).Require("n"));
    };
    EXPECT_EQ(Outcome("a: &x {n: 5}\nv: [*x, *x]\n", second), "5");
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
    EXPECT_THAT(Outcome(bomb, asText), HasSubstr("the document has too many values"));
    EXPECT_THROW(Document("[1, 2, 3]", "h.yaml", 3), Error);
    EXPECT_NO_THROW(Document("[1, 2, 3]", "h.yaml", 4));
}

TEST(YamlReader, ReadsMembersOfEveryKind) {
    EXPECT_EQ(
        Outcome(R"(
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
)",
                asObject<Hask::Vm::ConfigInfo>),
        "VmConfigInfo <name>web</name><guestFullName>Debian</guestFullName><files><vmPathName>[s] web.cfg"
        "</vmPathName></files><datastoreUrl><name>s</name><url>/v/</url></datastoreUrl><datastoreUrl>"
        "<name>t</name><url>/w/</url></datastoreUrl><hardware><numCPU>2</numCPU><memoryMB>512</memoryMB>"
        "<device xsi:type=\"VirtualDisk\"><key>2000</key><backing xsi:type=\"FileBackingInfo\"><fileName>"
        "[s] 1.dsk</fileName><datastore type=\"Datastore\">ds-1</datastore></backing><controllerKey>1000"
        "</controllerKey><unitNumber>0</unitNumber><shares><shares>7</shares></shares></device>"
        "<device xsi:type=\"VirtualCdrom\"><key>3000</key><connectable><connected>true</connected>"
        "</connectable></device></hardware><memoryAllocation><shares><shares>-5120</shares></shares>"
        "</memoryAllocation>");
    EXPECT_EQ(Outcome("powerState: suspended", asObject<Hask::Vm::RuntimeInfo>),
              "VmRuntimeInfo <powerState>suspended</powerState>");
    EXPECT_EQ(Outcome("shares: -2147483648", asObject<Hask::SharesInfo>),
              "SharesInfo <shares>-2147483648</shares>");
    using Reservation = Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo;
    EXPECT_EQ(Outcome("{serviceConsoleReserved: 9223372036854775807, unreserved: 0}", asObject<Reservation>),
              "ServiceConsoleReservationInfo <serviceConsoleReserved>9223372036854775807"
              "</serviceConsoleReserved><unreserved>0</unreserved>");
    EXPECT_EQ(Outcome("{}", asObject<Hask::Datastore::Info>), "DatastoreInfo ");
    EXPECT_EQ(Outcome("{type: VirtualDevice, key: 1}", asObject<VirtualDevice>),
              "VirtualDevice <key>1</key>");
}

}  // namespace
}  // namespace Vessad::Yaml
