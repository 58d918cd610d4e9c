#include "apps/vessad/Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/vessad/Server.h"

namespace Vessad {
namespace {

// Returns the options that the words of `arguments` yield, in the order of their declaration, or the exit
// code. The current directory is shown as "." there.
std::string Parse(const std::string& arguments) {
    std::istringstream stream(arguments);
    std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    std::vector<const char*> pointers{"tovric-vessad"};
    for (const std::string& word : words) {
        pointers.push_back(word.c_str());
    }
    const Parsed parsed = ParseCommandLine(static_cast<int>(pointers.size()), pointers.data());
    if (!parsed.options) {
        return parsed.exitCode == 0 ? "success" : "failure";
    }
    const auto shorten = [](const std::filesystem::path& path) {
        const auto relative = path.lexically_relative(std::filesystem::current_path());
        return *relative.begin() == ".." ? path.string() : "./" + relative.string();
    };
    const Options& options = *parsed.options;
    return (options.host ? shorten(*options.host) : "none") + " | " + options.libvirt.value_or("none") +
           " | " + options.listen + " | " + shorten(options.ticketDirectory) + " | " + options.ticketGroup +
           " | " + shorten(options.stateDirectory) + " | " + std::to_string(options.forgetAfterDays) + " | " +
           options.logLevel + " | " + (options.foreground ? "foreground" : "background");
}

TEST(Options, HaveDefaultsAndComeFromTheCommandLine) {
    EXPECT_EQ(Parse(""),
              "none | none | 127.0.0.1:902 | /run/tovric-vessad |  | /var/lib/tovric-vessad | "
              "400 | info | background");
    EXPECT_EQ(Parse("--host h.yaml --listen [::1]:1902 --ticket-dir t --ticket-group snmp --state-dir s "
                    "--log-level debug --foreground"),
              "./h.yaml | none | [::1]:1902 | ./t | snmp | ./s | 400 | debug | foreground");
    EXPECT_EQ(Parse("--libvirt qemu:///system --state-dir /s --forget-after 0"),
              "none | qemu:///system | 127.0.0.1:902 | /run/tovric-vessad |  | /s | 0 | info | background");
    EXPECT_EQ(Parse("--help"), "success");
    for (const char* const mistake :
         {"--host a --libvirt b", "--host", "--colour", "word", "--listen 0.0.0.0:902", "--log-level loud",
          "--forget-after -1", "--forget-after soon"}) {
        EXPECT_EQ(Parse(mistake), "failure") << mistake;
    }
}

TEST(ListenAddress, IsANumericLoopbackAddressOrLocalhost) {
    const auto parse = [](const std::string& text) {
        const auto endpoint = ParseListenAddress(text);
        return endpoint.address().to_string() + " " + std::to_string(endpoint.port());
    };
    EXPECT_EQ(parse("127.0.0.1:902"), "127.0.0.1 902");
    EXPECT_EQ(parse("127.1.2.3:0"), "127.1.2.3 0");
    EXPECT_EQ(parse("localhost:65535"), "127.0.0.1 65535");
    EXPECT_EQ(parse("[::1]:902"), "::1 902");
    for (const char* text :
         {"", "902", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:9x", ":902",
          "::1:902", "[127.0.0.1]:902", "0.0.0.0:902", "192.0.2.1:902", "[::]:902", "[2001:db8::1]:902",
          "example.com:902", "LOCALHOST:902", "[localhost]:902"}) {
        EXPECT_THROW(parse(text), std::invalid_argument) << text;
    }
    EXPECT_THAT([&] { parse("0.0.0.0:902"); }, ::testing::ThrowsMessage<std::invalid_argument>(
                                                   ::testing::HasSubstr("only a loopback address")));
}

}  // namespace
}  // namespace Vessad
