#include "apps/vessad/backends/YamlCursor.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>
#include <unordered_set>

#include "runtime/ordane/xml_codec.h"

namespace Vessad::Yaml {

namespace {

// Nothing unless all of `text` is a number that T can hold.
template <class T>
std::optional<T> Parse(std::string_view text) {
    T value{};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

// The way from the root to `value`, as "vms[0].config"; empty for the root.
std::string PathOf(const Value& value) {
    std::string path;
    for (const Value* at = &value; at->parent != nullptr; at = at->parent) {
        if (at->parent->kind == Value::Kind::Sequence) {
            path.insert(0, "[" + std::to_string(at->position) + "]");
            continue;
        }
        const std::string& key = at->parent->entries[at->position].key->text;
        // In quotes when it could be taken for several steps of the path, or for none.
        const bool plain = !key.empty() && key.find_first_of(".[]\"") == std::string::npos;
        const std::string shown = Shorten(key);
        path.insert(0, (at->parent->parent == nullptr ? "" : ".") + (plain ? shown : "\"" + shown + "\""));
    }
    return path;
}

}  // namespace

bool Cursor::IsText() const {
    return value->IsText() && Ordane::Xml::IsText(value->text);
}

const std::string& Cursor::Text() const {
    if (!value->IsText()) {
        Refuse(value->kind == Value::Kind::Scalar && !IsNull() ? "text in quotes" : "text");
    }
    if (!Ordane::Xml::IsText(value->text)) {
        Refuse("text without control characters");
    }
    return value->text;
}

bool Cursor::Bool() const {
    if (value->kind != Value::Kind::Scalar || value->quoted ||
        (value->text != "true" && value->text != "false")) {
        Refuse("true or false");
    }
    return value->text == "true";
}

std::int64_t Cursor::Whole(std::int64_t low, std::int64_t high) const {
    std::optional<std::int64_t> number;
    if (value->kind == Value::Kind::Scalar && !value->quoted) {
        // A leading zero means base 8 to some readers and base 10 to others.
        const std::string_view digits = std::string_view(value->text).substr(value->text.starts_with('-'));
        if (!digits.starts_with('0') || digits == "0") {
            number = Parse<std::int64_t>(value->text);
        }
    }
    if (!number || *number < low || *number > high) {
        Refuse("a whole number from " + std::to_string(low) + " to " + std::to_string(high));
    }
    return *number;
}

double Cursor::Number() const {
    if (value->IsNumber()) {
        const std::optional<double> number = Parse<double>(value->text);
        if (number && std::isfinite(*number)) {
            return *number;
        }
    }
    Refuse("a number");
}

std::vector<Cursor> Cursor::Items() const {
    if (value->kind != Value::Kind::Sequence) {
        Refuse("a list");
    }
    std::vector<Cursor> items;
    items.reserve(value->items.size());
    for (const Value* item : value->items) {
        items.push_back(Cursor(*this, *item));
    }
    return items;
}

void Cursor::RequireMap() const {
    if (!IsMap()) {
        Refuse("a mapping");
    }
}

void Cursor::RefuseRepeated() const {
    constexpr std::size_t few = 16;  // comparing all of them is faster than a set
    const auto& entries = value->entries;
    std::unordered_set<std::string_view> seen;
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        const std::string& key = entry->key->text;
        const bool repeated = entries.size() <= few
                                  ? std::any_of(entries.begin(), entry,
                                                [&](const auto& other) { return other.key->text == key; })
                                  : !seen.insert(key).second;
        if (repeated) {
            mistakes->Refuse(MistakeAt(entry->key->place, "each key once", Shorten(key) + " again"));
        }
    }
}

void Cursor::ForEachMember(
    const std::function<void(const std::string& key, const Cursor& value)>& visit) const {
    RequireMap();
    RefuseRepeated();
    for (const Value::Entry& entry : value->entries) {
        Attempt([&] {
            if (!Ordane::Xml::IsText(entry.key->text)) {
                RefuseKey(entry.key->text, "a key without control characters");
            }
            visit(entry.key->text, Cursor(*this, *entry.value));
        });
    }
}

void Cursor::CheckKeys(std::span<const std::string_view> known) const {
    RequireMap();
    RefuseRepeated();
    for (const Value::Entry& entry : value->entries) {
        if (std::find(known.begin(), known.end(), entry.key->text) == known.end()) {
            mistakes->Refuse(MistakeAt(entry.key->place, known.empty() ? "no member" : OneOf(known),
                                       Shorten(entry.key->text)));
        }
    }
}

std::optional<Cursor> Cursor::Find(std::string_view key) const {
    RequireMap();
    for (const Value::Entry& entry : value->entries) {
        if (entry.key->text == key) {
            return Cursor(*this, *entry.value);
        }
    }
    return std::nullopt;
}

Cursor Cursor::Require(std::string_view key) const {
    const std::optional<Cursor> found = Find(key);
    if (!found) {
        throw MistakeAt(value->place, "the member " + std::string(key), "none");
    }
    return *found;
}

void Cursor::ForEachAt(std::span<const std::string_view> path,
                       const std::function<void(const Cursor& value)>& visit) const {
    if (value->kind == Value::Kind::Sequence) {
        for (const Value* item : value->items) {
            Cursor(*this, *item).ForEachAt(path, visit);
        }
        return;
    }
    if (path.empty()) {
        visit(*this);
        return;
    }
    for (const Value::Entry& entry : value->entries) {
        if (entry.key->text == path.front()) {
            Cursor(*this, *entry.value).ForEachAt(path.subspan(1), visit);
        }
    }
}

void Cursor::Refuse(const std::string& expected) const {
    throw MistakeAt(value->place, expected, value->Describe());
}

void Cursor::RefuseKey(std::string_view key, const std::string& expected) const {
    for (const Value::Entry& entry : value->entries) {
        if (entry.key->text == key) {
            throw MistakeAt(entry.key->place, expected, Shorten(key));
        }
    }
    Refuse(expected);
}

void Cursor::Tolerate(const std::string& expected) const {
    mistakes->Tolerate(MistakeAt(value->place, expected, value->Describe()));
}

Error Cursor::MistakeAt(const Place& place, const std::string& expected, const std::string& found) const {
    const std::string path = PathOf(*value);
    return {document->GetName(), place,
            (path.empty() ? "" : path + ": ") + "expected " + expected + ", found " + found};
}

std::string OneOf(std::span<const std::string_view> words) {
    std::string text;
    for (const std::string_view word : words) {
        text.append(text.empty() ? "one of " : ", ").append(word);
    }
    return text;
}

std::string Choice(const std::set<std::string_view>& words, const std::set<std::string_view>& more) {
    constexpr std::size_t most = 10;
    // Before they are copied: the sets may be large, and each of thousands of disks may have a mistake.
    if (words.size() > most || more.size() > most) {
        return "";
    }
    std::set<std::string_view> all = words;
    all.insert(more.begin(), more.end());
    if (all.empty() || all.size() > most) {
        return "";
    }
    std::vector<std::string> shown;
    shown.reserve(all.size());
    for (const std::string_view word : all) {
        shown.push_back(Shorten(word));
    }
    return " (" + OneOf(std::vector<std::string_view>(shown.begin(), shown.end())) + ")";
}

}  // namespace Vessad::Yaml
