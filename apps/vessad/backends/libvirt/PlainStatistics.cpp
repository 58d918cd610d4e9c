#include "apps/vessad/backends/libvirt/PlainStatistics.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <pugixml.hpp>
#include <string>
#include <vector>

namespace Vessad::Libvirt {
namespace {

// Reports -1 where the driver has no figure.
void Put(Statistics& statistics, const std::string& name, long long value) {
    if (value >= 0) {
        statistics[name] = static_cast<std::uint64_t>(value);
    }
}

void PutCpus(virDomainPtr domain, Statistics& statistics) {
    virDomainInfo info{};
    if (virDomainGetInfo(domain, &info) < 0) {
        return;
    }
    std::vector<virVcpuInfo> cpus(info.nrVirtCpu);
    const int count = virDomainGetVcpus(domain, cpus.data(), static_cast<int>(cpus.size()), nullptr, 0);
    for (int index = 0; index < count; ++index) {
        const virVcpuInfo& cpu = cpus[static_cast<std::size_t>(index)];
        statistics["vcpu." + std::to_string(cpu.number) + ".time"] = std::uint64_t{cpu.cpuTime};
    }
    // One CPU has used all that the machine has used.
    if (count < 0 && info.nrVirtCpu == 1) {
        statistics["vcpu.0.time"] = std::uint64_t{info.cpuTime};
    }
}

void PutMemory(virDomainPtr domain, Statistics& statistics) {
    std::array<virDomainMemoryStatStruct, VIR_DOMAIN_MEMORY_STAT_NR> figures{};
    const int count = virDomainMemoryStats(domain, figures.data(), figures.size(), 0);
    for (int index = 0; index < count; ++index) {
        const auto& figure = figures[static_cast<std::size_t>(index)];
        switch (figure.tag) {
            case VIR_DOMAIN_MEMORY_STAT_AVAILABLE:
                statistics["balloon.available"] = std::uint64_t{figure.val};
                break;
            case VIR_DOMAIN_MEMORY_STAT_UNUSED:
                statistics["balloon.unused"] = std::uint64_t{figure.val};
                break;
            case VIR_DOMAIN_MEMORY_STAT_RSS:
                statistics["balloon.rss"] = std::uint64_t{figure.val};
                break;
            default:
                break;
        }
    }
}

void PutDisk(virDomainPtr domain, const std::string& target, int index, Statistics& statistics) {
    virDomainBlockStatsStruct figures{};
    if (virDomainBlockStats(domain, target.c_str(), &figures, sizeof figures) < 0) {
        return;
    }
    const std::string prefix = "block." + std::to_string(index) + ".";
    statistics[prefix + "name"] = target;
    Put(statistics, prefix + "rd.reqs", figures.rd_req);
    Put(statistics, prefix + "rd.bytes", figures.rd_bytes);
    Put(statistics, prefix + "wr.reqs", figures.wr_req);
    Put(statistics, prefix + "wr.bytes", figures.wr_bytes);
}

void PutCard(virDomainPtr domain, const std::string& device, int index, Statistics& statistics) {
    virDomainInterfaceStatsStruct figures{};
    if (virDomainInterfaceStats(domain, device.c_str(), &figures, sizeof figures) < 0) {
        return;
    }
    const std::string prefix = "net." + std::to_string(index) + ".";
    statistics[prefix + "name"] = device;
    Put(statistics, prefix + "rx.bytes", figures.rx_bytes);
    Put(statistics, prefix + "rx.pkts", figures.rx_packets);
    Put(statistics, prefix + "tx.bytes", figures.tx_bytes);
    Put(statistics, prefix + "tx.pkts", figures.tx_packets);
}

}  // namespace

Statistics PlainStatistics(virDomainPtr domain) {
    Statistics statistics;
    PutCpus(domain, statistics);
    PutMemory(domain, statistics);

    const std::unique_ptr<char, decltype(&std::free)> xml(virDomainGetXMLDesc(domain, 0), &std::free);
    pugi::xml_document document;
    if (!xml || !document.load_string(xml.get())) {
        return statistics;
    }
    const pugi::xml_node devices = document.child("domain").child("devices");
    int disk = 0;
    for (const pugi::xml_node node : devices.children("disk")) {
        PutDisk(domain, node.child("target").attribute("dev").value(), disk++, statistics);
    }
    int card = 0;
    for (const pugi::xml_node node : devices.children("interface")) {
        PutCard(domain, node.child("target").attribute("dev").value(), card++, statistics);
    }
    return statistics;
}

}  // namespace Vessad::Libvirt
