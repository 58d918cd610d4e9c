#include "runtime/ordane/xml_codec.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

namespace Ordane::Xml {

namespace {

constexpr const char* concreteType = "xsi:type";

// How much of a peer's names an exception repeats.
constexpr std::size_t maxNameLength = 64;
constexpr std::size_t maxPlaceLength = 200;

[[noreturn]] void Refuse(pugi::xml_node element, const std::string& expected) {
    throw Tessim::InvalidArgumentException(
        "element " + Tessim::StringUtil::EscapeUntrusted(element.path('/').substr(1), maxPlaceLength) +
        ": expected " + expected);
}

std::string_view WithoutPrefix(std::string_view name) {
    const std::size_t colon = name.find(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

// Counts what a Writer would write. The texts' special characters count as their longest escape.
class Counter {
  public:
    void Open(std::string_view name) {
        ++size.elements;
        size.bytes += name.size() + std::string_view("<>").size();
    }
    void Close(std::string_view name) { size.bytes += name.size() + std::string_view("</>").size(); }
    void AddAttribute(std::string_view name, std::string_view value) {
        ++size.attributes;
        size.bytes += name.size() + std::string_view(" =\"\"").size();
        AddText(value);
    }
    void AddText(std::string_view content) {
        constexpr std::size_t longestEscape = 6;
        size.bytes += content.size();
        for (const char character : content) {
            const bool isSpecial = static_cast<unsigned char>(character) < ' ' || character == '&' ||
                                   character == '<' || character == '>' || character == '"';
            size.bytes += isSpecial ? longestEscape - 1 : 0;
            size.attributes += character == '=' ? 1 : 0;
        }
    }
    void AddElement(std::string_view name, std::string_view content) {
        Open(name);
        AddText(content);
        Close(name);
    }

    Size size;
};

// What follows writes to a Writer or a Counter.

template <class Output>
void PutMembers(Output& output, const DataObject& object);

template <class Output>
void PutReference(Output& output, std::string_view name, const MoRef& reference) {
    output.Open(name);
    output.AddAttribute("type", reference.GetType());
    output.AddText(reference.GetId());
    output.Close(name);
}

template <class Output>
void PutObject(Output& output, std::string_view name, const DataObject& object,
               const DataObjectType& declared) {
    output.Open(name);
    const DataObjectType& type = *object.GetDataObjectType();
    if (&type != &declared) {
        output.AddAttribute(concreteType, type.name);
    }
    PutMembers(output, object);
    output.Close(name);
}

template <class Output>
struct MemberWriter {
    Output& output;
    const Member& member;

    void operator()(bool value) const { output.AddElement(member.name, value ? "true" : "false"); }
    void operator()(std::int64_t value) const {
        if (member.kind == ValueKind::Enum) {
            output.AddElement(member.name, member.enumType->GetText(static_cast<int>(value)));
        } else {
            output.AddElement(member.name, std::to_string(value));
        }
    }
    void operator()(std::string_view value) const { output.AddElement(member.name, value); }
    void operator()(Any* value) const {
        if (member.kind == ValueKind::Reference) {
            PutReference(output, member.name, static_cast<const MoRef&>(*value));
        } else {
            PutObject(output, member.name, static_cast<const DataObject&>(*value), *member.objectType);
        }
    }
};

template <class Output>
void PutMembers(Output& output, const DataObject& object) {
    object.GetDataObjectType()->VisitMembers([&](const Member& member) {
        const MemberWriter<Output> write{output, member};
        member.forEach(object, [&](const Value& value) { std::visit(write, value); });
    });
}

std::int64_t ReadInteger(pugi::xml_node element, std::int64_t low, std::int64_t high) {
    const std::string text = Tessim::StringUtil::Trim(TextOf(element));
    std::int64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < low || number > high) {
        Refuse(element, "a whole number from " + std::to_string(low) + " to " + std::to_string(high));
    }
    return number;
}

void ReadMember(pugi::xml_node element, const Member& member, Unknown unknown, DataObject& object) {
    switch (member.kind) {
        case ValueKind::Bool: {
            const std::string text = Tessim::StringUtil::Trim(TextOf(element));
            if (text != "true" && text != "false" && text != "1" && text != "0") {
                Refuse(element, "true or false");
            }
            member.append(object, Value(text == "true" || text == "1"));
            break;
        }
        case ValueKind::Int:
            member.append(object, Value(ReadInteger(element, std::numeric_limits<std::int32_t>::min(),
                                                    std::numeric_limits<std::int32_t>::max())));
            break;
        case ValueKind::Long:
            member.append(object, Value(ReadInteger(element, std::numeric_limits<std::int64_t>::min(),
                                                    std::numeric_limits<std::int64_t>::max())));
            break;
        case ValueKind::String: {
            const std::string text = TextOf(element);
            if (unknown == Unknown::Refuse && !IsText(text)) {
                Refuse(element, "a text that XML can carry");
            }
            member.append(object, Value(std::string_view(text)));
            break;
        }
        case ValueKind::Enum: {
            const std::string text = TextOf(element);
            int value = member.enumType->FindValue(text);
            if (value < 0 && unknown == Unknown::Refuse) {
                Refuse(element, "a " + std::string(member.enumType->name));
            }
            if (value < 0) {
                value = EnumType::KeepUnknown(text);
            }
            member.append(object, Value(std::int64_t{value}));
            break;
        }
        case ValueKind::Object:
            member.append(object,
                          Value(static_cast<Any*>(ReadObject(element, *member.objectType, unknown).Get())));
            break;
        case ValueKind::Reference:
            member.append(
                object,
                Value(static_cast<Any*>(ReadReference(element, member.referenceType, unknown).Get())));
            break;
    }
}

}  // namespace

std::string_view LocalName(pugi::xml_node element) {
    return WithoutPrefix(element.name());
}

std::string TextOf(pugi::xml_node element) {
    std::string text;
    for (const pugi::xml_node child : element.children()) {
        if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
            text += child.value();
        }
    }
    return text;
}

void Writer::Open(std::string_view name) {
    EndTag();
    text += '<';
    text += name;
    inTag = true;
}

void Writer::Close(std::string_view name) {
    if (std::exchange(inTag, false)) {
        text += "/>";
        return;
    }
    text += "</";
    text += name;
    text += '>';
}

void Writer::AddAttribute(std::string_view name, std::string_view value) {
    text += ' ';
    text += name;
    text += "=\"";
    Escape(value, "&<>\"\n\r");
    text += '"';
}

void Writer::AddText(std::string_view content) {
    if (content.empty() || content.front() == '\0') {
        return;
    }
    EndTag();
    Escape(content, "&<>");
}

void Writer::AddElement(std::string_view name, std::string_view content) {
    Open(name);
    AddText(content);
    Close(name);
}

void Writer::EndTag() {
    if (std::exchange(inTag, false)) {
        text += '>';
    }
}

void Writer::Escape(std::string_view content, std::string_view special) {
    constexpr std::string_view whiteSpace = "\t\n\r";
    content = content.substr(0, content.find('\0'));
    std::size_t begin = 0;
    for (std::size_t at = 0; at < content.size(); ++at) {
        const char character = content[at];
        const bool isControl = static_cast<unsigned char>(character) < ' ' &&
                               whiteSpace.find(character) == std::string_view::npos;
        if (!isControl && special.find(character) == std::string_view::npos) {
            continue;
        }
        text += content.substr(begin, at - begin);
        begin = at + 1;
        switch (character) {
            case '&':
                text += "&amp;";
                break;
            case '<':
                text += "&lt;";
                break;
            case '>':
                text += "&gt;";
                break;
            case '"':
                text += "&quot;";
                break;
            default: {
                const std::string code = std::to_string(static_cast<int>(character));
                text += (code.size() < 2 ? "&#0" : "&#") + code + ';';
            }
        }
    }
    text += content.substr(begin);
}

void WriteReference(Writer& writer, std::string_view name, const MoRef& reference) {
    PutReference(writer, name, reference);
}

Tessim::Ref<MoRef> ReadReference(pugi::xml_node element, std::string_view declaredType, Unknown unknown) {
    std::string type(element.attribute("type").value());
    if (type.empty() || (!declaredType.empty() && type != declaredType)) {
        Refuse(element, "a reference with the type " + (declaredType.empty() ? std::string("of its object")
                                                                             : std::string(declaredType)));
    }
    std::string id = TextOf(element);
    if (unknown == Unknown::Refuse && !(IsText(type) && IsText(id))) {
        Refuse(element, "a reference that XML can carry");
    }
    return Tessim::MakeRef<MoRef>(std::move(type), std::move(id));
}

std::string EscapeName(std::string_view name) {
    return Tessim::StringUtil::EscapeUntrusted(name, maxNameLength);
}

void WriteMembers(Writer& writer, const DataObject& object) {
    PutMembers(writer, object);
}

Size& Size::operator+=(const Size& other) {
    bytes += other.bytes;
    elements += other.elements;
    attributes += other.attributes;
    return *this;
}

Size SizeOf(std::string_view text) {
    Size size{text.size(), 0, static_cast<std::size_t>(std::count(text.begin(), text.end(), '='))};
    for (std::size_t at = text.find('<'); at != std::string_view::npos; at = text.find('<', at + 1)) {
        if (at + 1 == text.size() || text[at + 1] != '/') {
            ++size.elements;
        }
    }
    return size;
}

Size SizeOf(const DataObject& object) {
    Counter counter;
    PutMembers(counter, object);
    return counter.size;
}

void WriteObject(Writer& writer, std::string_view name, const DataObject& object,
                 const DataObjectType& declared) {
    PutObject(writer, name, object, declared);
}

Tessim::Ref<DataObject> ReadObject(pugi::xml_node element, const DataObjectType& declared, Unknown unknown) {
    const DataObjectType* type = &declared;
    if (const pugi::xml_attribute named = element.attribute(concreteType)) {
        type = declared.FindSubtype(WithoutPrefix(named.value()));
        if (type == nullptr && unknown == Unknown::Refuse) {
            Refuse(element,
                   "a " + std::string(declared.name) + ", not the type " + EscapeName(named.value()));
        }
        if (type == nullptr) {
            type = &declared;
        }
    }
    Tessim::Ref<DataObject> object = type->create();
    const std::vector<const Member*> members = type->GetMembers();
    std::vector<bool> seen(members.size());
    for (const pugi::xml_node child : element.children()) {
        if (child.type() != pugi::node_element) {
            continue;
        }
        const std::string_view name = LocalName(child);
        std::size_t index = 0;
        while (index < members.size() && members[index]->name != name) {
            ++index;
        }
        if (index == members.size()) {
            if (unknown == Unknown::Refuse) {
                Refuse(child, "a member of " + std::string(type->name));
            }
            continue;
        }
        if (seen[index] && !members[index]->list) {
            Refuse(child, "one element of this name");
        }
        seen[index] = true;
        ReadMember(child, *members[index], unknown, *object);
    }
    for (std::size_t index = 0; index < members.size(); ++index) {
        if (!seen[index] && !members[index]->optional && !members[index]->list) {
            Refuse(element, "the member " + std::string(members[index]->name));
        }
    }
    return object;
}

bool IsText(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = Tessim::StringUtil::Utf8Length(text);
        const std::string_view character = text.substr(0, length);
        const bool isControl =
            length == 1 && text[0] < ' ' && text[0] != '\t' && text[0] != '\n' && text[0] != '\r';
        if (length == 0 || isControl || character == "\xEF\xBF\xBE" || character == "\xEF\xBF\xBF") {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

}  // namespace Ordane::Xml
