#include "apps/vessad/backends/HostCheck.h"

#include <cstdlib>
#include <exception>
#include <string>

#include "apps/vessad/backends/HostDescription.h"

namespace Vessad {

namespace {

namespace Device = Hask::Vm::Device;

// How many of each a host has.
struct Counts {
    std::size_t poweredOn = 0;
    std::int64_t cpus = 0;
    std::size_t disks = 0;
    std::size_t cards = 0;
    std::size_t cdroms = 0;
    std::size_t floppies = 0;
    std::size_t otherDevices = 0;
    std::size_t statistics = 0;

    void Add(const Vm& vm) {
        using Hask::VirtualMachine;
        if (vm.runtime && vm.runtime->GetPowerState() == VirtualMachine::PowerState::poweredOn) {
            ++poweredOn;
        }
        statistics += vm.series.size();
        const auto* hardware = vm.config ? vm.config->GetHardware() : nullptr;
        if (hardware == nullptr) {
            return;
        }
        cpus += hardware->GetNumCPU();
        if (hardware->GetDevice() != nullptr) {
            for (const auto& device : *hardware->GetDevice()) {
                ++CounterOf(*device->GetDataObjectType());
            }
        }
    }

  private:
    std::size_t& CounterOf(const Ordane::DataObjectType& type) {
        return type.IsA(&Device::VirtualDisk::StaticType())           ? disks
               : type.IsA(&Device::VirtualEthernetCard::StaticType()) ? cards
               : type.IsA(&Device::VirtualCdrom::StaticType())        ? cdroms
               : type.IsA(&Device::VirtualFloppy::StaticType())       ? floppies
                                                                      : otherDevices;
    }
};

void PrintSummary(const Inventory& host, std::ostream& summary) {
    Counts counts;
    for (const auto& vm : host.vms) {
        counts.Add(*vm);
    }
    summary << "VMs: " << host.vms.size() << ", powered on: " << counts.poweredOn
            << "\nvirtual CPUs: " << counts.cpus << "\ndisks: " << counts.disks
            << "\nnetwork cards: " << counts.cards << "\nCD-ROM drives: " << counts.cdroms
            << "\nfloppy drives: " << counts.floppies << "\nother devices: " << counts.otherDevices
            << "\nstatistics: " << counts.statistics << "\ndatastores: " << host.datastores.size()
            << "\ncounters: " << host.counters.size() << "\n";
}

}  // namespace

int CheckHost(const std::filesystem::path& file, std::ostream& summary, std::ostream& mistakes) {
    try {
        Yaml::Mistakes found(Yaml::Mistakes::Policy::Collect);
        const auto host = ReadHost(ReadHostFile(file), file.string(), found);
        if (found.GetCount() == 0) {
            PrintSummary(*host, summary);
            return EXIT_SUCCESS;
        }
        for (const std::string& mistake : found.List()) {
            mistakes << mistake << "\n";
        }
    } catch (const std::exception& failure) {
        mistakes << failure.what() << "\n";
    }
    return EXIT_FAILURE;
}

}  // namespace Vessad
