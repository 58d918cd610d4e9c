// Data objects as XML elements and back, driven by their type objects. May be called from any thread.
#pragma once

#include <cstddef>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "runtime/ordane/objects.h"

namespace Ordane::Xml {

// What to do with what the declarations do not have: an element that is not a member of its type, an
// xsi:type, a text of an enumeration; and with a text or reference that fails IsText. A server refuses them.
// A client, to which a newer daemon may send more, ignores the element, reads the object as its declared
// type, keeps the enumeration's text (EnumType::KeepUnknown) and accepts the text.
enum class Unknown { Ignore, Refuse };

// Writes elements as text, one after the other, without white space between them. Texts and values end at
// their first NUL; control characters become references.
class Writer {
  public:
    // What is written follows `begin`.
    explicit Writer(std::string_view begin = {}) : text(begin) {}

    // Starts an element, which ends with Close; what is written in between is its content. `name` must be the
    // same for both.
    void Open(std::string_view name);
    void Close(std::string_view name);
    // Adds an attribute to the element that was just opened.
    void AddAttribute(std::string_view name, std::string_view value);
    void AddText(std::string_view content);
    // A whole element.
    void AddElement(std::string_view name, std::string_view content);

    // Returns what was written; nothing is left.
    std::string Take() { return std::exchange(text, {}); }

  private:
    void EndTag();
    void Escape(std::string_view content, std::string_view special);

    std::string text;
    bool inTag = false;  // of the element that was just opened
};

// Writes the element `name` with the object's members. A type other than `declared` is named in xsi:type.
void WriteObject(Writer& writer, std::string_view name, const DataObject& object,
                 const DataObjectType& declared);

// Writes the members of `object`.
void WriteMembers(Writer& writer, const DataObject& object);

// How much of a message a text takes, as its reader's limits count.
struct Size {
    std::size_t bytes = 0;
    std::size_t elements = 0;
    std::size_t attributes = 0;  // and other "="

    // Whether none exceeds that of `limit`.
    constexpr bool FitsIn(const Size& limit) const {
        return bytes <= limit.bytes && elements <= limit.elements && attributes <= limit.attributes;
    }
    Size& operator+=(const Size& other);
};

Size SizeOf(std::string_view text);
// Of the members of `object`. Its bytes are at least those that WriteMembers writes.
Size SizeOf(const DataObject& object);

// Returns the object that `element` holds, of type `declared` or the descendant that xsi:type names. Throws
// Tessim::InvalidArgumentException with the place and what was expected: a missing, repeated or ill-typed
// member, and what `unknown` refuses. White space around numbers and booleans does not count.
Tessim::Ref<DataObject> ReadObject(pugi::xml_node element, const DataObjectType& declared, Unknown unknown);

// The name without its prefix.
std::string_view LocalName(pugi::xml_node element);

// The character data of `element` itself.
std::string TextOf(pugi::xml_node element);

// The reference that `element` holds: its text and its "type" attribute, which must be `declaredType` unless
// that is empty. Throws as ReadObject does.
Tessim::Ref<MoRef> ReadReference(pugi::xml_node element, std::string_view declaredType,
                                 Unknown unknown = Unknown::Refuse);
// Writes the reference as the element `name`.
void WriteReference(Writer& writer, std::string_view name, const MoRef& reference);

// A name from a peer for a message: its first 64 bytes, escaped (StringUtil::EscapeUntrusted).
std::string EscapeName(std::string_view name);

// Whether `text` is valid UTF-8 made of nothing but what XML 1.0 calls characters: no control character but
// tab, line feed and carriage return, no surrogate, not U+FFFE or U+FFFF.
bool IsText(std::string_view text);

}  // namespace Ordane::Xml
