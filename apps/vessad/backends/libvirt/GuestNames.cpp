#include "apps/vessad/backends/libvirt/GuestNames.h"

#include <algorithm>
#include <pugixml.hpp>
#include <string_view>

namespace Vessad::Libvirt {
namespace {

constexpr std::string_view idScheme = "http://";

// The database's layout: http://VENDOR/FAMILY/VERSION is os/VENDOR/FAMILY-VERSION.xml. The id comes from
// metadata that a VM's owner writes, so only plain names become part of the path.
std::optional<std::filesystem::path> FileOf(std::string_view id) {
    if (!id.starts_with(idScheme)) {
        return std::nullopt;
    }
    id.remove_prefix(idScheme.size());
    const auto slash = id.find('/');
    if (slash == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view vendor = id.substr(0, slash);
    std::string name(id.substr(slash + 1));
    std::replace(name.begin(), name.end(), '/', '-');
    const auto isPlain = [](std::string_view part) {
        constexpr std::string_view allowed =
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_+";
        return !part.empty() && part.front() != '.' &&
               part.find_first_not_of(allowed) == std::string_view::npos;
    };
    if (!isPlain(vendor) || !isPlain(name)) {
        return std::nullopt;
    }
    return std::filesystem::path("os") / vendor / (name + ".xml");
}

}  // namespace

std::vector<std::filesystem::path> OsinfoDirectories() {
    return {"/etc/osinfo", "/usr/local/share/osinfo", "/usr/share/osinfo"};
}

std::optional<std::string> GuestNames::Find(const std::string& id) {
    if (const auto found = known.find(id); found != known.end()) {
        return found->second;
    }
    const auto file = FileOf(id);
    if (!file) {
        return std::nullopt;
    }
    for (const auto& directory : directories) {
        pugi::xml_document document;
        if (!document.load_file((directory / *file).c_str())) {
            continue;
        }
        for (const pugi::xml_node os : document.child("libosinfo").children("os")) {
            if (const std::string name = os.child_value("name");
                os.attribute("id").value() == id && !name.empty()) {
                return known.emplace(id, name).first->second;
            }
        }
    }
    return std::nullopt;
}

}  // namespace Vessad::Libvirt
