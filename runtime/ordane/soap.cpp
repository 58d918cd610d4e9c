#include "runtime/ordane/soap.h"

#include <new>
#include <pugixml.hpp>

#include "runtime/ordane/xml_codec.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

namespace Ordane::Soap {

namespace {

constexpr const char* apiNamespace = "urn:ordane";
constexpr std::string_view targetElement = "_this";  // what names the object that a request calls

// An envelope that is being written; the one element goes into `body`.
class Envelope {
  public:
    Envelope() {
        body.Open("soapenv:Envelope");
        body.AddAttribute("xmlns:soapenv", "http://schemas.xmlsoap.org/soap/envelope/");
        body.AddAttribute("xmlns:xsi", "http://www.w3.org/2001/XMLSchema-instance");
        body.Open("soapenv:Body");
    }

    // Returns the message.
    std::string End() {
        body.Close("soapenv:Body");
        body.Close("soapenv:Envelope");
        return body.Take();
    }

    Xml::Writer body{R"(<?xml version="1.0" encoding="UTF-8"?>)"};
};

// Writes the message of a call or of its response.
template <class WriteContent>
std::string Encode(const std::string& name, WriteContent writeContent) {
    Envelope envelope;
    envelope.body.Open(name);
    envelope.body.AddAttribute("xmlns", apiNamespace);
    writeContent(envelope.body);
    envelope.body.Close(name);
    return envelope.End();
}

// A walker that stops at the first element beyond the depth allowed.
struct DepthCheck final : pugi::xml_tree_walker {
    explicit DepthCheck(std::size_t limit) : limit(limit) {}
    bool for_each(pugi::xml_node& node) override {
        return node.type() != pugi::node_element || static_cast<std::size_t>(depth()) < limit;
    }
    std::size_t limit;
};

// Refuses a message beyond `limits`. Reads the text alone and allocates nothing.
void CheckSize(std::string_view text, const Limits& limits) {
    if (text.size() > limits.maxBytes) {
        throw Tessim::InvalidArgumentException("a SOAP message of more than " +
                                               std::to_string(limits.maxBytes) + " bytes");
    }
    const Xml::Size size = Xml::SizeOf(text);
    if (size.elements > limits.maxElements || size.attributes > limits.maxElements) {
        throw Tessim::InvalidArgumentException(
            "a SOAP message of more than " + std::to_string(limits.maxElements) + " elements or attributes");
    }
}

// The only element of that name that `parent` holds; with an empty name, the only one of any.
pugi::xml_node OnlyChild(pugi::xml_node parent, std::string_view name, const char* what) {
    pugi::xml_node found;
    for (const pugi::xml_node child : parent.children()) {
        if (child.type() == pugi::node_element && (name.empty() || Xml::LocalName(child) == name)) {
            if (found) {
                throw Tessim::InvalidArgumentException(std::string("a SOAP message with more than one ") +
                                                       what);
            }
            found = child;
        }
    }
    if (!found) {
        throw Tessim::InvalidArgumentException(std::string("a SOAP message without ") + what);
    }
    return found;
}

std::string FaultText(pugi::xml_node fault) {
    for (const pugi::xml_node child : fault.children()) {
        if (Xml::LocalName(child) == "faultstring") {
            return Xml::TextOf(child);
        }
    }
    return "fault without a text";
}

// Its text is escaped, as it goes into logs.
[[noreturn]] void ThrowFault(pugi::xml_node element) {
    for (const pugi::xml_node child : element.children()) {
        if (Xml::LocalName(child) != "detail") {
            continue;
        }
        for (const pugi::xml_node detail : child.children()) {
            const auto* type = Fault::MethodFault::staticType.FindSubtype(Xml::LocalName(detail));
            if (type != nullptr) {
                const auto object = Xml::ReadObject(detail, *type, Xml::Unknown::Ignore);
                auto& fault = static_cast<Fault::MethodFault&>(*object);
                if (fault.GetMessage()) {
                    fault.SetMessage(Tessim::StringUtil::EscapeControls(*fault.GetMessage()));
                }
                fault.Throw();
            }
        }
    }
    // A fault of an unknown type.
    throw Fault::RuntimeFault::Exception(Tessim::StringUtil::EscapeControls(FaultText(element)));
}

}  // namespace

struct Message::Document {
    pugi::xml_document xml;
    pugi::xml_node content;  // the body's element
};

std::string EncodeRequest(const MoRef& target, const MethodInfo& method, const DataObject& request) {
    return Encode(std::string(method.name), [&](Xml::Writer& call) {
        Xml::WriteReference(call, targetElement, target);
        Xml::WriteMembers(call, request);
    });
}

std::string EncodeResponse(const MethodInfo& method, const DataObject& response) {
    return Encode(std::string(method.name) + "Response",
                  [&](Xml::Writer& reply) { Xml::WriteMembers(reply, response); });
}

std::string EncodeFault(const Fault::MethodFault& fault) {
    const std::string type(fault.GetDataObjectType()->name);
    Envelope envelope;
    envelope.body.Open("soapenv:Fault");
    envelope.body.AddElement("faultcode", "soapenv:Server");
    envelope.body.AddElement("faultstring", fault.GetMessage().value_or(type));
    envelope.body.Open("detail");
    envelope.body.Open(type);
    envelope.body.AddAttribute("xmlns", apiNamespace);
    Xml::WriteMembers(envelope.body, fault);
    envelope.body.Close(type);
    envelope.body.Close("detail");
    envelope.body.Close("soapenv:Fault");
    return envelope.End();
}

Message::Message(std::string_view text, const Limits& limits) : document(std::make_unique<Document>()) {
    CheckSize(text, limits);
    const pugi::xml_parse_result result = document->xml.load_buffer(
        text.data(), text.size(),
        pugi::parse_escapes | pugi::parse_cdata | pugi::parse_ws_pcdata | pugi::parse_doctype,
        pugi::encoding_utf8);
    if (result.status == pugi::status_out_of_memory) {
        throw std::bad_alloc();
    }
    if (!result) {
        throw Tessim::InvalidArgumentException("not XML: " + std::string(result.description()) + " at byte " +
                                               std::to_string(result.offset));
    }
    for (const pugi::xml_node child : document->xml.children()) {
        if (child.type() == pugi::node_doctype) {
            throw Tessim::InvalidArgumentException("a document type declaration is not allowed");
        }
    }
    DepthCheck depth(limits.maxDepth);
    if (!document->xml.traverse(depth)) {
        throw Tessim::InvalidArgumentException("a SOAP message nested deeper than " +
                                               std::to_string(limits.maxDepth));
    }
    const pugi::xml_node envelope = OnlyChild(document->xml, {}, "envelope");
    if (Xml::LocalName(envelope) != "Envelope") {
        throw Tessim::InvalidArgumentException("a SOAP message without envelope");
    }
    document->content = OnlyChild(OnlyChild(envelope, "Body", "body"), {}, "call");
}

Message::~Message() = default;

std::string Message::GetName() const {
    return std::string(Xml::LocalName(document->content));
}

Tessim::Ref<MoRef> Message::GetTarget() const {
    return Xml::ReadReference(OnlyChild(document->content, targetElement, "target object"), {});
}

Tessim::Ref<DataObject> Message::GetParameters(const MethodInfo& method) const {
    // The target stands among the parameters and is no member of them.
    pugi::xml_node call = document->content;
    call.remove_child(OnlyChild(call, targetElement, "target object"));
    return Xml::ReadObject(call, *method.request, Xml::Unknown::Refuse);
}

bool Message::IsReplyTo(const MethodInfo& method) const {
    const std::string name = GetName();
    return name == "Fault" || name == std::string(method.name) + "Response";
}

Tessim::Ref<DataObject> Message::GetResponse(const MethodInfo& method) const {
    if (GetName() == "Fault") {
        ThrowFault(document->content);
    }
    return Xml::ReadObject(document->content, *method.response, Xml::Unknown::Ignore);
}

}  // namespace Ordane::Soap
