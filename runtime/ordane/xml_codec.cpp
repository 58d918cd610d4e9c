#include "runtime/ordane/xml_codec.h"

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

struct MemberWriter {
    Writer& writer;
    const Member& member;

    void operator()(bool value) const { writer.AddElement(member.name, value ? "true" : "false"); }
    void operator()(std::int64_t value) const {
        if (member.kind == ValueKind::Enum) {
            writer.AddElement(member.name, member.enumType->GetText(static_cast<int>(value)));
        } else {
            writer.AddElement(member.name, std::to_string(value));
        }
    }
    void operator()(std::string_view value) const { writer.AddElement(member.name, value); }
    void operator()(Any* value) const {
        if (member.kind == ValueKind::Reference) {
            WriteReference(writer, member.name, static_cast<const MoRef&>(*value));
        } else {
            WriteObject(writer, member.name, static_cast<const DataObject&>(*value), *member.objectType);
        }
    }
};

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
    writer.Open(name);
    writer.AddAttribute("type", reference.GetType());
    writer.AddText(reference.GetId());
    writer.Close(name);
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
    object.GetDataObjectType()->VisitMembers([&](const Member& member) {
        const MemberWriter write{writer, member};
        member.forEach(object, [&](const Value& value) { std::visit(write, value); });
    });
}

void WriteObject(Writer& writer, std::string_view name, const DataObject& object,
                 const DataObjectType& declared) {
    writer.Open(name);
    const DataObjectType& type = *object.GetDataObjectType();
    if (&type != &declared) {
        writer.AddAttribute(concreteType, type.name);
    }
    WriteMembers(writer, object);
    writer.Close(name);
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
