// A YAML document as a tree of values that know their place in the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "apps/vessad/backends/YamlMistakes.h"

namespace Vessad::Yaml {

struct Value {
    enum class Kind : std::uint8_t { Scalar, Sequence, Map };
    struct Entry {
        const Value* key;  // always a scalar
        const Value* value;
    };

    Kind kind = Kind::Scalar;
    bool quoted = false;  // of scalars: text whatever it looks like
    Place place;
    const Value* parent = nullptr;  // null: the root
    std::uint32_t position = 0;     // among the parent's items, or of the entry among its entries
    std::string text;
    std::vector<const Value*> items;  // of a sequence
    std::vector<Entry> entries;       // of a map, in the order of the file; keys may repeat
    std::size_t weight = 1;           // number of values with aliases expanded

    // The kinds of scalar are those of YAML 1.2's core schema; a plain scalar that is a number, a truth value
    // or nothing is not a text.
    bool IsNothing() const;
    bool IsText() const;
    bool IsNumber() const;  // in any notation of the schema

    // The value in an error message, shortened, without control characters.
    std::string Describe() const;
};

// `text` shortened and escaped for an error message.
std::string Shorten(std::string_view text);

// Immutable; may be read from any thread.
class Document {
  public:
    // Parses `text`, which must hold one document at most; `name` is its name in messages. Throws Error: not
    // YAML, not UTF-8, nested more than 100 deep, or more than `maxValues` values with aliases expanded.
    Document(std::string_view text, std::string name, std::size_t maxValues = 4'000'000);

    const std::string& GetName() const { return name; }
    // Owned by the document.
    const Value& GetRoot() const { return *root; }

  private:
    class Builder;
    class Parser;

    std::string name;
    std::deque<Value> values;
    const Value* root = nullptr;
};

}  // namespace Vessad::Yaml
