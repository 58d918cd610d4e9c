#include "apps/vessad/Options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <stdexcept>

#include "apps/vessad/Server.h"

namespace Vessad {

namespace {

constexpr int usageError = 2;

}  // namespace

Parsed ParseCommandLine(int count, const char* const* arguments, const std::string& version) {
    Options options;
    std::string host;
    std::string libvirt;
    std::string check;
    CLI::App app{"Serves the management API of a virtualisation host to local clients.", "tovric-vessad"};
    CLI::Option* hostOption =
        app.add_option("--host", host, "Serve the host that this YAML file describes")->type_name("FILE");
    CLI::Option* libvirtOption =
        app.add_option("--libvirt", libvirt, "Serve the host that libvirt manages")->type_name("URI");
    hostOption->excludes(libvirtOption);
    app.add_option("--listen", options.listen, "Loopback address and port to listen on")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str()
        ->check([](const std::string& text) {
            try {
                ParseListenAddress(text);
                return std::string();
            } catch (const std::invalid_argument& refused) {
                return std::string(refused.what());
            }
        });
    app.add_option("--ticket-dir", options.ticketDirectory, "Directory of the login tickets")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--ticket-group", options.ticketGroup, "Group that may read the tickets too")
        ->type_name("GROUP");
    app.add_option("--state-dir", options.stateDirectory,
                   "Directory of what must survive a restart (libvirt hosts)")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--forget-after", options.forgetAfterDays,
                   "Days after which a VM that is gone loses its id (libvirt hosts); 0: never")
        ->type_name("DAYS")
        ->capture_default_str()
        ->check(CLI::Range(0, 1000000));
    app.add_option("--log-level", options.logLevel, "Lowest level to log")
        ->type_name("LEVEL")
        ->capture_default_str()
        ->check(CLI::IsMember({"debug", "info", "warning", "error"}));
    app.add_flag("--foreground", options.foreground, "Stay in the foreground and log to standard error");
    CLI::Option* checkOption =
        app.add_option("--check", check, "Check a file for --host, print its mistakes or a summary, and exit")
            ->type_name("FILE")
            ->excludes(hostOption)
            ->excludes(libvirtOption);
    app.set_version_flag("--version", version, "Print the version and its commit and exit");
    app.footer("Without --host and --libvirt a small sample host is served.");
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& stop) {
        return {std::nullopt, app.exit(stop) == EXIT_SUCCESS ? EXIT_SUCCESS : usageError};
    }
    if (*hostOption) {
        options.host = std::filesystem::absolute(host);
    }
    if (*libvirtOption) {
        options.libvirt = libvirt;
    }
    if (*checkOption) {
        options.check = check;
    }
    options.ticketDirectory = std::filesystem::absolute(options.ticketDirectory);
    options.stateDirectory = std::filesystem::absolute(options.stateDirectory);
    return {options, 0};
}

}  // namespace Vessad
