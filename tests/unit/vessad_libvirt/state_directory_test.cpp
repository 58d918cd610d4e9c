// What VmIds trusts of the state directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

#include "apps/vessad/backends/libvirt/VmIds.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad::Libvirt {
namespace {

using testing::HasSubstr;

constexpr mode_t privateMode = 0700;
constexpr uid_t anotherUser = 12345;

struct Case {
    const char* name;
    std::function<void(const std::filesystem::path& directory, const std::filesystem::path& file)> change;
    const char* reason;
    bool needsRoot = false;
};

class StateDirectoryTest : public testing::TestWithParam<Case> {};

TEST_P(StateDirectoryTest, IsRefusedWithTheReason) {
    if (GetParam().needsRoot && ::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file away";
    }
    const VessadTest::TemporaryDirectory temporary;
    const auto directory = temporary.GetPath() / "state";
    ASSERT_EQ(::mkdir(directory.c_str(), privateMode), 0);
    VmIds{directory};  // is accepted as it is
    GetParam().change(directory, directory / "identities");
    try {
        VmIds{directory};
        ADD_FAILURE() << "accepted";
    } catch (const std::runtime_error& refused) {
        EXPECT_THAT(refused.what(), HasSubstr(GetParam().reason));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Changes, StateDirectoryTest,
    testing::Values(
        Case{"DirectoryOfAnotherUser",
             [](const auto& directory, const auto&) {
                 EXPECT_EQ(::chown(directory.c_str(), anotherUser, 0), 0);
             },
             "belongs to another user", true},
        Case{"DirectoryThatOthersMayWriteTo",
             [](const auto& directory, const auto&) { EXPECT_EQ(::chmod(directory.c_str(), 0770), 0); },
             "is writable by others"},
        Case{"DirectoryThatIsASymbolicLink",
             [](const auto& directory, const auto&) {
                 const auto real = directory.parent_path() / "real";
                 std::filesystem::rename(directory, real);
                 std::filesystem::create_directory_symlink(real, directory);
             },
             "cannot open the state directory"},
        Case{"FileOfAnotherUser",
             [](const auto&, const auto& file) { EXPECT_EQ(::chown(file.c_str(), anotherUser, 0), 0); },
             "identities belongs to another user", true},
        Case{"FileThatOthersMayWriteTo",
             [](const auto&, const auto& file) { EXPECT_EQ(::chmod(file.c_str(), 0662), 0); },
             "identities is writable by others"},
        Case{"FileThatIsASymbolicLink",
             [](const auto& directory, const auto& file) {
                 std::filesystem::rename(file, directory / "real");
                 std::filesystem::create_symlink("real", file);
             },
             "cannot read"},
        Case{"FileThatIsAFifo",
             [](const auto&, const auto& file) {
                 std::filesystem::remove(file);
                 EXPECT_EQ(::mkfifo(file.c_str(), 0600), 0);
             },
             "is not a regular file"},
        Case{"FileThatIsTooLarge",
             [](const auto&, const auto& file) { std::filesystem::resize_file(file, 1ULL << 40); },
             "has 1099511627776 bytes, more than any VM ids take"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace Vessad::Libvirt
