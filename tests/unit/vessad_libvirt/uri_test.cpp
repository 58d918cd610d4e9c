#include "apps/vessad/backends/libvirt/Uri.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace Vessad::Libvirt {
namespace {

// "LOCALITY DIRECTORY".
std::string Describe(const std::string& uri) {
    return (IsLocal(uri) ? "local " : "remote ") + ConfigDirectory(uri).value_or("unknown");
}

TEST(Uri, HasLocalityAndConfigDirectory) {
    EXPECT_EQ(Describe("qemu:///system"), "local /etc/libvirt/qemu/");
    EXPECT_EQ(Describe("qemu+unix:///system?socket=/run/a@b:c/sock"), "local /etc/libvirt/qemu/");
    EXPECT_EQ(Describe("qemu+ssh://root@example.org/system"), "remote /etc/libvirt/qemu/");
    EXPECT_EQ(Describe("qemu+tcp://127.0.0.1:16509/system"), "remote /etc/libvirt/qemu/");
    EXPECT_EQ(Describe("qemu:///embed?a=b&root=/srv/embedded"), "local /srv/embedded/etc/qemu/");
    EXPECT_EQ(Describe("qemu:///embed"), "local unknown");
    EXPECT_EQ(Describe("qemu+ssh://example.org/session"), "remote unknown");
    EXPECT_EQ(Describe("lxc:///system"), "local /etc/libvirt/lxc/");
    EXPECT_EQ(Describe("xen:///system"), "local /etc/libvirt/libxl/");
    EXPECT_EQ(Describe("xen://example.org"), "remote /etc/libvirt/libxl/");
    EXPECT_EQ(Describe("test:///default"), "local unknown");
    EXPECT_EQ(Describe("vz:///system"), "local unknown");
    EXPECT_EQ(Describe("nonsense"), "local unknown");
}

// In a process of its own, because it changes the environment.
TEST(ConfigDirectoryDeathTest, OfASessionIsInTheUsersOwn) {
    EXPECT_EXIT(
        {
            ::setenv("HOME", "/home/me", 1);
            ::unsetenv("XDG_CONFIG_HOME");
            const bool home = ConfigDirectory("qemu:///session") == "/home/me/.config/libvirt/qemu/";
            ::setenv("XDG_CONFIG_HOME", "/srv/configuration", 1);
            const bool xdg = ConfigDirectory("qemu:///session") == "/srv/configuration/libvirt/qemu/";
            std::exit(home && xdg ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Vessad::Libvirt
