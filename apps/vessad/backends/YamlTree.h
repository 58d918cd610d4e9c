// A YAML document as a tree that knows where in the file each value stands, and a cursor over it whose
// mistakes read "FILE:LINE:COLUMN: path: expected what, found what".
//
// Scalars are those of YAML 1.2's core schema; a plain scalar that is a number, a truth value or nothing is
// no text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Vessad::Yaml {

// A mistake in a document. The message is whole and needs nothing around it.
class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Lines and columns (in bytes) count from 1.
struct Place {
    std::size_t line = 1;
    std::size_t column = 1;
};

struct Value {
    enum class Kind { Null, Scalar, Sequence, Map };
    struct Entry {
        const Value* key;  // always a scalar
        const Value* value;
    };

    Kind kind = Kind::Null;
    bool quoted = false;  // of scalars: text whatever it looks like
    Place place;
    std::string text;
    std::vector<const Value*> items;  // of a sequence
    std::vector<Entry> entries;       // of a map, in the order of the file
    std::size_t weight = 1;           // how many values this is with aliases written out
};

class Document {
  public:
    // Parses `text`, which must hold exactly one document; `name` is what messages call it. Throws Error: not
    // YAML, not UTF-8, or of more than `maxValues` values when its aliases are written out.
    Document(std::string_view text, std::string name, std::size_t maxValues = 4'000'000);

    const std::string& GetName() const { return name; }
    const Value& GetRoot() const { return *root; }

  private:
    class Builder;

    std::string name;
    std::deque<Value> values;
    const Value* root = nullptr;
};

// One value of a document, reached by a path. The document must outlive it.
class Cursor {
  public:
    explicit Cursor(const Document& document) : document(&document), value(&document.GetRoot()) {}

    const std::string& GetPath() const { return path; }

    bool IsNull() const;
    bool IsMap() const { return value->kind == Value::Kind::Map; }

    // Each of these throws Error when the value is something else.
    const std::string& Text() const;
    bool Bool() const;
    std::int64_t Whole(std::int64_t low, std::int64_t high) const;
    double Number() const;
    // The elements of a sequence.
    std::vector<Cursor> Items() const;
    // The members of a map in the order of the file, each key once.
    void ForEachMember(const std::function<void(const std::string& key, const Cursor& value)>& visit) const;
    // That this is a map whose keys are among `known`, each once.
    void CheckKeys(std::span<const std::string_view> known) const;

    // A map's member of that key.
    std::optional<Cursor> Find(std::string_view key) const;
    // The same; throws Error when there is none.
    Cursor Require(std::string_view key) const;

    // Throws Error: at this value, or at a map's key.
    [[noreturn]] void Refuse(const std::string& expected) const;
    [[noreturn]] void RefuseKey(std::string_view key, const std::string& expected) const;

  private:
    Cursor(const Cursor& parent, const Value& value, std::string path)
        : document(parent.document), value(&value), path(std::move(path)) {}

    Cursor Member(const Value::Entry& entry) const;
    [[noreturn]] void RefuseAt(const Place& place, const std::string& expected,
                               const std::string& found) const;
    void RequireMap() const;
    void RefuseRepeated() const;

    const Document* document;
    const Value* value;
    std::string path;  // empty: the whole document
};

}  // namespace Vessad::Yaml
