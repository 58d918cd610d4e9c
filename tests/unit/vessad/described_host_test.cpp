#include "apps/vessad/backends/DescribedHost.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "apps/vessad/backends/HostDescription.h"
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

TEST(DescribedHost, IsReadOrRejectedWithPlaceAndExpectationOfTheMistake) {
    for (const auto& [text, expected] : TestSupport::ReadCases(VESSAD_TEST_CASES "/described_hosts.txt")) {
        std::string outcome;
        try {
            outcome = Catalogue(text);
        } catch (const std::exception& error) {
            outcome = error.what();
        }
        EXPECT_EQ(outcome, expected) << text;
    }
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
    expectMistake(directory.GetPath(), "it is not a regular file");
    directory.Run("mkfifo host.yaml");
    expectMistake(file, "it is not a regular file");
    directory.Run("rm host.yaml && truncate -s 67108865 host.yaml");
    expectMistake(file, "it is larger than 67108864 bytes");
}

TEST_F(DescribedHostFile, IsServedWithAWarningForADatastoreThatDoesNotExist) {
    WriteAll(file,
             "vms: [{id: a, config: {name: b, guestFullName: c, files: {vmPathName: '[gone] a.cfg'}}}]");
    const LogLines log;
    EXPECT_EQ(MakeDescribedHost(file)->GetInventory()->vms.size(), 1U);
    EXPECT_EQ(
        log.GetText(),
        "warning Unknown datastore in the host description: " + file.string() +
            ":1:71: vms[0].config.files.vmPathName: expected the name of a datastore in brackets, found "
            "the text \"[gone] a.cfg\"\ninfo Read " +
            file.string() + ": 1 VMs, 0 datastores\n");
}

TEST_F(DescribedHostFile, IsReadAgainOnReloadAndKeptWhenThatFails) {
    WriteAll(file, "vms: [{id: first, config: null}]");
    const auto backend = MakeDescribedHost(file);
    const auto first = backend->GetInventory();
    WriteAll(file, "vms: [{id: second, config: null}]");
    EXPECT_EQ(backend->GetInventory(), first);
    backend->Reload();
    const auto second = backend->GetInventory();
    const SourceStatus read = backend->GetStatus();
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
    const SourceStatus unread = backend->GetStatus();
    EXPECT_EQ(read.source, "described host " + file.string());
    EXPECT_TRUE(read.connected && read.age && !read.lastError);
    EXPECT_EQ(unread.source, read.source);
    EXPECT_TRUE(!unread.connected && unread.age >= read.age);
    EXPECT_EQ(unread.lastError, file.string() + ": cannot read it: No such file or directory");
    WriteAll(file, "vms: []");
    backend->Reload();
    EXPECT_TRUE(backend->GetStatus().connected && !backend->GetStatus().lastError);
}

}  // namespace
}  // namespace Vessad
