// What the drives of a domain are backed by.
#pragma once

#include <map>
#include <optional>
#include <pugixml.hpp>
#include <string>

#include "apps/vessad/backends/libvirt/DomainDescription.h"

namespace Vessad::Libvirt {

// Where the host keeps what a drive shows.
struct DriveSource {
    enum class Kind { None, File, Device };
    Kind kind = Kind::None;
    std::string name;  // of the file or device; a drive on the network counts as a device "protocol:name"
};

// Finds sources and makes backings for the drives of one domain. Borrows the context and the description.
class DriveBackings {
  public:
    struct Backing {
        Tessim::Ref<Hask::Vm::Device::VirtualDevice::BackingInfo> info;  // null for a drive without a source
        // The instance of the drive's statistics; absent where the agent requests none.
        std::optional<std::string> instance;
    };

    DriveBackings(const DescribeContext& context, DomainDescription& description)
        : context(context), description(description) {}

    // Returns the source of a <disk> element. A volume that is not found makes the description provisional
    // and counts as a device "pool/volume".
    DriveSource SourceOf(pugi::xml_node drive);

    // Returns the backing of a source. The datastore of a file is added to the description.
    Backing Make(const DriveSource& source);

    // Sets the directories of the datastores so far in the description's configuration.
    void SetDatastoreUrls();

  private:
    DriveSource VolumeSource(const std::string& pool, const std::string& volume);

    const DescribeContext& context;
    DomainDescription& description;
    std::map<std::string, std::string> urls;  // directories by datastore name
};

}  // namespace Vessad::Libvirt
