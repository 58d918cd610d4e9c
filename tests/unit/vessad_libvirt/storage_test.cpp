#include "apps/vessad/backends/libvirt/Storage.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "tests/support/files.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad::Libvirt {
namespace {

const std::vector<Mount> mounts{
    {"/dev/sda1", "/", "ext4"},         {"/dev/mapper/vg", "/srv/images", "xfs"},
    {"server:/export", "/nfs", "nfs4"}, {"tank/vm", "/tank/vm", "zfs"},
    {"tmpfs", "/run", "tmpfs"},         {"/dev/sdb1", "/twice", "ext4"},
    {"/dev/sdc1", "/twice", "xfs"},
};

// "ID NAME URL RELATIVE DEVICE" of the place of `file`.
std::string Locate(const Storage& storage, const std::string& file) {
    const Place place = storage.Locate(file);
    return place.datastoreId + " " + place.datastoreName + " " + place.url + " " + place.relative + " " +
           place.device.value_or("none");
}

TEST(Storage, LocatesFilesInPoolsElseInFileSystemsOrDirectoriesOfARemoteHost) {
    const std::map<std::string, Storage> hosts{
        {"plain", {mounts, {}}},
        {"pools",
         {mounts,
          {{"default", "dir", "/srv/images", ""},
           {"inner", "dir", "/srv/images/inner", ""},
           {"shared", "netfs", "/srv/images/shared", ""}}}},
        {"remote", {std::nullopt, {{"default", "dir", "/pool", ""}, {"disk", "fs", "/disk", "/dev/sdb1"}}}}};
    for (const auto& [file, place] : TestSupport::ReadCases(LIBVIRT_TEST_CASES "/places.txt")) {
        const std::size_t blank = file.find(' ');
        EXPECT_EQ(Locate(hosts.at(file.substr(0, blank)), file.substr(blank + 1)), place) << file;
    }
}

class LinksTest : public testing::Test {
  protected:
    VessadTest::TemporaryDirectory directory;
    const std::string root = std::filesystem::canonical(directory.GetPath());
    const std::vector<Mount> local{{"/dev/sda1", "/", "ext4"}};
};

TEST_F(LinksTest, OfDirectoriesAndFilesAreFollowedButNotForeverInACircle) {
    directory.Run(
        "mkdir real && ln -s real relative && ln -s \"$PWD/relative\" absolute && "
        "ln -s ../real/./1.img real/link.img && ln -s b a && ln -s a b");
    const Storage storage(local, {{"pool", "dir", root + "/absolute", ""}});
    const std::string pool = "pool:pool pool " + root + "/real/ ";
    EXPECT_EQ(Locate(storage, root + "/absolute/link.img"), pool + "1.img /dev/sda1");
    EXPECT_EQ(Locate(storage, root + "/real/missing.img"), pool + "missing.img /dev/sda1");
    EXPECT_EQ(storage.Locate(root + "/a").datastoreName, "/");
}

TEST_F(LinksTest, OnANetworkFileSystemAreNotRead) {
    directory.Run("ln -s / link");
    const Storage storage({{local[0], {"server:/x", root, "nfs"}}}, {});
    EXPECT_EQ(storage.Locate(root + "/link/1.img").relative, "link/1.img");
}

TEST(ReadMounts, ReturnsSourceDirectoryAndTypeWithEscapedBlanks) {
    const VessadTest::TemporaryDirectory directory;
    const auto table = directory.GetPath() / "mounts";
    VessadTest::WriteAll(table,
                         "/dev/sda1 / ext4 rw,relatime 0 0\nserver:/a\\040b /mnt/a\\040b/ nfs4 rw 0 0\n");
    const std::vector<Mount> expected{{"/dev/sda1", "/", "ext4"}, {"server:/a b", "/mnt/a b", "nfs4"}};
    EXPECT_EQ(ReadMounts(table.c_str()), expected);
    EXPECT_TRUE(ReadMounts("/does/not/exist").empty());
    EXPECT_FALSE(ReadMounts().empty());
}

TEST(ParsePool, ReturnsPoolsThatAreDirectoriesOfFiles) {
    const auto parse = [](const std::string& type, const std::string& source, const std::string& target) {
        return ParsePool("<pool type='" + type + "'><name>n</name><source>" + source + "</source>" + target +
                         "</pool>");
    };
    const std::string target = "<target><path>/a/b/</path></target>";
    EXPECT_EQ(parse("dir", "", target), (Pool{"n", "dir", "/a/b", ""}));
    EXPECT_EQ(parse("fs", "<device path='/dev/sdb1'/>", target), (Pool{"n", "fs", "/a/b", "/dev/sdb1"}));
    EXPECT_EQ(parse("netfs", "<host name='h'/><dir path='/x'/>", target), (Pool{"n", "netfs", "/a/b", ""}));
    EXPECT_EQ(parse("logical", "", target), std::nullopt);
    EXPECT_EQ(parse("dir", "", ""), std::nullopt);
    EXPECT_EQ(ParsePool("<pool"), std::nullopt);
}

}  // namespace
}  // namespace Vessad::Libvirt
