#include <pugixml.hpp>
#include <string_view>

#include "runtime/hask/api.h"
#include "runtime/ordane/faults.h"
#include "runtime/ordane/xml_codec.h"
#include "runtime/tessim/assertion.h"
#include "runtime/tessim/exception.h"
#include "tests/fuzz/fuzz.h"

namespace Xml = Ordane::Xml;

namespace {

// As messages are read.
constexpr unsigned int parsing = pugi::parse_escapes | pugi::parse_cdata | pugi::parse_ws_pcdata;

const Ordane::DataObjectType* FindType(std::string_view name) {
    for (const auto& types : {Hask::AllDataObjectTypes(), Ordane::Fault::AllDataObjectTypes()}) {
        for (const Ordane::DataObjectType* type : types) {
            if (type->name == name) {
                return type;
            }
        }
    }
    return nullptr;
}

std::string Rewrite(std::string_view text, const Ordane::DataObjectType& type, Xml::Unknown unknown) {
    pugi::xml_document given;
    given.load_buffer(text.data(), text.size(), parsing, pugi::encoding_utf8);
    const auto object = Xml::ReadObject(given.document_element(), type, unknown);
    Xml::Writer writer;
    Xml::WriteObject(writer, type.name, *object, type);
    return writer.Take();
}

void Check(std::string_view text, const Ordane::DataObjectType& type, Xml::Unknown unknown) try {
    const std::string once = Rewrite(text, type, unknown);
    Tessim::Assert(Rewrite(once, type, unknown) == once,
                   "an object that was read is written and read again the same");
} catch (const Tessim::InvalidArgumentException&) {
    return;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    pugi::xml_document document;
    if (document.load_buffer(data, size, parsing, pugi::encoding_utf8)) {
        if (const auto* type = FindType(Xml::LocalName(document.document_element()))) {
            Check(text, *type, Xml::Unknown::Ignore);
            Check(text, *type, Xml::Unknown::Refuse);
        }
    }
    return 0;
}
