#include "apps/vessad/backends/YamlDocument.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/mark.h>
#include <yaml-cpp/parser.h>

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <map>
#include <sstream>
#include <system_error>
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

// The parser takes some control characters for the end of the file and replaces bad UTF-8; both are errors
// here.
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
    throw Error(name, place, "expected UTF-8 text without control characters");
}

bool IsOneOf(std::string_view text, std::initializer_list<std::string_view> words) {
    return std::find(words.begin(), words.end(), text) != words.end();
}

}  // namespace

Error::Error(const std::string& document, const Place& place, const std::string& what)
    : runtime_error(document + ":" + std::to_string(place.line) + ":" + std::to_string(place.column) + ": " +
                    what) {}

std::string Shorten(std::string_view text) {
    return Tessim::StringUtil::EscapeUntrusted(text, maxShown);
}

bool Value::IsNothing() const {
    return kind == Kind::Null ||
           (kind == Kind::Scalar && !quoted && IsOneOf(text, {"", "~", "null", "Null", "NULL"}));
}

bool Value::IsText() const {
    return kind == Kind::Scalar &&
           (quoted || !(IsNothing() || IsNumber() ||
                        IsOneOf(text, {"true", "True", "TRUE", "false", "False", "FALSE"})));
}

bool Value::IsNumber() const {
    if (kind != Kind::Scalar || quoted) {
        return false;
    }
    std::string_view number = text;
    if (number.starts_with('-') || number.starts_with('+')) {
        number.remove_prefix(1);
    }
    if (number.starts_with("0x") || number.starts_with("0o")) {
        return number.size() > 2 &&
               number.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string_view::npos;
    }
    if (IsOneOf(number, {".inf", ".Inf", ".INF", ".nan", ".NaN", ".NAN"})) {
        return true;
    }
    // from_chars would take "inf" and "nan" too, which are words to YAML.
    double parsed = 0;
    const char* end = number.data() + number.size();
    const auto [stop, error] = std::from_chars(number.data(), end, parsed);
    return number.find_first_of("0123456789") <= 1 &&
           number.find_first_not_of("0123456789.eE+-") == std::string_view::npos && error == std::errc() &&
           stop == end;
}

std::string Value::Describe() const {
    if (IsNothing()) {
        return "nothing";
    }
    switch (kind) {
        case Kind::Sequence:
            return "a list";
        case Kind::Map:
            return "a mapping";
        default:
            return IsText() ? "the text \"" + Shorten(text) + "\"" : Shorten(text);
    }
}

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
        Append(*found->second, PlaceOf(mark));
    }

  private:
    struct Frame {
        Value* value;
        const Value* key = nullptr;  // of a map: the key whose value comes next
    };

    [[noreturn]] void Fail(const YAML::Mark& mark, const std::string& what) const {
        throw Error(document.name, PlaceOf(mark), what);
    }

    void CheckTag(const YAML::Mark& mark, const std::string& tag) const {
        if (!IsOneOf(tag, {"", "?", "!"})) {
            Fail(mark, "expected a value without a tag, found " + Shorten(tag));
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

    // Adds a complete value to the collection around it.
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
            throw Error(document.name, place, "expected a key, found " + value.Describe());
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
        throw Error(this->name, PlaceOf(failure.mark), "expected well-formed YAML: " + failure.msg);
    }
    if (root == nullptr) {
        root = &values.emplace_back();
    }
}

}  // namespace Vessad::Yaml
