#include "apps/vessad/backends/libvirt/Uri.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace Vessad::Libvirt {
namespace {

struct UriCase {
    const char* uri;
    bool local;
    const char* directory;  // null: unknown
};

class UriTest : public testing::TestWithParam<UriCase> {};

TEST_P(UriTest, HasLocalityAndConfigDirectory) {
    EXPECT_EQ(IsLocal(GetParam().uri), GetParam().local);
    EXPECT_EQ(ConfigDirectory(GetParam().uri).value_or("unknown"),
              GetParam().directory != nullptr ? GetParam().directory : "unknown");
}

INSTANTIATE_TEST_SUITE_P(
    Drivers, UriTest,
    testing::Values(UriCase{"qemu:///system", true, "/etc/libvirt/qemu/"},
                    UriCase{"qemu+unix:///system?socket=/run/a@b:c/sock", true, "/etc/libvirt/qemu/"},
                    UriCase{"qemu+ssh://root@example.org/system", false, "/etc/libvirt/qemu/"},
                    UriCase{"qemu+tcp://127.0.0.1:16509/system", false, "/etc/libvirt/qemu/"},
                    UriCase{"qemu:///embed?a=b&root=/srv/embedded", true, "/srv/embedded/etc/qemu/"},
                    UriCase{"qemu:///embed", true, nullptr},
                    UriCase{"qemu+ssh://example.org/session", false, nullptr},
                    UriCase{"lxc:///system", true, "/etc/libvirt/lxc/"},
                    UriCase{"xen:///system", true, "/etc/libvirt/libxl/"},
                    UriCase{"xen://example.org", false, "/etc/libvirt/libxl/"},
                    UriCase{"test:///default", true, nullptr}, UriCase{"vz:///system", true, nullptr},
                    UriCase{"nonsense", true, nullptr}));

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
