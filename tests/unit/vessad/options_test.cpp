#include "apps/vessad/Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/vessad/Server.h"

namespace Vessad {
namespace {

Parsed Parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "tovric-vessad");
    return ParseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

std::string EndpointOf(const std::string& text) {
    const auto endpoint = ParseListenAddress(text);
    return endpoint.address().to_string() + " " + std::to_string(endpoint.port());
}

TEST(Options, HaveDefaults) {
    const auto options = Parse({}).options;
    ASSERT_TRUE(options.has_value());
    EXPECT_FALSE(options->host.has_value());
    EXPECT_FALSE(options->libvirt.has_value());
    EXPECT_EQ(options->listen, "127.0.0.1:902");
    EXPECT_EQ(options->ticketDirectory, "/run/tovric-vessad");
    EXPECT_EQ(options->ticketGroup, "");
    EXPECT_EQ(options->stateDirectory, "/var/lib/tovric-vessad");
    EXPECT_FALSE(options->foreground);
}

TEST(Options, ComeFromTheCommandLine) {
    const auto options =
        Parse({"--host", "h.yaml", "--listen", "[::1]:1902", "--ticket-dir", "t", "--ticket-group", "snmp",
               "--state-dir", "/s", "--log-level", "debug", "--foreground"})
            .options;
    ASSERT_TRUE(options.has_value());
    EXPECT_EQ(options->host, std::filesystem::current_path() / "h.yaml");
    EXPECT_EQ(options->listen, "[::1]:1902");
    EXPECT_EQ(options->ticketDirectory, std::filesystem::current_path() / "t");
    EXPECT_EQ(options->ticketGroup, "snmp");
    EXPECT_EQ(options->stateDirectory, "/s");
    EXPECT_EQ(options->logLevel, "debug");
    EXPECT_TRUE(options->foreground);
    EXPECT_EQ(Parse({"--libvirt", "qemu:///system"}).options->libvirt, "qemu:///system");
}

TEST(Options, RejectMistakes) {
    const std::vector<std::vector<const char*>> mistakes{{"--host", "a", "--libvirt", "b"},
                                                         {"--host"},
                                                         {"--colour"},
                                                         {"word"},
                                                         {"--listen", "0.0.0.0:902"},
                                                         {"--log-level", "loud"}};
    for (const auto& arguments : mistakes) {
        const Parsed parsed = Parse(arguments);
        EXPECT_FALSE(parsed.options.has_value()) << arguments[0];
        EXPECT_NE(parsed.exitCode, 0) << arguments[0];
    }
    EXPECT_EQ(Parse({"--help"}).exitCode, 0);
    EXPECT_FALSE(Parse({"--help"}).options.has_value());
}

TEST(ListenAddress, IsANumericLoopbackAddressOrLocalhost) {
    EXPECT_EQ(EndpointOf("127.0.0.1:902"), "127.0.0.1 902");
    EXPECT_EQ(EndpointOf("127.1.2.3:0"), "127.1.2.3 0");
    EXPECT_EQ(EndpointOf("localhost:65535"), "127.0.0.1 65535");
    EXPECT_EQ(EndpointOf("[::1]:902"), "::1 902");
}

TEST(ListenAddress, RejectsEverythingElse) {
    for (const char* text :
         {"", "902", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:9x", ":902",
          "::1:902", "[127.0.0.1]:902", "0.0.0.0:902", "192.0.2.1:902", "[::]:902", "[2001:db8::1]:902",
          "example.com:902", "LOCALHOST:902", "[localhost]:902"}) {
        EXPECT_THROW(ParseListenAddress(text), std::invalid_argument) << text;
    }
    EXPECT_THAT(
        [] { ParseListenAddress("0.0.0.0:902"); },
        ::testing::ThrowsMessage<std::invalid_argument>(::testing::HasSubstr("only a loopback address")));
}

}  // namespace
}  // namespace Vessad
