// YAML documents, cursors over them, and the API's objects read from them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <string>

#include "apps/vessad/backends/YamlReader.h"
#include "runtime/hask/api.h"
#include "runtime/ordane/xml_codec.h"
#include "tests/support/files.h"

namespace Vessad::Yaml {
namespace {

using Use = std::function<std::string(const Cursor&)>;

// Returns what `use` returns for the root of `text`, or the error that reading it fails with.
std::string Outcome(const std::string& text, const Use& use) {
    try {
        const Document document(text, "h.yaml");
        Mistakes mistakes(Mistakes::Policy::Throw);
        return use(Cursor(document, mistakes));
    } catch (const Error& error) {
        return error.what();
    }
}

// Returns the type of the object, and its members as XML.
template <class T>
std::string ReadObject(const Cursor& cursor) {
    const auto object = Read<T>(cursor);
    Ordane::Xml::Writer members;
    Ordane::Xml::WriteMembers(members, *object);
    return std::string(object->GetDataObjectType()->name) + " " + members.Take();
}

std::string ReadWhole(const Cursor& cursor, std::int64_t low, std::int64_t high) {
    return std::to_string(cursor.Whole(low, high));
}

// How the documents of yaml.txt are read.
const std::map<std::string, Use> uses{
    {"text", &Cursor::Text},
    {"bool", [](const Cursor& cursor) { return cursor.Bool() ? "true" : "false"; }},
    {"whole", [](const Cursor& cursor) { return ReadWhole(cursor, -2, 2); }},
    {"large",
     [](const Cursor& cursor) {
         using Limits = std::numeric_limits<std::int64_t>;
         return ReadWhole(cursor, Limits::min(), Limits::max());
     }},
    {"number", [](const Cursor& cursor) { return std::to_string(cursor.Number()); }},
    {"config", ReadObject<Hask::Vm::ConfigInfo>},
    {"datastore", ReadObject<Hask::Datastore::Info>},
    {"device", ReadObject<Hask::Vm::Device::VirtualDevice>},
    {"hardware", ReadObject<Hask::Host::HardwareInfo>},
    {"reservation", ReadObject<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo>},
    {"runtime", ReadObject<Hask::Vm::RuntimeInfo>},
    {"shares", ReadObject<Hask::SharesInfo>},
    {"volume", ReadObject<Hask::Host::DrellVolume>},
};

TEST(Yaml, IsReadOrRejectedWithPlacePathExpectationAndFinding) {
    for (const auto& [text, expected] : TestSupport::ReadCases(VESSAD_TEST_CASES "/yaml.txt")) {
        const std::size_t blank = expected.find(' ');
        EXPECT_EQ(Outcome(text, uses.at(expected.substr(0, blank))), expected.substr(blank + 1)) << text;
    }
}

TEST(YamlDocument, RejectsWhatIsNotWellFormedWithItsPlace) {
    for (const auto& [text, message] : std::map<std::string, std::string>{
             {"v: 1\nw: [1, 2\nx: 3\n", "h.yaml:3:"},
             {"v: \"open", "h.yaml:1:"},
             {"v:\n\tw: 1\n", "h.yaml:2:1: expected well-formed YAML: "},
             {std::string(100'000, '['), "h.yaml:1:101: the document is nested too deeply"}}) {
        EXPECT_THAT(Outcome(text, uses.at("text")), ::testing::StartsWith(message));
    }
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
    EXPECT_THAT(Outcome(bomb, uses.at("text")), ::testing::HasSubstr("the document has too many values"));
    EXPECT_THROW(Document("[1, 2, 3]", "h.yaml", 3), Error);
    EXPECT_NO_THROW(Document("[1, 2, 3]", "h.yaml", 4));
}

}  // namespace
}  // namespace Vessad::Yaml
