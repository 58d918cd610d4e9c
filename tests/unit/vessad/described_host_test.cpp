#include "apps/vessad/backends/DescribedHost.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/files.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad {
namespace {

namespace fs = std::filesystem;
using Hask::PerformanceManager;
using ::testing::ElementsAre;
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

TEST(DescribedHost, HasTheStandardCountersUnlessItDefinesItsOwn) {
    std::vector<std::string> names;
    std::int32_t key = 0;
    const auto host = ReadHost("vms: []", "h.yaml");
    for (const auto& counter : host->counters) {
        names.push_back(counter->GetGroupInfo()->GetKey() + "." + counter->GetNameInfo()->GetKey());
        EXPECT_EQ(counter->GetKey(), ++key);
    }
    EXPECT_THAT(names,
                ElementsAre("disk.numberRead", "disk.numberWrite", "disk.read", "disk.write", "net.received",
                            "net.transmitted", "net.packetsTx", "net.packetsRx", "mem.active", "cpu.used"));
    EXPECT_TRUE(ReadHost("{counters: [], vms: []}", "h.yaml")->counters.empty());
}

TEST(DescribedHost, AssignsStatisticsToTheFirstCounterOfAName) {
    const auto host = ReadHost(R"(
counters:
  - {key: 9, group: mem, name: active}
  - {key: 91, group: cpu, name: used, rollup: maximum}
  - {key: 7, group: cpu, name: used, rollup: summation}
vms: [{id: "1", config: null, stats: {cpu.used: {"0": 5, "": 6}, mem.active: {"": 7}}}]
)",
                               "h.yaml");
    ASSERT_EQ(host->counters.size(), 3U);
    EXPECT_EQ(host->counters[0]->GetRollupType(), PerformanceManager::RollupType::average);
    EXPECT_EQ(host->counters[1]->GetRollupType(), PerformanceManager::RollupType::maximum);
    const auto& series = host->vms[0]->series;
    ASSERT_EQ(series.size(), 3U);
    EXPECT_EQ(series[0].counterKey, 91);
    EXPECT_EQ(series[0].instance, "0");
    EXPECT_EQ(series[1].counterKey, 91);
    EXPECT_EQ(series[1].instance, "");
    EXPECT_EQ(series[2].counterKey, 9);
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

TEST(DescribedHost, ReadsEverySampleHost) {
    const auto samples = TestSupport::ListFiles(VESSAD_TEST_HOSTS);
    EXPECT_GE(samples.size(), 3U);  // one is the README
    for (const fs::path& file : samples) {
        if (file.extension() == ".yaml") {
            EXPECT_NO_THROW(MakeDescribedHost(file)) << file;
        }
    }
}

TEST(DescribedHost, HasABuiltInSample) {
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
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    expectMistake(file, "it is no regular file");
    fs::remove(file);
    WriteAll(file, "vms: []\n");
    fs::resize_file(file, 64UL * 1024 * 1024 + 1);
    expectMistake(file, "it is larger than 67108864 bytes");
}

TEST_F(DescribedHostFile, IsReadAgainOnReloadAndKeptWhenThatFails) {
    WriteAll(file, "vms: [{id: first, config: null}]");
    const auto backend = MakeDescribedHost(file);
    const auto before = backend->GetInventory();
    WriteAll(file, "vms: [{id: second, config: null}]");
    EXPECT_EQ(backend->GetInventory(), before);
    backend->Reload();
    EXPECT_EQ(backend->GetInventory()->vms[0]->id, "second");
    EXPECT_EQ(before->vms[0]->id, "first");

    const LogLines log;
    WriteAll(file, "vms: [{id: third}]");
    backend->Reload();
    EXPECT_EQ(backend->GetInventory()->vms[0]->id, "second");
    EXPECT_THAT(log.GetText(),
                HasSubstr("error Reload failed, keeping the current host description: " + file.string() +
                          ":1:7: vms[0]: expected the member config, found none"));
    fs::remove(file);
    backend->Reload();
    EXPECT_EQ(backend->GetInventory()->vms[0]->id, "second");
    EXPECT_THAT(log.GetText(), HasSubstr("No such file or directory"));
}

}  // namespace
}  // namespace Vessad
