// Gives a fuzz target its seed corpus, one test per file, in builds without a fuzzer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "runtime/tessim/string_util.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/files.h"

namespace {

class Replay final : public testing::Test {
  public:
    explicit Replay(std::filesystem::path file) : file(std::move(file)) {}

    void TestBody() override {
        const std::string input = TestSupport::ReadFile(file);
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()),
                  0);
    }

  private:
    std::filesystem::path file;
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (const std::string& folder : Tessim::StringUtil::Tokenize(FUZZ_CORPUS, ":")) {
        for (const std::filesystem::path& file : TestSupport::ListFiles(folder)) {
            std::string name = file.filename().string();
            std::replace_if(
                name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
            testing::RegisterTest("Replay_" FUZZ_TARGET, name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                                  [file]() -> testing::Test* { return new Replay(file); });
        }
    }
    return RUN_ALL_TESTS();
}
