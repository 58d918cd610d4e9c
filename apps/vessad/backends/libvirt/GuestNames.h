// Full names of guest operating systems, from the osinfo database.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Vessad::Libvirt {

// Where the database may be installed, an administrator's additions first.
std::vector<std::filesystem::path> OsinfoDirectories();

// Looks names up and remembers those it found. For one thread at a time.
class GuestNames {
  public:
    explicit GuestNames(std::vector<std::filesystem::path> directories)
        : directories(std::move(directories)) {}

    // The name of the system with the libosinfo id `id`, such as "http://debian.org/debian/12"; nothing when
    // no database has it.
    std::optional<std::string> Find(const std::string& id);

  private:
    std::vector<std::filesystem::path> directories;
    std::map<std::string, std::string> known;
};

}  // namespace Vessad::Libvirt
