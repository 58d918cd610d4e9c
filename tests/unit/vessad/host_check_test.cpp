#include "apps/vessad/backends/HostCheck.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "tests/support/files.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad {
namespace {

using VessadTest::TemporaryDirectory;
using VessadTest::WriteAll;

class HostCheck : public ::testing::Test {
  protected:
    // Returns the exit code and what the check of h.yaml prints; a success prints no mistakes, a failure
    // nothing else.
    std::string Check() const {
        std::ostringstream summary;
        std::ostringstream mistakes;
        const int code = CheckHost(file, summary, mistakes);
        EXPECT_EQ((code == 0 ? mistakes : summary).str(), "");
        std::string text = std::to_string(code) + " " + summary.str() + mistakes.str();
        const std::string folder = directory.GetPath().string() + "/";
        for (std::size_t at = 0; (at = text.find(folder, at)) != std::string::npos;) {
            text.erase(at, folder.size());
        }
        return text;
    }
    std::string Check(const std::string& description) const {
        WriteAll(file, description);
        return Check();
    }

    TemporaryDirectory directory;
    const std::filesystem::path file = directory.GetPath() / "h.yaml";
};

TEST_F(HostCheck, PrintsASummaryOrEveryMistake) {
    for (const auto& [text, expected] : TestSupport::ReadCases(VESSAD_TEST_CASES "/host_checks.txt")) {
        EXPECT_EQ(Check(text), expected) << text;
    }
}

TEST_F(HostCheck, PrintsAtMost100MistakesAndTheNumberOfTheOthers) {
    std::string description = "vms:\n";
    std::string expected = "1 ";
    for (int number = 0; number < 150; ++number) {
        description += "- {id: '" + std::to_string(number) + "'}\n";
        if (number < 100) {
            expected += "h.yaml:" + std::to_string(number + 2) + ":3: vms[" + std::to_string(number) +
                        "]: expected the member config, found none\n";
        }
    }
    EXPECT_EQ(Check(description), expected + "and 50 more\n");
}

TEST_F(HostCheck, PrintsWhyAFileCannotBeRead) {
    EXPECT_EQ(Check(), "1 h.yaml: cannot read it: No such file or directory\n");
    directory.Run("mkdir h.yaml");
    EXPECT_EQ(Check(), "1 h.yaml: cannot read it: it is not a regular file\n");
}

TEST_F(HostCheck, FindsWhatLoadingFailsWith) {
    for (const auto& [text, outcome] : TestSupport::ReadCases(VESSAD_TEST_CASES "/described_hosts.txt")) {
        if (outcome.starts_with("h.yaml:")) {
            EXPECT_NE(Check(text).find(outcome + "\n"), std::string::npos) << text;
        }
    }
}

}  // namespace
}  // namespace Vessad
