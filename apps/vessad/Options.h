// The command line.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "runtime/hask/host_agent.h"
#include "runtime/tessim/daemon_directory.h"

namespace Vessad {

struct Options {
    std::optional<std::filesystem::path> host;  // neither this nor libvirt: the built-in host
    std::optional<std::string> libvirt;
    std::string listen = "127.0.0.1:" + std::to_string(Hask::HostAgent::port);
    std::filesystem::path ticketDirectory = Tessim::DaemonDirectory::path;
    std::string ticketGroup;
    std::filesystem::path stateDirectory = "/var/lib/tovric-vessad";
    int forgetAfterDays = 400;  // 0: never
    std::string logLevel = "info";
    bool foreground = false;
    std::optional<std::filesystem::path> check;  // to be validated in place of serving; as it was given
};

// Options to run with, or an exit code to end with (after help, or a mistake, which has been printed).
struct Parsed {
    std::optional<Options> options;
    int exitCode = 0;
};

// Parses the command line; prints help, mistakes, and `version` for --version. The paths of the result are
// absolute, but for `check`. Throws std::filesystem::filesystem_error where there is no working directory.
Parsed ParseCommandLine(int count, const char* const* arguments, const std::string& version);

}  // namespace Vessad
