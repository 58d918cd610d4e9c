#include "apps/vessad/backends/libvirt/Storage.h"

#include <gtest/gtest.h>

#include <filesystem>

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

TEST(Storage, LocatesFilesInFileSystems) {
    const Storage host(mounts, {});
    EXPECT_EQ(Locate(host, "/srv/images/web/1.qcow2"),
              "directory:/srv/images /srv/images /srv/images/ web/1.qcow2 /dev/mapper/vg");
    EXPECT_EQ(Locate(host, "/srv/images2/1.img"), "directory:/ / / srv/images2/1.img /dev/sda1");
    EXPECT_EQ(Locate(host, "/nfs/1.img"), "directory:/nfs /nfs /nfs/ 1.img none");
    EXPECT_EQ(Locate(host, "/run/1.img"), "directory:/run /run /run/ 1.img none");
    EXPECT_EQ(Locate(host, "/tank/vm/1.img"), "directory:/tank/vm /tank/vm /tank/vm/ 1.img tank/vm");
    EXPECT_EQ(Locate(host, "/twice/1"), "directory:/twice /twice /twice/ 1 /dev/sdc1");
}

TEST(Storage, LocatesFilesInPools) {
    const Storage host(mounts, {{"default", "dir", "/srv/images", ""},
                                {"inner", "dir", "/srv/images/inner", ""},
                                {"shared", "netfs", "/srv/images/shared", ""}});
    EXPECT_EQ(Locate(host, "/srv/images/web 1.img"),
              "pool:default default /srv/images/ web 1.img /dev/mapper/vg");
    EXPECT_EQ(Locate(host, "/srv/images/inner/1.img"),
              "pool:inner inner /srv/images/inner/ 1.img /dev/mapper/vg");
    EXPECT_EQ(Locate(host, "/srv/images/shared/1.img"), "pool:shared shared /srv/images/shared/ 1.img none");
}

TEST(Storage, LocatesFilesOfARemoteHostInPoolsAndDirectories) {
    const Storage host(std::nullopt, {{"default", "dir", "/pool", ""}, {"disk", "fs", "/disk", "/dev/sdb1"}});
    EXPECT_EQ(Locate(host, "/pool/1.img"), "pool:default default /pool/ 1.img /pool");
    EXPECT_EQ(Locate(host, "/disk/1.img"), "pool:disk disk /disk/ 1.img /dev/sdb1");
    EXPECT_EQ(Locate(host, "/other/vm/1.img"), "directory:/other/vm /other/vm /other/vm/ 1.img /other/vm");
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
