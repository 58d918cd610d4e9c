#include "apps/vessad/backends/libvirt/Uri.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <vector>

namespace Vessad::Libvirt {
namespace {

// driver[+transport]://[user@][host][:port]/path[?parameters]
struct Parts {
    std::string_view driver;
    std::string_view authority;
    std::string_view path;
    std::string_view parameters;
};

Parts Split(std::string_view uri) {
    Parts parts;
    const auto colon = uri.find(':');
    if (colon == std::string_view::npos) {
        return parts;
    }
    parts.driver = uri.substr(0, colon);
    parts.driver = parts.driver.substr(0, parts.driver.find('+'));
    uri.remove_prefix(colon + 1);
    if (const auto question = uri.find('?'); question != std::string_view::npos) {
        parts.parameters = uri.substr(question + 1);
        uri = uri.substr(0, question);
    }
    if (uri.starts_with("//")) {
        uri.remove_prefix(2);
        const auto slash = std::min(uri.find('/'), uri.size());
        parts.authority = uri.substr(0, slash);
        uri.remove_prefix(slash);
    }
    parts.path = uri;
    return parts;
}

std::optional<std::string_view> Parameter(std::string_view parameters, std::string_view name) {
    while (!parameters.empty()) {
        const auto end = std::min(parameters.find_first_of("&;"), parameters.size());
        const auto parameter = parameters.substr(0, end);
        if (parameter.starts_with(name) && parameter.substr(name.size()).starts_with('=')) {
            return parameter.substr(name.size() + 1);
        }
        parameters.remove_prefix(std::min(end + 1, parameters.size()));
    }
    return std::nullopt;
}

// The paths of drivers that accept few.
const std::map<std::string_view, std::vector<std::string_view>> pathsOfDrivers{
    {"qemu", {"/system", "/session", "/embed"}},
    {"lxc", {"/system", "/", ""}},
    {"xen", {"/system", "/", ""}},
};

// A session URI means the libvirt of the user who runs this program.
std::optional<std::string> UserConfigDirectory() {
    if (const char* directory = std::getenv("XDG_CONFIG_HOME"); directory != nullptr && *directory == '/') {
        return directory;
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
        return std::string(home) + "/.config";
    }
    return std::nullopt;
}

std::optional<std::string> QemuDirectory(const Parts& parts) {
    if (parts.path == "/embed") {
        const auto root = Parameter(parts.parameters, "root");
        return root ? std::optional(std::string(*root) + "/etc/qemu/") : std::nullopt;
    }
    if (parts.path == "/session") {
        const auto directory = parts.authority.empty() ? UserConfigDirectory() : std::nullopt;
        return directory ? std::optional(*directory + "/libvirt/qemu/") : std::nullopt;
    }
    return "/etc/libvirt/qemu/";
}

}  // namespace

std::optional<std::string> FindMistake(std::string_view uri) {
    if (uri.empty()) {
        return "it is empty";
    }
    const auto isControl = [](char byte) { return static_cast<unsigned char>(byte) <= ' ' || byte == 0x7f; };
    if (std::any_of(uri.begin(), uri.end(), isControl)) {
        return "it has a blank or a control character";
    }
    if (uri.find(':') == std::string_view::npos) {
        return std::nullopt;
    }
    const Parts parts = Split(uri);
    if (parts.driver.empty()) {
        return "it names no driver";
    }
    const auto known = pathsOfDrivers.find(parts.driver);
    if (known == pathsOfDrivers.end()) {
        return std::nullopt;
    }
    const auto& paths = known->second;
    if (std::find(paths.begin(), paths.end(), parts.path) != paths.end()) {
        return std::nullopt;
    }
    std::string text =
        "the driver " + std::string(parts.driver) + " has no path \"" + std::string(parts.path) + "\", only ";
    for (std::size_t index = 0; index < paths.size(); ++index) {
        text += (index == 0 ? "\"" : ", \"") + std::string(paths[index]) + "\"";
    }
    return text;
}

bool IsLocal(std::string_view uri) {
    return Split(uri).authority.empty();
}

std::optional<std::string> ConfigDirectory(std::string_view uri) {
    const Parts parts = Split(uri);
    if (parts.driver == "qemu") {
        return QemuDirectory(parts);
    }
    if (parts.driver == "lxc" || parts.driver == "ch" || parts.driver == "bhyve") {
        return "/etc/libvirt/" + std::string(parts.driver) + "/";
    }
    if (parts.driver == "xen") {
        return "/etc/libvirt/libxl/";
    }
    return std::nullopt;
}

}  // namespace Vessad::Libvirt
