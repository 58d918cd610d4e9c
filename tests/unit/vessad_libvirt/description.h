// Domain XML and its description, for tests.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "apps/vessad/backends/libvirt/DomainXml.h"

namespace Vessad::Libvirt {

// A domain's XML around `devices` and other `elements`.
inline std::string DomainXmlWith(const std::string& devices, const std::string& elements = "") {
    return "<domain type='kvm'><name>web-1</name><memory unit='KiB'>524288</memory><vcpu>2</vcpu>"
           "<os><type arch='x86_64'>hvm</type></os>" +
           elements + "<devices>" + devices + "</devices></domain>";
}

// Describes domains on a host of two file systems: /dev/sda1, with the pool "default" in /pool, and an NFS
// server's on /nfs. It has the volumes "pool/block" and "pool/file".
class Describer {
  public:
    DomainDescription operator()(const std::string& xml) {
        return DescribeDomain(xml,
                              {storage, guestNames,
                               [](const std::string& pool, const std::string& name) -> std::optional<Volume> {
                                   if (pool + "/" + name == "pool/block") {
                                       return Volume{"/dev/vg/block", true};
                                   }
                                   if (pool + "/" + name == "pool/file") {
                                       return Volume{"/pool/file.img", false};
                                   }
                                   return std::nullopt;
                               },
                               [this] { return schedulerShares; }, configFile});
    }

    Storage storage{{{{"/dev/sda1", "/", "ext4"}, {"server:/x", "/nfs", "nfs4"}}},
                    {{"default", "dir", "/pool", ""}}};
    GuestNames guestNames{{}};
    std::optional<int> schedulerShares;
    std::optional<std::string> configFile;
};

// The devices of type T, in order.
template <class T>
std::vector<T*> DevicesOf(const DomainDescription& description) {
    std::vector<T*> found;
    for (const auto& device : *description.config->GetHardware()->GetDevice()) {
        if (auto* narrowed = Tessim::NarrowToType<T>(device)) {
            found.push_back(narrowed);
        }
    }
    return found;
}

}  // namespace Vessad::Libvirt
