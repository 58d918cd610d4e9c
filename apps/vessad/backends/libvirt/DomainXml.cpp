#include "apps/vessad/backends/libvirt/DomainXml.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <pugixml.hpp>
#include <stdexcept>
#include <string_view>

#include "apps/vessad/backends/libvirt/Controllers.h"
#include "apps/vessad/backends/libvirt/DeviceList.h"
#include "apps/vessad/backends/libvirt/Drives.h"
#include "apps/vessad/backends/libvirt/NetworkCards.h"
#include "apps/vessad/backends/libvirt/Text.h"

namespace Vessad::Libvirt {
namespace {

using Tessim::MakeRef;
using Tessim::Ref;

// The kernel's default for a control group.
constexpr int defaultCpuShares = 1024;
constexpr unsigned long long kibPerMib = 1024;

std::string_view LocalName(std::string_view name) {
    const auto colon = name.find(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

// The first element below `node` whose name, without its prefix, is `name`.
pugi::xml_node FindLocal(pugi::xml_node node, std::string_view name) {
    return node.find_child([name](pugi::xml_node child) { return LocalName(child.name()) == name; });
}

std::string GuestFullName(pugi::xml_node domain, GuestNames& names) {
    const pugi::xml_node osinfo = FindLocal(domain.child("metadata"), "libosinfo");
    if (const char* id = FindLocal(osinfo, "os").attribute("id").value(); *id != '\0') {
        if (auto name = names.Find(id)) {
            return *name;
        }
    }
    const pugi::xml_node type = domain.child("os").child("type");
    const std::string architecture = type.attribute("arch").value();
    return type.child_value() + (architecture.empty() ? "" : " (" + architecture + ")");
}

int CpuCount(pugi::xml_node domain) {
    const pugi::xml_node cpus = domain.child("vcpu");
    return std::max(0, cpus.attribute("current").as_int(cpus.text().as_int()));
}

int MemoryMB(pugi::xml_node domain) {
    // libvirt writes KiB, whatever unit it was given.
    const unsigned long long megabytes = domain.child("memory").text().as_ullong() / kibPerMib;
    return static_cast<int>(std::min<unsigned long long>(megabytes, std::numeric_limits<int>::max()));
}

Ref<Hask::ResourceAllocationInfo> Allocation(int shares) {
    auto info = MakeRef<Hask::SharesInfo>();
    info->SetShares(shares);
    auto allocation = MakeRef<Hask::ResourceAllocationInfo>();
    allocation->SetShares(info);
    return allocation;
}

int CpuShares(pugi::xml_node domain, const DescribeContext& context) {
    if (const pugi::xml_node shares = domain.child("cputune").child("shares")) {
        return shares.text().as_int();
    }
    return context.findCpuShares().value_or(defaultCpuShares);
}

}  // namespace

DomainDescription DescribeDomain(const std::string& xml, const DescribeContext& context) {
    pugi::xml_document document;
    const pugi::xml_parse_result result = document.load_string(xml.c_str());
    const pugi::xml_node domain = document.child("domain");
    if (!result || !domain) {
        throw std::runtime_error(result ? "no domain element" : result.description());
    }
    auto hardware = MakeRef<Hask::Vm::VirtualHardware>();
    hardware->SetNumCPU(CpuCount(domain));
    hardware->SetMemoryMB(MemoryMB(domain));
    hardware->SetDevice(MakeRef<Ordane::DataArray<Hask::Vm::Device::VirtualDevice>>());

    auto files = MakeRef<Hask::Vm::FileInfo>();
    if (context.configFile) {
        files->SetVmPathName(WireText(*context.configFile));
    }

    DomainDescription description;
    description.config = MakeRef<Hask::Vm::ConfigInfo>();
    description.config->SetName(WireText(domain.child_value("name")));
    description.config->SetGuestFullName(WireText(GuestFullName(domain, context.guestNames)));
    description.config->SetFiles(files);
    description.config->SetHardware(hardware);
    description.config->SetCpuAllocation(Allocation(CpuShares(domain, context)));
    // libvirt has no memory shares; memory is shared in proportion to its size.
    description.config->SetMemoryAllocation(Allocation(hardware->GetMemoryMB()));
    DeviceList devices(*hardware);
    AddControllers(domain, devices);
    AddDrives(domain, context, devices, description);
    AddNetworkCards(domain, devices, description);
    return description;
}

}  // namespace Vessad::Libvirt
