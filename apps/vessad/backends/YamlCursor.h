// Typed access to the values of a YAML document. Mistakes read "FILE:LINE:COLUMN: path: expected what, found
// what".
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "apps/vessad/backends/YamlDocument.h"

namespace Vessad::Yaml {

// One value of a document, which must outlive it.
class Cursor {
  public:
    // The root of `document`. What is wrong with the values goes to `mistakes`, which must outlive the
    // cursor.
    Cursor(const Document& document, Mistakes& mistakes)
        : document(&document), mistakes(&mistakes), value(&document.GetRoot()) {}

    bool IsNull() const { return value->IsNothing(); }
    bool IsMap() const { return value->kind == Value::Kind::Map; }
    bool IsText() const;  // that Text() returns

    Mistakes& GetMistakes() const { return *mistakes; }
    // Mistakes::Attempt.
    template <class Read>
    void Attempt(const Read& read) const {
        mistakes->Attempt(read);
    }

    // Each of these throws Error when the value is something else.
    const std::string& Text() const;
    bool Bool() const;
    std::int64_t Whole(std::int64_t low, std::int64_t high) const;
    double Number() const;
    // The elements of a sequence.
    std::vector<Cursor> Items() const;

    // Both throw Error when this is no map. A repeated key and other mistakes are attempts of their own.

    // Visits the members of a map in the order of the file.
    void ForEachMember(const std::function<void(const std::string& key, const Cursor& value)>& visit) const;
    // Checks that the keys are among `known`.
    void CheckKeys(std::span<const std::string_view> known) const;

    // A map's member of that key, or nothing. Throws Error when this is no map.
    std::optional<Cursor> Find(std::string_view key) const;
    // The same; throws Error when there is none.
    Cursor Require(std::string_view key) const;

    // Visits the values at a path of keys; lists on the way are visited element by element. Visits nothing
    // where the path leads to a value of another kind.
    void ForEachAt(std::span<const std::string_view> path,
                   const std::function<void(const Cursor& value)>& visit) const;

    // Throws Error: at this value, or at a map's key.
    [[noreturn]] void Refuse(const std::string& expected) const;
    [[noreturn]] void RefuseKey(std::string_view key, const std::string& expected) const;
    // Reports a mistake at this value with which the document can be used.
    void Tolerate(const std::string& expected) const;

  private:
    Cursor(const Cursor& parent, const Value& value)
        : document(parent.document), mistakes(parent.mistakes), value(&value) {}

    Error MistakeAt(const Place& place, const std::string& expected, const std::string& found) const;
    void RequireMap() const;
    void RefuseRepeated() const;

    const Document* document;
    Mistakes* mistakes;
    const Value* value;
};

// "one of a, b, c"; empty for no words.
std::string OneOf(std::span<const std::string_view> words);
// " (one of a, b, c)" of the words in either set, with long ones shortened; empty for no words, and for more
// than a message should have.
std::string Choice(const std::set<std::string_view>& words, const std::set<std::string_view>& more = {});

}  // namespace Vessad::Yaml
