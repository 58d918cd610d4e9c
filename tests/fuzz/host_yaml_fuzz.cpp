#include <string_view>

#include "apps/vessad/backends/HostDescription.h"
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
    using Vessad::Yaml::Mistakes;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Mistakes all(Mistakes::Policy::Collect);
    Vessad::ReadHost(text, "host.yaml", all);
    Mistakes tolerated(Mistakes::Policy::Throw);
    try {
        CheckHost(*Vessad::ReadHost(text, "host.yaml", tolerated));
        Tessim::Assert(all.GetCount() == tolerated.GetCount(), "a check finds no more than loading does");
    } catch (const Vessad::Yaml::Error& mistake) {
        Tessim::Assert(all.GetCount() > 0, "a check finds a mistake where loading does");
        Tessim::Assert(std::string_view(mistake.what()).starts_with("host.yaml:"),
                       "a mistake is reported with its place");
    }
    return 0;
}
