#include "apps/vessad/backends/libvirt/Uri.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace Vessad::Libvirt {
namespace {

class EnvironmentVariable {
  public:
    EnvironmentVariable(const char* name, const char* value) : name(name) {
        if (const char* old = std::getenv(name)) {
            before = old;
        }
        Set(value);
    }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;
    ~EnvironmentVariable() { Set(before ? before->c_str() : nullptr); }

  private:
    void Set(const char* value) const {
        if (value != nullptr) {
            ::setenv(name, value, 1);
        } else {
            ::unsetenv(name);
        }
    }

    const char* name;
    std::optional<std::string> before;
};

TEST(IsLocal, HoldsForAUriWithoutAHost) {
    EXPECT_TRUE(IsLocal("qemu:///system"));
    EXPECT_TRUE(IsLocal("qemu+unix:///system?socket=/run/a@b:c/sock"));
    EXPECT_TRUE(IsLocal("test:///default"));
    EXPECT_FALSE(IsLocal("qemu+ssh://root@example.org/system"));
    EXPECT_FALSE(IsLocal("qemu+tcp://127.0.0.1:16509/system"));
    EXPECT_FALSE(IsLocal("xen://example.org"));
}

TEST(ConfigDirectory, IsTheDriversOwn) {
    EXPECT_EQ(ConfigDirectory("qemu:///system"), "/etc/libvirt/qemu/");
    EXPECT_EQ(ConfigDirectory("qemu+ssh://root@example.org/system"), "/etc/libvirt/qemu/");
    EXPECT_EQ(ConfigDirectory("lxc:///system"), "/etc/libvirt/lxc/");
    EXPECT_EQ(ConfigDirectory("xen:///system"), "/etc/libvirt/libxl/");
    EXPECT_EQ(ConfigDirectory("qemu:///embed?a=b&root=/srv/embedded"), "/srv/embedded/etc/qemu/");
}

TEST(ConfigDirectory, IsUnknownForDriversThatKeepNoFiles) {
    EXPECT_EQ(ConfigDirectory("test:///default"), std::nullopt);
    EXPECT_EQ(ConfigDirectory("vz:///system"), std::nullopt);
    EXPECT_EQ(ConfigDirectory("qemu:///embed"), std::nullopt);
    EXPECT_EQ(ConfigDirectory("nonsense"), std::nullopt);
}

TEST(ConfigDirectory, OfASessionIsInTheUsersOwn) {
    const EnvironmentVariable home("HOME", "/home/me");
    {
        const EnvironmentVariable configuration("XDG_CONFIG_HOME", nullptr);
        EXPECT_EQ(ConfigDirectory("qemu:///session"), "/home/me/.config/libvirt/qemu/");
    }
    const EnvironmentVariable configuration("XDG_CONFIG_HOME", "/srv/configuration");
    EXPECT_EQ(ConfigDirectory("qemu:///session"), "/srv/configuration/libvirt/qemu/");
    EXPECT_EQ(ConfigDirectory("qemu+ssh://example.org/session"), std::nullopt);
}

}  // namespace
}  // namespace Vessad::Libvirt
