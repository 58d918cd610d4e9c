// Full names of guest operating systems, from the osinfo database.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Vessad::Libvirt {

// Where the database may be installed, in the order of search: an administrator's additions first.
std::vector<std::filesystem::path> OsinfoDirectories();

// Looks names up and caches those it found. For one thread at a time.
class GuestNames {
  public:
    explicit GuestNames(std::vector<std::filesystem::path> directories)
        : directories(std::move(directories)) {}

    // Returns the name of the system with the libosinfo id `id`, such as "http://debian.org/debian/12", or
    // nothing when no database has it. `id` is untrusted: it cannot lead out of the directories.
    std::optional<std::string> Find(const std::string& id);

    // Looks every name up anew.
    void Clear() { known.clear(); }

  private:
    std::vector<std::filesystem::path> directories;
    std::map<std::string, std::string> known;  // by id
};

}  // namespace Vessad::Libvirt
