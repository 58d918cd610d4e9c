#include <pugixml.hpp>
#include <sstream>
#include <string>
#include <string_view>

#include "apps/vessad/backends/DescribedHost.h"
#include "runtime/ordane/xml_codec.h"
#include "runtime/tessim/assertion.h"
#include "tests/fuzz/fuzz.h"

namespace Xml = Ordane::Xml;

namespace {

// As messages are read.
constexpr unsigned int parsing = pugi::parse_escapes | pugi::parse_cdata | pugi::parse_ws_pcdata;

std::string Write(const Ordane::DataObject& object, const Ordane::DataObjectType& declared) {
    pugi::xml_document document;
    Xml::WriteObject(document, declared.name, object, declared);
    std::ostringstream text;
    document.save(text, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
    return text.str();
}

// What a description may hold, the wire must carry: a strict reader gets the same object.
template <class T>
void CheckCarried(const Tessim::Ref<T>& object) {
    if (!object) {
        return;
    }
    const std::string once = Write(*object, T::StaticType());
    pugi::xml_document document;
    Tessim::Assert(
        static_cast<bool>(document.load_buffer(once.data(), once.size(), parsing, pugi::encoding_utf8)),
        "a described object is well-formed");
    const auto again = Xml::ReadObject(document.document_element(), T::StaticType(), Xml::Unknown::Refuse);
    Tessim::Assert(Write(*again, T::StaticType()) == once, "a described object is carried whole");
}

void CheckCarried(const Vessad::Inventory& host) {
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
        CheckCarried(*Vessad::ReadHost({reinterpret_cast<const char*>(data), size}, "host.yaml"));
    } catch (const Vessad::Yaml::Error& mistake) {
        Tessim::Assert(std::string_view(mistake.what()).starts_with("host.yaml:"),
                       "a mistake is reported with its place");
    }
    return 0;
}
