// What is made of a domain's XML, and what it takes.
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

// What DescribeDomain needs beside the XML. Borrows its members for the call; its functions may throw
// ApiError.
struct DescribeContext {
    const Storage& storage;
    GuestNames& guestNames;
    // Returns the volume `name` of `pool`, or nothing when there is none.
    std::function<std::optional<Volume>(const std::string& pool, const std::string& name)> findVolume;
    // Returns the domain's CPU shares, if the scheduler has any; called when the XML has none.
    std::function<std::optional<int>()> findCpuShares;
    // The file that the configuration is kept in, if there is one.
    std::optional<std::string> configFile;
};

// A domain's configuration, and which statistics belong to which device.
struct DomainDescription {
    struct Disk {
        std::string target;  // its name in the domain: vda
        std::string name;    // the instance that the agent looks its statistics up by
    };
    struct Card {
        std::string device;  // its name on the host, empty while there is none: vnet0
        int key = 0;
    };

    Tessim::Ref<Hask::Vm::ConfigInfo> config;
    std::vector<Disk> disks;  // those whose statistics the agent requests
    std::vector<Card> cards;  // in the domain's order
    std::map<std::string, Tessim::Ref<Hask::Datastore::Info>> datastores;  // that its devices name
    std::map<std::string, Place> places;  // of the files of its drives, by libvirt's path
    bool provisional = false;             // a volume was not found; the next description may find it
};

}  // namespace Vessad::Libvirt
