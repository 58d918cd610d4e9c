#include "apps/vessad/backends/YamlTree.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/mark.h>
#include <yaml-cpp/parser.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <map>
#include <sstream>
#include <unordered_set>
#include <utility>

#include "runtime/ordane/xml_codec.h"
#include "runtime/tessim/string_util.h"

namespace Vessad::Yaml {

namespace {

constexpr std::size_t maxShown = 60;  // bytes of the file's text in a message

Place PlaceOf(const YAML::Mark& mark) {
    const auto count = [](int index) { return static_cast<std::size_t>(std::max(index, 0)) + 1; };
    return {count(mark.line), count(mark.column)};
}

std::string Format(const std::string& name, const Place& place, const std::string& what) {
    return name + ":" + std::to_string(place.line) + ":" + std::to_string(place.column) + ": " + what;
}

// The parser takes some control characters for the end of the file and mends bad UTF-8: neither may pass.
void CheckCharacters(std::string_view text, const std::string& name) {
    if (Ordane::Xml::IsText(text)) {
        return;
    }
    Place place;
    for (std::size_t at = 0; at < text.size();) {
        const auto lead = static_cast<unsigned char>(text[at]);
        const std::size_t length = lead < 0xc0 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
        if (!Ordane::Xml::IsText(text.substr(at, length))) {
            break;
        }
        if (lead == '\n') {
            ++place.line;
            place.column = 1;
        } else {
            place.column += length;
        }
        at += length;
    }
    throw Error(Format(name, place, "expected UTF-8 text without control characters"));
}

bool IsOneOf(std::string_view text, std::initializer_list<std::string_view> words) {
    return std::find(words.begin(), words.end(), text) != words.end();
}

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

// Whether a plain scalar is a number to YAML, in whatever notation.
bool LooksLikeNumber(std::string_view text) {
    if (text.starts_with('-') || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    if (text.starts_with("0x") || text.starts_with("0o")) {
        return text.size() > 2 &&
               text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string_view::npos;
    }
    if (IsOneOf(text, {".inf", ".Inf", ".INF", ".nan", ".NaN", ".NAN"})) {
        return true;
    }
    // Only what starts with a digit or a point is one: "inf" and "nan" are words.
    return text.find_first_of("0123456789") <= 1 && text.find_first_not_of("0123456789.eE+-") == text.npos &&
           Parse<double>(text).has_value();
}

bool IsNothing(const Value& value) {
    return value.kind == Value::Kind::Null || (value.kind == Value::Kind::Scalar && !value.quoted &&
                                               IsOneOf(value.text, {"", "~", "null", "Null", "NULL"}));
}

bool IsTextScalar(const Value& value) {
    return value.kind == Value::Kind::Scalar &&
           (value.quoted || !(IsNothing(value) || LooksLikeNumber(value.text) ||
                              IsOneOf(value.text, {"true", "True", "TRUE", "false", "False", "FALSE"})));
}

std::string Describe(const Value& value) {
    if (IsNothing(value)) {
        return "nothing";
    }
    switch (value.kind) {
        case Value::Kind::Sequence:
            return "a list";
        case Value::Kind::Map:
            return "a mapping";
        default:
            break;
    }
    const std::string shown = Tessim::StringUtil::EscapeUntrusted(value.text, maxShown);
    return IsTextScalar(value) ? "the text \"" + shown + "\"" : shown;
}

}  // namespace

// Builds the tree from the parser's events.
class Document::Builder final : public YAML::EventHandler {
  public:
    Builder(Document& document, std::size_t maxValues) : document(document), left(maxValues) {}

    void OnDocumentStart(const YAML::Mark& mark) override {
        if (document.root != nullptr) {
            Fail(mark, "expected one document, found another");
        }
    }
    void OnDocumentEnd() override {}

    void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override {
        Close(Make(mark, Value::Kind::Null, anchor));
    }

    void OnScalar(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                  const std::string& text) override {
        // The parser's own tags: "?" for plain and "!" for quoted scalars.
        const bool quoted = tag == "!" || tag == "tag:yaml.org,2002:str";
        if (!quoted) {
            CheckTag(mark, tag);
        }
        Value& value = Make(mark, Value::Kind::Scalar, anchor);
        value.quoted = quoted;
        value.text = text;
        Close(value);
    }

    void OnSequenceStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value /*style*/) override {
        CheckTag(mark, tag);
        Open(Make(mark, Value::Kind::Sequence, anchor));
    }
    void OnSequenceEnd() override { CloseCollection(); }

    void OnMapStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value /*style*/) override {
        CheckTag(mark, tag);
        Open(Make(mark, Value::Kind::Map, anchor));
    }
    void OnMapEnd() override { CloseCollection(); }

    void OnAlias(const YAML::Mark& mark, YAML::anchor_t anchor) override {
        const auto found = anchors.find(anchor);
        const bool isOpen = found != anchors.end() &&
                            std::any_of(open.begin(), open.end(),
                                        [&](const Frame& frame) { return frame.value == found->second; });
        if (found == anchors.end() || isOpen) {
            Fail(mark, "expected the name of a value that is complete");
        }
        Take(mark, found->second->weight);
        Place where = PlaceOf(mark);
        Append(*found->second, where);
    }

  private:
    struct Frame {
        Value* value;
        const Value* key = nullptr;  // of a map: the key whose value comes next
    };

    [[noreturn]] void Fail(const YAML::Mark& mark, const std::string& what) const {
        throw Error(Format(document.name, PlaceOf(mark), what));
    }

    void CheckTag(const YAML::Mark& mark, const std::string& tag) const {
        if (!IsOneOf(tag, {"", "?", "!"})) {
            Fail(mark, "expected a value without a tag, found " +
                           Tessim::StringUtil::EscapeUntrusted(tag, maxShown));
        }
    }

    void Take(const YAML::Mark& mark, std::size_t count) {
        if (count > left) {
            Fail(mark, "the document has too many values");
        }
        left -= count;
    }

    Value& Make(const YAML::Mark& mark, Value::Kind kind, YAML::anchor_t anchor) {
        Take(mark, 1);
        Value& value = document.values.emplace_back();
        value.kind = kind;
        value.place = PlaceOf(mark);
        if (anchor != YAML::NullAnchor) {
            anchors[anchor] = &value;
        }
        return value;
    }

    void Open(Value& value) { open.push_back({&value}); }

    void CloseCollection() {
        Value& value = *open.back().value;
        open.pop_back();
        Close(value);
    }

    void Close(const Value& value) { Append(value, value.place); }

    // Hands a whole value to the collection around it.
    void Append(const Value& value, const Place& place) {
        if (open.empty()) {
            document.root = &value;
            return;
        }
        Frame& parent = open.back();
        parent.value->weight += value.weight;
        if (parent.value->kind == Value::Kind::Sequence) {
            parent.value->items.push_back(&value);
        } else if (parent.key != nullptr) {
            parent.value->entries.push_back({std::exchange(parent.key, nullptr), &value});
        } else if (value.kind == Value::Kind::Scalar) {
            parent.key = &value;
        } else {
            throw Error(Format(document.name, place, "expected a key, found " + Describe(value)));
        }
    }

    Document& document;
    std::size_t left;
    std::vector<Frame> open;
    std::map<YAML::anchor_t, Value*> anchors;
};

Document::Document(std::string_view text, std::string name, std::size_t maxValues) : name(std::move(name)) {
    CheckCharacters(text, this->name);
    std::istringstream stream{std::string(text)};
    Builder builder(*this, maxValues);
    try {
        YAML::Parser parser(stream);
        while (parser.HandleNextDocument(builder)) {
        }
    } catch (const YAML::ParserException& failure) {
        throw Error(Format(this->name, PlaceOf(failure.mark), "expected well-formed YAML: " + failure.msg));
    }
    if (root == nullptr) {
        root = &values.emplace_back();
    }
}

bool Cursor::IsNull() const {
    return IsNothing(*value);
}

const std::string& Cursor::Text() const {
    if (!IsTextScalar(*value)) {
        Refuse(value->kind == Value::Kind::Scalar && !IsNull() ? "text in quotes" : "text");
    }
    if (!Ordane::Xml::IsText(value->text)) {
        Refuse("text without control characters");
    }
    return value->text;
}

bool Cursor::Bool() const {
    if (value->kind != Value::Kind::Scalar || value->quoted || !IsOneOf(value->text, {"true", "false"})) {
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
    if (value->kind == Value::Kind::Scalar && !value->quoted && LooksLikeNumber(value->text)) {
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
        items.push_back(Cursor(*this, *item, path + "[" + std::to_string(items.size()) + "]"));
    }
    return items;
}

void Cursor::RequireMap() const {
    if (!IsMap()) {
        Refuse("a mapping");
    }
}

void Cursor::RefuseRepeated() const {
    std::unordered_set<std::string_view> seen;
    for (const Value::Entry& entry : value->entries) {
        if (!seen.insert(entry.key->text).second) {
            RefuseAt(entry.key->place, "each key once",
                     Tessim::StringUtil::EscapeUntrusted(entry.key->text, maxShown) + " again");
        }
    }
}

void Cursor::ForEachMember(
    const std::function<void(const std::string& key, const Cursor& value)>& visit) const {
    RequireMap();
    RefuseRepeated();
    for (const Value::Entry& entry : value->entries) {
        if (!Ordane::Xml::IsText(entry.key->text)) {
            RefuseKey(entry.key->text, "a key without control characters");
        }
        visit(entry.key->text, Member(entry));
    }
}

void Cursor::CheckKeys(std::span<const std::string_view> known) const {
    RequireMap();
    RefuseRepeated();
    for (const Value::Entry& entry : value->entries) {
        if (std::find(known.begin(), known.end(), entry.key->text) == known.end()) {
            std::string expected;
            for (const std::string_view key : known) {
                expected.append(expected.empty() ? "one of " : ", ").append(key);
            }
            RefuseKey(entry.key->text, expected.empty() ? "no member" : expected);
        }
    }
}

std::optional<Cursor> Cursor::Find(std::string_view key) const {
    RequireMap();
    for (const Value::Entry& entry : value->entries) {
        if (entry.key->text == key) {
            return Member(entry);
        }
    }
    return std::nullopt;
}

Cursor Cursor::Require(std::string_view key) const {
    std::optional<Cursor> found = Find(key);
    if (!found) {
        RefuseAt(value->place, "the member " + std::string(key), "none");
    }
    return *std::move(found);
}

Cursor Cursor::Member(const Value::Entry& entry) const {
    const std::string& key = entry.key->text;
    // Keys with points of their own, and empty ones, are told apart by quotes.
    const bool plain = !key.empty() && key.find_first_of(".[]\"") == std::string::npos;
    const std::string shown = Tessim::StringUtil::EscapeUntrusted(key, maxShown);
    return {*this, *entry.value, path + (path.empty() ? "" : ".") + (plain ? shown : "\"" + shown + "\"")};
}

void Cursor::Refuse(const std::string& expected) const {
    RefuseAt(value->place, expected, Describe(*value));
}

void Cursor::RefuseKey(std::string_view key, const std::string& expected) const {
    for (const Value::Entry& entry : value->entries) {
        if (entry.key->text == key) {
            RefuseAt(entry.key->place, expected, Tessim::StringUtil::EscapeUntrusted(key, maxShown));
        }
    }
    Refuse(expected);
}

void Cursor::RefuseAt(const Place& place, const std::string& expected, const std::string& found) const {
    throw Error(Format(document->GetName(), place,
                       (path.empty() ? "" : path + ": ") + "expected " + expected + ", found " + found));
}

}  // namespace Vessad::Yaml
