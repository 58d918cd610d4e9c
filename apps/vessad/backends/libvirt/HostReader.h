// Reads a host's domains, describing only those that changed.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "apps/vessad/backends/libvirt/DomainXml.h"
#include "apps/vessad/backends/libvirt/GuestNames.h"
#include "apps/vessad/backends/libvirt/LibvirtApi.h"
#include "apps/vessad/backends/libvirt/Storage.h"

namespace Vessad::Libvirt {

struct DescribedDomain {
    std::string uuid;
    std::string name;
    bool active = false;
    DomainState state = DomainState::None;
    std::shared_ptr<const DomainDescription> description;  // null: its XML cannot be understood
};

struct HostReading {
    Host host;
    std::vector<DescribedDomain> domains;
};

// For one thread at a time.
class HostReader {
  public:
    explicit HostReader(std::vector<std::filesystem::path> osinfoDirectories)
        : guestNames(std::move(osinfoDirectories)) {}

    // Throws ApiError. `pools`: the XML of the active pools.
    HostReading Read(Connection& connection, const std::vector<std::string>& pools);

  private:
    struct Known {
        std::string xml;
        std::optional<std::string> configFile;
        std::shared_ptr<const DomainDescription> description;
    };

    std::shared_ptr<const DomainDescription> Describe(Connection& connection, Domain& domain,
                                                      std::optional<std::string> configFile);

    GuestNames guestNames;
    Storage storage{std::nullopt, {}};
    std::map<std::string, Known> known;  // by UUID
};

}  // namespace Vessad::Libvirt
