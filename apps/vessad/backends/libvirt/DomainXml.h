// A domain's XML as the API's configuration.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "apps/vessad/backends/libvirt/GuestNames.h"
#include "apps/vessad/backends/libvirt/LibvirtApi.h"
#include "apps/vessad/backends/libvirt/Storage.h"
#include "runtime/hask/api.h"

namespace Vessad::Libvirt {

// What a description needs beside the XML.
struct Surroundings {
    const Storage& storage;
    GuestNames& guestNames;
    // The volume of a pool, by the two names.
    std::function<std::optional<Volume>(const std::string& pool, const std::string& name)> findVolume;
    // The CPU shares of the domain; asked when its XML names none.
    std::function<std::optional<int>()> findCpuShares;
    // Where it is kept, if in a file.
    std::optional<std::string> configFile;
};

// A domain, and how its figures go with its devices.
struct DomainDescription {
    struct Disk {
        std::string target;  // its name in the domain: vda
        std::string name;    // the name that the agent looks its figures up by
    };
    struct Card {
        std::string device;  // its name on the host, empty while there is none: vnet0
        int key = 0;
    };

    Tessim::Ref<Hask::Vm::ConfigInfo> config;
    std::vector<Disk> disks;  // those whose figures the agent asks for
    std::vector<Card> cards;  // in the domain's order
    std::map<std::string, Tessim::Ref<Hask::Datastore::Info>> datastores;  // that its devices name
    bool provisional = false;  // a volume was not found; it may be, another time
};

// Throws std::runtime_error when the text is no domain's XML.
DomainDescription DescribeDomain(const std::string& xml, const Surroundings& surroundings);

}  // namespace Vessad::Libvirt
