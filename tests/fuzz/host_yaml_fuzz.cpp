#include <string_view>

#include "apps/vessad/backends/DescribedHost.h"
#include "runtime/ordane/xml_codec.h"
#include "runtime/tessim/assertion.h"
#include "tests/fuzz/carried.h"
#include "tests/fuzz/fuzz.h"

namespace Xml = Ordane::Xml;

namespace {

using Fuzz::CheckCarried;

void CheckHost(const Vessad::Inventory& host) {
    CheckCarried(host.about);
    CheckCarried(host.hardware);
    CheckCarried(host.serviceConsole);
    for (const auto& counter : host.counters) {
        CheckCarried(counter);
    }
    for (const auto& [id, info] : host.datastores) {
        Tessim::Assert(Xml::IsText(id), "a datastore's id is text");
        CheckCarried(info);
    }
    Tessim::Assert(host.vms.size() == host.vmsById.size(), "no two VMs share an id");
    for (const auto& vm : host.vms) {
        Tessim::Assert(Xml::IsText(vm->id), "a VM's id is text");
        CheckCarried(vm->config);
        CheckCarried(vm->runtime);
        CheckCarried(vm->guest);
        for (const Vessad::Series& series : vm->series) {
            Tessim::Assert(Xml::IsText(series.instance), "an instance is text");
        }
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        CheckHost(*Vessad::ReadHost({reinterpret_cast<const char*>(data), size}, "host.yaml"));
    } catch (const Vessad::Yaml::Error& mistake) {
        Tessim::Assert(std::string_view(mistake.what()).starts_with("host.yaml:"),
                       "a mistake is reported with its place");
    }
    return 0;
}
