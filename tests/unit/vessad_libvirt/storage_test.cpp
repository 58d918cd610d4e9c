#include "apps/vessad/backends/libvirt/Storage.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad::Libvirt {
namespace {

const std::vector<Mount> mounts{
    {"/dev/sda1", "/", "ext4"},
    {"/dev/mapper/vg-images", "/srv/images", "xfs"},
    {"server:/export", "/mnt/nfs", "nfs4"},
    {"tank/vm", "/tank/vm", "zfs"},
    {"tmpfs", "/run", "tmpfs"},
};

TEST(Storage, NamesTheFileSystemOfAFileAndItsDevice) {
    const Storage storage(mounts, {});
    const Place place = storage.Locate("/srv/images/web/1.qcow2");
    EXPECT_EQ(place.datastoreId, "directory:/srv/images");
    EXPECT_EQ(place.datastoreName, "/srv/images");
    EXPECT_EQ(place.url, "/srv/images/");
    EXPECT_EQ(place.relative, "web/1.qcow2");
    EXPECT_EQ(place.device, "/dev/mapper/vg-images");
}

TEST(Storage, TakesTheRootFileSystemForWhatLiesInNoOther) {
    const Storage storage(mounts, {});
    const Place place = storage.Locate("/srv/images2/1.img");
    EXPECT_EQ(place.datastoreName, "/");
    EXPECT_EQ(place.url, "/");
    EXPECT_EQ(place.relative, "srv/images2/1.img");
    EXPECT_EQ(place.device, "/dev/sda1");
}

TEST(Storage, HasADeviceOnlyForFileSystemsOnOneOfThisHost) {
    const Storage storage(mounts, {});
    EXPECT_EQ(storage.Locate("/mnt/nfs/1.img").device, std::nullopt);
    EXPECT_EQ(storage.Locate("/run/1.img").device, std::nullopt);
    EXPECT_EQ(storage.Locate("/tank/vm/1.img").device, "tank/vm");
}

TEST(Storage, SeesTheLastOfTheFileSystemsOfOneDirectory) {
    const Storage storage(
        {{{"/dev/sda1", "/", "ext4"}, {"/dev/sdb1", "/a", "ext4"}, {"/dev/sdc1", "/a", "xfs"}}}, {});
    EXPECT_EQ(storage.Locate("/a/1").device, "/dev/sdc1");
}

TEST(Storage, NamesThePoolThatHoldsAFile) {
    const Storage storage(mounts,
                          {{"default", "dir", "/srv/images", ""}, {"inner", "dir", "/srv/images/inner", ""}});
    Place place = storage.Locate("/srv/images/web 1.img");
    EXPECT_EQ(place.datastoreId, "pool:default");
    EXPECT_EQ(place.datastoreName, "default");
    EXPECT_EQ(place.url, "/srv/images/");
    EXPECT_EQ(place.relative, "web 1.img");
    EXPECT_EQ(place.device, "/dev/mapper/vg-images");
    place = storage.Locate("/srv/images/inner/1.img");
    EXPECT_EQ(place.datastoreName, "inner");
    EXPECT_EQ(place.relative, "1.img");
}

TEST(Storage, HasNoDeviceForAPoolOnTheNetwork) {
    const Storage storage(mounts, {{"shared", "netfs", "/srv/images", ""}});
    EXPECT_EQ(storage.Locate("/srv/images/1.img").device, std::nullopt);
}

TEST(Storage, OfAnotherMachineTakesTheDirectoryForTheDevice) {
    const Storage storage(std::nullopt,
                          {{"default", "dir", "/pool", ""}, {"disk", "fs", "/disk", "/dev/sdb1"}});
    EXPECT_EQ(storage.Locate("/pool/1.img").device, "/pool");
    EXPECT_EQ(storage.Locate("/disk/1.img").device, "/dev/sdb1");
    const Place place = storage.Locate("/elsewhere/vm/1.img");
    EXPECT_EQ(place.datastoreName, "/elsewhere/vm");
    EXPECT_EQ(place.relative, "1.img");
    EXPECT_EQ(place.device, "/elsewhere/vm");
}

TEST(Storage, FollowsLinksOfDirectoriesAndFiles) {
    const VessadTest::TemporaryDirectory directory;
    const auto root = std::filesystem::canonical(directory.GetPath());
    std::filesystem::create_directory(root / "real");
    std::filesystem::create_directory_symlink("real", root / "relative");
    std::filesystem::create_directory_symlink(root / "relative", root / "absolute");
    std::filesystem::create_symlink("../real/./1.img", root / "real" / "link.img");
    const Storage storage({{{"/dev/sda1", "/", "ext4"}}},
                          {{"pool", "dir", (root / "absolute").string(), ""}});
    EXPECT_EQ(storage.Locate(root / "absolute" / "link.img").relative, "1.img");
    EXPECT_EQ(storage.Locate(root / "absolute" / "link.img").datastoreName, "pool");
    EXPECT_EQ(storage.Locate(root / "real" / "missing.img").datastoreName, "pool");
}

TEST(Storage, EndsWithLinksThatLeadInACircle) {
    const VessadTest::TemporaryDirectory directory;
    std::filesystem::create_symlink("b", directory.GetPath() / "a");
    std::filesystem::create_symlink("a", directory.GetPath() / "b");
    const Storage storage({{{"/dev/sda1", "/", "ext4"}}}, {});
    EXPECT_EQ(storage.Locate(directory.GetPath() / "a").datastoreName, "/");
}

TEST(Storage, AsksNothingOfANetworkFileSystemThatMayHang) {
    const VessadTest::TemporaryDirectory directory;
    const auto root = std::filesystem::canonical(directory.GetPath());
    std::filesystem::create_directory_symlink("/", root / "link");
    const Storage storage({{{"/dev/sda1", "/", "ext4"}, {"server:/x", root.string(), "nfs"}}}, {});
    EXPECT_EQ(storage.Locate(root / "link" / "1.img").relative, "link/1.img");
}

TEST(ReadMounts, TellsSourceDirectoryAndTypeWithBlanksAndAll) {
    const VessadTest::TemporaryDirectory directory;
    const auto table = directory.GetPath() / "mounts";
    VessadTest::WriteAll(table,
                         "/dev/sda1 / ext4 rw,relatime 0 0\nserver:/a\\040b /mnt/a\\040b/ nfs4 rw 0 0\n");
    const std::vector<Mount> expected{{"/dev/sda1", "/", "ext4"}, {"server:/a b", "/mnt/a b", "nfs4"}};
    EXPECT_EQ(ReadMounts(table.c_str()), expected);
    EXPECT_TRUE(ReadMounts("/does/not/exist").empty());
    EXPECT_FALSE(ReadMounts().empty());
}

TEST(ParsePool, KnowsPoolsThatAreDirectoriesOfFiles) {
    EXPECT_EQ(
        ParsePool("<pool type='dir'><name>default</name><source/><target><path>/a/b/</path></target></pool>"),
        (Pool{"default", "dir", "/a/b", ""}));
    EXPECT_EQ(ParsePool("<pool type='fs'><name>f</name><source><device path='/dev/sdb1'/></source>"
                        "<target><path>/f</path></target></pool>"),
              (Pool{"f", "fs", "/f", "/dev/sdb1"}));
    EXPECT_EQ(ParsePool("<pool type='netfs'><name>n</name><source><host name='h'/><dir path='/x'/></source>"
                        "<target><path>/n</path></target></pool>"),
              (Pool{"n", "netfs", "/n", ""}));
}

TEST(ParsePool, PassesOverOthers) {
    EXPECT_EQ(ParsePool("<pool type='logical'><name>vg</name><target><path>/dev/vg</path></target></pool>"),
              std::nullopt);
    EXPECT_EQ(ParsePool("<pool type='dir'><name>x</name></pool>"), std::nullopt);
    EXPECT_EQ(ParsePool("<pool"), std::nullopt);
}

}  // namespace
}  // namespace Vessad::Libvirt
