// Type objects: descriptions of the API's classes for codecs, the reader of described hosts and type tests.
// All of them are static and constant; threads may share them.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <variant>
#include <vector>

#include "runtime/tessim/object.h"

namespace Ordane {

class DataObject;

// The base of data objects, references and managed objects.
class Any : public Tessim::ObjectImpl, public virtual Tessim::Object {};

// An enumeration: the texts of its values 0, 1, 2, …
struct EnumType {
    std::string_view name;
    std::span<const std::string_view> texts;

    // The text of a value, also of one that KeepUnknown returned; empty for any other. Thread-safe.
    std::string_view GetText(int value) const;
    // The value of a text, or -1. Thread-safe.
    int FindValue(std::string_view text) const;
    // A value that stands for `text`, which is none of the enumeration's; the same one for equal texts. The
    // text is kept for the life of the process, so after 64 of them, and for one of more than 64 bytes, the
    // value is that of "unknown". Thread-safe.
    static int KeepUnknown(std::string_view text);
};

// One value of a member, as codecs see it. Whole numbers and enumeration values are int64; texts and objects
// belong to the owner of the value and are borrowed for the call.
using Value = std::variant<bool, std::int64_t, std::string_view, Any*>;

enum class ValueKind { Bool, Int, Long, String, Enum, Object, Reference };

struct DataObjectType;

struct Member {
    std::string_view name;  // on the wire and in described hosts
    ValueKind kind;
    bool list;
    bool optional;
    const DataObjectType* objectType;  // of Object members: the declared type
    const EnumType* enumType;          // of Enum members
    std::string_view referenceType;    // of Reference members: the managed type; empty for any

    // Calls `visit` for each value that is set: once at most for a member that is no list. An object is never
    // null; null elements of a list are skipped.
    void (*forEach)(const DataObject& object, const std::function<void(const Value&)>& visit);
    // Sets the member, or appends to a list. The value must be of the member's kind and type.
    void (*append)(DataObject& object, const Value& value);
};

struct DataObjectType {
    std::string_view name;  // on the wire
    const DataObjectType* base;
    std::span<const Member> ownMembers;
    std::span<const DataObjectType* const> descendants;  // every type below this one
    Tessim::Ref<DataObject> (*create)();                 // a new object, never null

    // Whether a value of this type may stand where `other` is declared.
    bool IsA(const DataObjectType* other) const;
    // This type or the descendant of that name, or null.
    const DataObjectType* FindSubtype(std::string_view subtypeName) const;
    // Calls `visit` for every member, the base's first.
    template <class Visit>
    void VisitMembers(Visit&& visit) const {
        if (base != nullptr) {
            base->VisitMembers(visit);
        }
        for (const Member& member : ownMembers) {
            visit(member);
        }
    }
    // Every member, the base's first.
    std::vector<const Member*> GetMembers() const;
};

// A method: its parameters and its result travel as members of two data objects.
struct MethodInfo {
    std::string_view name;
    const DataObjectType* request;
    const DataObjectType* response;  // its only member, where there is one, is "returnval"
    bool beforeLogin;                // whether it may be called without a session
    int index;                       // its position in the managed type

    // Throws Fault::NotAuthenticated::Exception when a call of `method` needs a session and there is none.
    // Null stands for a method that does not exist, which needs one.
    static void CheckSession(const MethodInfo* method, bool isLoggedIn);
};

struct ManagedType {
    std::string_view name;
    std::span<const MethodInfo> methods;

    const MethodInfo* FindMethod(std::string_view methodName) const;  // null for an unknown name
};

// The exact type of a data class, to be compared with DataObject::GetDataObjectType().
template <class T>
const DataObjectType* GetType() {
    return &T::StaticType();
}

// Tests whether a data object's type is a data class or one derived from it.
class DoTypeTest {
  public:
    explicit DoTypeTest(const DataObjectType* type) : type(type) {}
    bool Includes(const DataObjectType* candidate) const { return candidate->IsA(type); }

  private:
    const DataObjectType* type;
};

template <class T>
DoTypeTest GetDoType() {
    return DoTypeTest(&T::StaticType());
}

// The texts of an enumeration class; the generated code specialises it for each.
template <class E>
const EnumType* GetEnumType();

}  // namespace Ordane
