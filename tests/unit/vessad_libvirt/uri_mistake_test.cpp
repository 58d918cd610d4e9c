// URIs that can never work, and hosts that are not there yet.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "apps/vessad/backends/LibvirtBackend.h"
#include "apps/vessad/backends/libvirt/Uri.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class WrongUriTest : public testing::TestWithParam<std::pair<std::string, std::string>> {};

// There need be no libvirtd for it.
TEST_P(WrongUriTest, IsRefusedAtOnceWithTheReason) {
    const VessadTest::TemporaryDirectory directory;
    const auto& [uri, reason] = GetParam();
    try {
        MakeLibvirtBackend(uri, directory.GetPath() / "state");
        ADD_FAILURE() << "accepted";
    } catch (const std::runtime_error& refused) {
        EXPECT_THAT(refused.what(),
                    AllOf(HasSubstr("the libvirt URI " + uri + " cannot be used: "), HasSubstr(reason)));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Mistakes, WrongUriTest,
    testing::Values(std::pair("", "it is empty"), std::pair("qemu:///sys tem", "a blank"),
                    std::pair(":///system", "it names no driver"),
                    std::pair("qemu:///sytem", R"(no path "/sytem", only "/system", "/session", "/embed")"),
                    std::pair("qemu://system", R"(no path "")"),
                    std::pair("qemu+ssh://root@example.org/", R"(no path "/")"),
                    std::pair("lxc:///sytem", R"(no path "/sytem")"),
                    std::pair("xen:///sytem", R"(no path "/sytem")"),
                    // As libvirt says:
                    std::pair("qemu+foo:///system", "transport"), std::pair("no-alias", "driver")));

TEST(UriMistake, IsNoneWhereOnlyTheHostCanSay) {
    for (const char* const uri : {"qemu:///system", "qemu:///session", "qemu:///embed?root=/srv",
                                  "qemu+ssh://root@example.org/system", "lxc:///", "lxc:///system",
                                  "xen://example.org", "test:///default", "bhyve:///system", "alias"}) {
        EXPECT_EQ(Libvirt::FindMistake(uri), std::nullopt) << uri;
    }
}

TEST(FirstStart, PromisesNoInventoryWhileThereIsNone) {
    const VessadTest::TemporaryDirectory directory;
    const VessadTest::LogLines log;
    MakeLibvirtBackend("qemu+unix:///system?socket=" + (directory.GetPath() / "none").string(),
                       directory.GetPath() / "state");
    EXPECT_THAT(log.GetText(), AllOf(HasSubstr("; there is no inventory until it can"),
                                     Not(HasSubstr("the last inventory serves"))));
}

}  // namespace
}  // namespace Vessad
