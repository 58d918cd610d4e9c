// Gives a fuzz target its seed corpus, one test per file, in builds without a fuzzer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "runtime/tessim/string_util.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/files.h"

namespace {

std::vector<std::filesystem::path> Corpus() {
    std::vector<std::filesystem::path> corpus;
    for (const std::string& folder : Tessim::StringUtil::Tokenize(FUZZ_CORPUS, ":")) {
        const std::vector<std::filesystem::path> files = TestSupport::ListFiles(folder);
        corpus.insert(corpus.end(), files.begin(), files.end());
    }
    return corpus;
}

std::string Name(const testing::TestParamInfo<std::filesystem::path>& file) {
    std::string name = (file.param.parent_path().filename() / file.param.filename()).string();
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

class Replay : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(Replay, NeitherCrashesNorLeaks) {
    const std::string input = TestSupport::ReadFile(GetParam());
    EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()), 0);
}

INSTANTIATE_TEST_SUITE_P(Corpus, Replay, testing::ValuesIn(Corpus()), Name);

}  // namespace
