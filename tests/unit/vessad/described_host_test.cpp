#include "apps/vessad/backends/DescribedHost.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/files.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using VessadTest::LogLines;
using VessadTest::TemporaryDirectory;
using VessadTest::WriteAll;

class DescribedHostFile : public ::testing::Test {
  protected:
    TemporaryDirectory directory;
    fs::path file = directory.GetPath() / "host.yaml";
};

// Returns the counters of the host as "KEY GROUP.NAME ROLLUP", and the series of its VMs as "VM: KEY
// INSTANCE".
std::string Catalogue(const std::string& description) {
    const auto* const rollups = Ordane::GetEnumType<Hask::PerformanceManager::RollupType>();
    const auto host = ReadHost(description, "h.yaml");
    std::ostringstream text;
    for (const auto& counter : host->counters) {
        text << counter->GetKey() << ' ' << counter->GetGroupInfo()->GetKey() << '.'
             << counter->GetNameInfo()->GetKey() << ' '
             << rollups->GetText(static_cast<int>(counter->GetRollupType())) << '\n';
    }
    for (const auto& vm : host->vms) {
        for (const auto& series : vm->series) {
            text << vm->id << ": " << series.counterKey << ' ' << series.instance << '\n';
        }
    }
    return text.str();
}

TEST(DescribedHost, HasTheStandardCountersUnlessItDefinesItsOwn) {
    EXPECT_EQ(Catalogue("vms: []"),
              R"(1 disk.numberRead summation
2 disk.numberWrite summation
3 disk.read summation
4 disk.write summation
5 net.received summation
6 net.transmitted summation
7 net.packetsTx summation
8 net.packetsRx summation
9 mem.active latest
10 cpu.used summation
)");
    EXPECT_EQ(Catalogue("{counters: [], vms: []}"), "");
}

TEST(DescribedHost, AssignsStatisticsToTheFirstCounterOfAName) {
    EXPECT_EQ(Catalogue(R"(
counters:
  - {key: 9, group: mem, name: active}
  - {key: 91, group: cpu, name: used, rollup: maximum}
  - {key: 7, group: cpu, name: used, rollup: summation}
vms: [{id: "1", config: null, stats: {cpu.used: {"0": 5, "": 6}, mem.active: {"": 7}}}]
)"),
              R"(9 mem.active average
91 cpu.used maximum
7 cpu.used summation
1: 91 0
1: 91 
1: 9 
)");
}

TEST(DescribedHost, StatesPlaceAndExpectationOfAMistake) {
    const std::string vm = "vms:\n  - ";
    const std::string stats = vm + "{id: a, config: null, stats: ";
    for (const auto& [text, mistake] : std::vector<std::pair<std::string, std::string>>{
             {"", "1:1: expected a mapping, found nothing"},
             {"about: {name: a, version: b, build: c}", "1:1: expected the member vms, found none"},
             {vm + "{id: 16, config: null}", "2:10: vms[0].id: expected text in quotes, found 16"},
             {vm + "{id: '16'}", "2:5: vms[0]: expected the member config, found none"},
             {vm + "{id: '16', config: null, colour: red}",
              "2:30: vms[0]: expected one of id, config, runtime, guest, stats, found colour"},
             {vm + "{id: '16', config: null, guest: null}",
              "2:37: vms[0].guest: expected a mapping with the members of " +
                  std::string(Hask::Vm::GuestInfo::staticType.name) + ", found nothing"},
             {vm + "{id: a, config: null}\n  - {id: a, config: null}\n",
              "3:10: vms[1].id: expected an id that no other VM has, found the text \"a\""},
             {stats + "{cpu.idle: {'0': 1}}}",
              "2:35: vms[0].stats: expected a counter of the catalogue, found cpu.idle"},
             {stats + "{cpu.used: {'0': 1.5}}}",
              "2:51: vms[0].stats.\"cpu.used\".0: expected a whole number from -9223372036854775808 to "
              "9223372036854775807, found 1.5"},
             {stats + "{cpu.used: {'0': {start: 1}}}}",
              "2:51: vms[0].stats.\"cpu.used\".0: expected the member perSecond, found none"},
             {stats + "{cpu.used: {'0': {start: 1, perSecond: 1e19}}}}",
              "2:73: vms[0].stats.\"cpu.used\".0.perSecond: expected a rate of at most 10^18, found 1e19"},
             {stats + "{cpu.used: {'0': 1, \"0\": 2}}}",
              "2:54: vms[0].stats.\"cpu.used\": expected each key once, found 0 again"},
             {"counters: [{key: -1, group: a, name: b}]\nvms: []\n",
              "1:18: counters[0].key: expected a whole number from 0 to 2147483647, found -1"},
             {"counters: [{key: 1, group: a, name: b}, {key: 1, group: a, name: c}]\nvms: []\n",
              "1:47: counters[1].key: expected a key that no other counter has, found 1"},
             {"counters: [{key: 1, group: a, name: b, rollup: sum}]\nvms: []\n",
              "1:48: counters[0].rollup: expected one of average, maximum, minimum, latest, summation, none, "
              "found the text \"sum\""},
             {"datastores: [{id: a}, {id: a}]\nvms: []\n",
              "1:28: datastores[1].id: expected an id that no other datastore has, found the text \"a\""},
             {"datastores: [{name: a}]\nvms: []\n",
              "1:14: datastores[0]: expected the member id, found none"}}) {
        EXPECT_THAT([&] { ReadHost(text, "h.yaml"); }, ThrowsMessage<std::exception>("h.yaml:" + mistake))
            << text;
    }
}

TEST(DescribedHost, AcceptsADeviceOnAnUnknownDatastore) {
    EXPECT_NO_THROW(
        ReadHost("vms: [{id: '1', config: {name: a, guestFullName: b, hardware: {numCPU: 1, memoryMB: 1, "
                 "device: [{type: VirtualDisk, key: 1, backing: {type: FileBackingInfo, fileName: f, "
                 "datastore: nowhere}}]}}}]",
                 "h.yaml"));
}

TEST(DescribedHost, ReadsEverySampleHostAndHasABuiltInOne) {
    const auto samples = TestSupport::ListFiles(VESSAD_TEST_HOSTS);
    EXPECT_GE(samples.size(), 3U);  // one is the README
    for (const fs::path& file : samples) {
        if (file.extension() == ".yaml") {
            EXPECT_NO_THROW(MakeDescribedHost(file)) << file;
        }
    }
    const auto host = MakeBuiltInHost()->GetInventory();
    EXPECT_FALSE(host->vms.empty());
    EXPECT_NE(host->about, nullptr);
}

TEST_F(DescribedHostFile, IsRejectedUnlessItIsARegularFileOfAtMost64MiB) {
    const auto expectMistake = [](const fs::path& path, const std::string& mistake) {
        EXPECT_THAT([&] { MakeDescribedHost(path); }, ThrowsMessage<std::exception>(HasSubstr(mistake)));
    };
    expectMistake(file, file.string() + ": cannot read it: No such file or directory");
    expectMistake(directory.GetPath(), "it is no regular file");
    directory.Run("mkfifo host.yaml");
    expectMistake(file, "it is no regular file");
    directory.Run("rm host.yaml && truncate -s 67108865 host.yaml");
    expectMistake(file, "it is larger than 67108864 bytes");
}

TEST_F(DescribedHostFile, IsReadAgainOnReloadAndKeptWhenThatFails) {
    WriteAll(file, "vms: [{id: first, config: null}]");
    const auto backend = MakeDescribedHost(file);
    const auto first = backend->GetInventory();
    WriteAll(file, "vms: [{id: second, config: null}]");
    EXPECT_EQ(backend->GetInventory(), first);
    backend->Reload();
    const auto second = backend->GetInventory();
    EXPECT_EQ(first->vms[0]->id, "first");
    EXPECT_EQ(second->vms[0]->id, "second");
    const LogLines log;
    WriteAll(file, "vms: [{id: third}]");
    backend->Reload();
    fs::remove(file);
    backend->Reload();
    EXPECT_EQ(backend->GetInventory(), second);
    const std::string failed = "error Reload failed, keeping the current host description: " + file.string();
    EXPECT_EQ(log.GetText(), failed + ":1:7: vms[0]: expected the member config, found none\n" + failed +
                                 ": cannot read it: No such file or directory\n");
}

}  // namespace
}  // namespace Vessad
