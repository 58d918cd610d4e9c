#include "apps/vessad/Options.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/vessad/Server.h"
#include "tests/support/files.h"

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
    const Parsed parsed = ParseCommandLine(static_cast<int>(pointers.size()), pointers.data(), "1.2.3");
    if (!parsed.options) {
        return "exit code " + std::to_string(parsed.exitCode);
    }
    if (parsed.options->check) {
        return "check " + parsed.options->check->string();
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
    for (const auto& [arguments, expected] : TestSupport::ReadCases(VESSAD_TEST_CASES "/options.txt")) {
        EXPECT_EQ(Parse(arguments), expected) << arguments;
    }
}

TEST(ListenAddress, IsANumericLoopbackAddressOrLocalhost) {
    for (const auto& [text, expected] : TestSupport::ReadCases(VESSAD_TEST_CASES "/listen_addresses.txt")) {
        std::string outcome;
        try {
            const auto endpoint = ParseListenAddress(text);
            outcome = endpoint.address().to_string() + " " + std::to_string(endpoint.port());
        } catch (const std::invalid_argument& error) {
            outcome = std::string(error.what()).substr(text.size() + 4);  // after the text in quotes
        }
        EXPECT_EQ(outcome, expected) << text;
    }
}

}  // namespace
}  // namespace Vessad
