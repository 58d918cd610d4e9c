#include "apps/vessad/backends/libvirt/LegacyStatistics.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <pugixml.hpp>
#include <string>
#include <vector>

namespace Vessad::Libvirt {
namespace {

// libvirt reports -1 for what the driver does not have.
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
    // The only CPU has used all that the domain has used.
    if (count < 0 && info.nrVirtCpu == 1) {
        statistics["vcpu.0.time"] = std::uint64_t{info.cpuTime};
    }
}

void PutMemory(virDomainPtr domain, Statistics& statistics) {
    std::array<virDomainMemoryStatStruct, VIR_DOMAIN_MEMORY_STAT_NR> stats{};
    const int count = virDomainMemoryStats(domain, stats.data(), stats.size(), 0);
    for (int index = 0; index < count; ++index) {
        const auto& stat = stats[static_cast<std::size_t>(index)];
        switch (stat.tag) {
            case VIR_DOMAIN_MEMORY_STAT_AVAILABLE:
                statistics["balloon.available"] = std::uint64_t{stat.val};
                break;
            case VIR_DOMAIN_MEMORY_STAT_UNUSED:
                statistics["balloon.unused"] = std::uint64_t{stat.val};
                break;
            case VIR_DOMAIN_MEMORY_STAT_RSS:
                statistics["balloon.rss"] = std::uint64_t{stat.val};
                break;
            default:
                break;
        }
    }
}

void PutDisk(virDomainPtr domain, const std::string& target, int index, Statistics& statistics) {
    virDomainBlockStatsStruct stats{};
    if (virDomainBlockStats(domain, target.c_str(), &stats, sizeof stats) < 0) {
        return;
    }
    const std::string prefix = "block." + std::to_string(index) + ".";
    statistics[prefix + "name"] = target;
    Put(statistics, prefix + "rd.reqs", stats.rd_req);
    Put(statistics, prefix + "rd.bytes", stats.rd_bytes);
    Put(statistics, prefix + "wr.reqs", stats.wr_req);
    Put(statistics, prefix + "wr.bytes", stats.wr_bytes);
}

void PutCard(virDomainPtr domain, const std::string& device, int index, Statistics& statistics) {
    virDomainInterfaceStatsStruct stats{};
    if (virDomainInterfaceStats(domain, device.c_str(), &stats, sizeof stats) < 0) {
        return;
    }
    const std::string prefix = "net." + std::to_string(index) + ".";
    statistics[prefix + "name"] = device;
    Put(statistics, prefix + "rx.bytes", stats.rx_bytes);
    Put(statistics, prefix + "rx.pkts", stats.rx_packets);
    Put(statistics, prefix + "tx.bytes", stats.tx_bytes);
    Put(statistics, prefix + "tx.pkts", stats.tx_packets);
}

}  // namespace

Statistics LegacyStatistics(virDomainPtr domain) {
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
