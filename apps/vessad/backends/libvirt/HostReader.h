// Reads a host's domains and describes those that changed.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "apps/vessad/backends/libvirt/DomainDescription.h"
#include "apps/vessad/backends/libvirt/GuestNames.h"
#include "apps/vessad/backends/libvirt/LibvirtApi.h"
#include "apps/vessad/backends/libvirt/Storage.h"

namespace Vessad::Libvirt {

struct DescribedDomain {
    std::string uuid;
    std::string name;
    bool active = false;
    DomainState state = DomainState::None;
    std::shared_ptr<const DomainDescription> description;  // null: its XML cannot be read
};

struct HostReading {
    Host host;
    std::vector<DescribedDomain> domains;
};

// Caches the descriptions of its latest reading. For one thread at a time.
class HostReader {
  public:
    explicit HostReader(std::vector<std::filesystem::path> osinfoDirectories)
        : guestNames(std::move(osinfoDirectories)) {}

    // Reads the host, which may take as long as the host does. A domain that the host does not describe keeps
    // its cached description, also an outdated one. `pools`: the XML of the active pools. Throws ApiError.
    HostReading Read(Connection& connection, const std::vector<std::string>& pools);

    // Makes every cached description outdated: each domain is described anew by the next reading in which the
    // host describes it, with what the osinfo database has by then.
    void MarkOutdated();

  private:
    struct CacheEntry {
        std::string xml;
        std::optional<std::string> configFile;
        std::shared_ptr<const DomainDescription> description;
        bool outdated = false;  // serves only while the host does not describe the domain
    };

    std::shared_ptr<const DomainDescription> Describe(Connection& connection, Domain& domain,
                                                      std::optional<std::string> configFile);

    GuestNames guestNames;
    Storage storage{std::nullopt, {}};
    std::map<std::string, CacheEntry> cache;  // by UUID
};

}  // namespace Vessad::Libvirt
