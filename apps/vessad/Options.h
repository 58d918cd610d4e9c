// The command line.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "runtime/hask/host_agent.h"

namespace Vessad {

struct Options {
    std::optional<std::filesystem::path> host;  // neither of the two: the built-in host
    std::optional<std::string> libvirt;
    std::string listen = "127.0.0.1:" + std::to_string(Hask::HostAgent::port);
    std::filesystem::path ticketDirectory = "/run/tovric-vessad";
    std::string ticketGroup;
    std::filesystem::path stateDirectory = "/var/lib/tovric-vessad";
    std::string logLevel = "info";
    bool foreground = false;
};

// What to do: go on with options, or end with an exit code (after help, or a mistake that was told).
struct Parsed {
    std::optional<Options> options;
    int exitCode = 0;
};

// Paths come out absolute.
Parsed ParseCommandLine(int count, const char* const* arguments);

}  // namespace Vessad
