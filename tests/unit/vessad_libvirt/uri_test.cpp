// URIs: where they lead, those that can never work, and hosts that are not there yet.
#include "apps/vessad/backends/libvirt/Uri.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "apps/vessad/backends/LibvirtBackend.h"
#include "tests/support/files.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad::Libvirt {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::ThrowsMessage;

// "LOCALITY DIRECTORY".
std::string Describe(const std::string& uri) {
    EXPECT_EQ(FindMistake(uri), std::nullopt) << uri;
    return (IsLocal(uri) ? "local " : "remote ") + ConfigDirectory(uri).value_or("unknown");
}

TEST(Uri, HasLocalityAndConfigDirectory) {
    for (const auto& [uri, description] : TestSupport::ReadCases(LIBVIRT_TEST_CASES "/uris.txt")) {
        EXPECT_EQ(Describe(uri), description) << uri;
    }
}

// In a process of its own, because it changes the environment.
TEST(ConfigDirectoryDeathTest, OfASessionIsInTheUsersOwn) {
    EXPECT_EXIT(
        {
            ::setenv("HOME", "/home/me", 1);
            ::unsetenv("XDG_CONFIG_HOME");
            const bool home = ConfigDirectory("qemu:///session") == "/home/me/.config/libvirt/qemu/";
            ::setenv("XDG_CONFIG_HOME", "/srv/configuration", 1);
            const bool xdg = Describe("qemu:///session") == "local /srv/configuration/libvirt/qemu/";
            std::exit(home && xdg ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// There need be no libvirtd for it.
TEST(Uri, ThatCanNeverWorkIsRefusedAtOnceWithTheReason) {
    const VessadTest::LogLines log;
    const VessadTest::TemporaryDirectory directory;
    VessadTest::WriteAll(directory.GetPath() / "host.xml", "<other/>");
    auto cases = TestSupport::ReadCases(LIBVIRT_TEST_CASES "/useless_uris.txt");
    cases.push_back({"test://" + (directory.GetPath() / "host.xml").string(), "'node', not 'other'"});
    for (const auto& [uri, reason] : cases) {
        const auto make = [&, uri = uri] { MakeLibvirtBackend(uri, directory.GetPath() / "state", {}); };
        EXPECT_THAT(make, ThrowsMessage<std::runtime_error>(AllOf(
                              HasSubstr("the libvirt URI " + uri + " cannot be used: "), HasSubstr(reason))))
            << uri;
    }
}

TEST(Uri, OfAHostThatIsDownYieldsAnInventoryWithoutVms) {
    const VessadTest::TemporaryDirectory directory;
    const VessadTest::LogLines log;
    const auto backend =
        MakeLibvirtBackend("qemu+unix:///system?socket=" + (directory.GetPath() / "none").string(),
                           directory.GetPath() / "state", {});
    EXPECT_TRUE(backend->GetInventory()->vms.empty());
    EXPECT_EQ(log.Count("warning The host's libvirt cannot be reached: Failed to connect socket"), 1);
    EXPECT_EQ(log.Count("; there is no inventory until this succeeds"), 1);
    EXPECT_EQ(log.Count("the last inventory serves"), 0);
}

}  // namespace
}  // namespace Vessad::Libvirt
