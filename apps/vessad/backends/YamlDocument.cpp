#include "apps/vessad/backends/YamlDocument.h"

#include <yaml.h>

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <map>
#include <new>
#include <system_error>
#include <utility>

#include "runtime/tessim/string_util.h"

namespace Vessad::Yaml {

namespace {

constexpr std::size_t maxShown = 60;  // bytes of the file's text in a message
constexpr std::size_t maxDepth = 100;

Place PlaceOf(const yaml_mark_t& mark) {
    const auto count = [](std::size_t index) { return static_cast<std::uint32_t>(index) + 1; };
    return {count(mark.line), count(mark.column)};
}

// The place of the byte at `offset`.
Place PlaceOf(std::string_view text, std::size_t offset) {
    const std::string_view before = text.substr(0, offset);
    const std::string_view line = before.substr(before.rfind('\n') + 1);
    const auto startsCharacter = [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
    };
    const auto count = [](std::ptrdiff_t number) { return static_cast<std::uint32_t>(number) + 1; };
    return {count(std::count(before.begin(), before.end(), '\n')),
            count(std::count_if(line.begin(), line.end(), startsCharacter))};
}

std::string_view TextOf(const yaml_char_t* text) {
    return text == nullptr ? std::string_view() : reinterpret_cast<const char*>(text);
}

bool IsOneOf(std::string_view text, std::initializer_list<std::string_view> words) {
    return std::find(words.begin(), words.end(), text) != words.end();
}

}  // namespace

std::string Shorten(std::string_view text) {
    return Tessim::StringUtil::EscapeUntrusted(text, maxShown);
}

bool Value::IsNothing() const {
    return kind == Kind::Scalar && !quoted && IsOneOf(text, {"", "~", "null", "Null", "NULL"});
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
class Document::Builder {
  public:
    Builder(Document& document, std::size_t maxValues) : document(document), left(maxValues) {}

    void Add(const yaml_event_t& event) {
        switch (event.type) {
            case YAML_DOCUMENT_START_EVENT:
                if (document.root != nullptr) {
                    Fail(event, "expected one document, found another");
                }
                break;
            case YAML_SCALAR_EVENT:
                AddScalar(event);
                break;
            case YAML_SEQUENCE_START_EVENT:
                Open(event, Value::Kind::Sequence, event.data.sequence_start.tag,
                     event.data.sequence_start.anchor);
                break;
            case YAML_MAPPING_START_EVENT:
                Open(event, Value::Kind::Map, event.data.mapping_start.tag, event.data.mapping_start.anchor);
                break;
            case YAML_SEQUENCE_END_EVENT:
            case YAML_MAPPING_END_EVENT:
                Close();
                break;
            case YAML_ALIAS_EVENT:
                AddAlias(event, TextOf(event.data.alias.anchor));
                break;
            default:
                break;
        }
    }

  private:
    struct Frame {
        Value* value;
        const Value* key = nullptr;  // of a map: the key whose value comes next
    };

    [[noreturn]] void Fail(const yaml_event_t& event, const std::string& what) const {
        throw Error(document.name, PlaceOf(event.start_mark), what);
    }

    void AddScalar(const yaml_event_t& event) {
        const auto& scalar = event.data.scalar;
        const std::string_view tag = TextOf(scalar.tag);
        const bool isTaggedText = tag == YAML_STR_TAG;
        if (!isTaggedText) {
            CheckTag(event, tag);
        }
        Value& value = Make(event, Value::Kind::Scalar, scalar.anchor);
        value.quoted = isTaggedText || scalar.style != YAML_PLAIN_SCALAR_STYLE;
        value.text.assign(reinterpret_cast<const char*>(scalar.value), scalar.length);
        Append(value);
    }

    void AddAlias(const yaml_event_t& event, std::string_view anchor) {
        const auto found = anchors.find(anchor);
        const bool isOpen = found != anchors.end() &&
                            std::any_of(open.begin(), open.end(),
                                        [&](const Frame& frame) { return frame.value == found->second; });
        if (found == anchors.end() || isOpen) {
            Fail(event, "expected the name of a value that is complete");
        }
        Take(event, found->second->weight);
        // A copy, so that messages have the alias's place and path. Its members are those of the original.
        Value& value = document.values.emplace_back(*found->second);
        value.place = PlaceOf(event.start_mark);
        Append(value);
    }

    void Open(const yaml_event_t& event, Value::Kind kind, const yaml_char_t* tag,
              const yaml_char_t* anchor) {
        CheckTag(event, TextOf(tag));
        if (open.size() == maxDepth) {
            Fail(event, "the document is nested too deeply");
        }
        open.push_back({&Make(event, kind, anchor)});
    }

    void Close() {
        Value& value = *open.back().value;
        open.pop_back();
        Append(value);
    }

    void CheckTag(const yaml_event_t& event, std::string_view tag) const {
        if (!IsOneOf(tag, {"", "!"})) {
            Fail(event, "expected a value without a tag, found " + Shorten(tag));
        }
    }

    void Take(const yaml_event_t& event, std::size_t count) {
        if (count > left) {
            Fail(event, "the document has too many values");
        }
        left -= count;
    }

    Value& Make(const yaml_event_t& event, Value::Kind kind, const yaml_char_t* anchor) {
        Take(event, 1);
        Value& value = document.values.emplace_back();
        value.kind = kind;
        value.place = PlaceOf(event.start_mark);
        if (anchor != nullptr) {
            anchors.insert_or_assign(std::string(TextOf(anchor)), &value);
        }
        return value;
    }

    // Adds a complete value to the collection around it.
    void Append(Value& value) {
        if (open.empty()) {
            document.root = &value;
            return;
        }
        Frame& frame = open.back();
        Value& parent = *frame.value;
        parent.weight += value.weight;
        value.parent = &parent;
        if (parent.kind == Value::Kind::Sequence) {
            value.position = static_cast<std::uint32_t>(parent.items.size());
            parent.items.push_back(&value);
        } else if (frame.key != nullptr) {
            value.position = static_cast<std::uint32_t>(parent.entries.size());
            parent.entries.push_back({std::exchange(frame.key, nullptr), &value});
        } else if (value.kind == Value::Kind::Scalar) {
            frame.key = &value;
        } else {
            throw Error(document.name, value.place, "expected a key, found " + value.Describe());
        }
    }

    Document& document;
    std::size_t left;
    std::vector<Frame> open;
    std::map<std::string, Value*, std::less<>> anchors;
};

// The events of a text.
class Document::Parser {
  public:
    Parser(std::string_view text, const std::string& name) : text(text), name(name) {
        if (::yaml_parser_initialize(&parser) == 0) {
            throw std::bad_alloc();
        }
        ::yaml_parser_set_encoding(&parser, YAML_UTF8_ENCODING);
        ::yaml_parser_set_input_string(&parser, reinterpret_cast<const unsigned char*>(text.data()),
                                       text.size());
    }
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;
    ~Parser() {
        ::yaml_event_delete(&event);
        ::yaml_parser_delete(&parser);
    }

    // Returns the next event, which the next call deletes. Throws Error for what is no YAML.
    const yaml_event_t& Next() {
        ::yaml_event_delete(&event);
        if (::yaml_parser_parse(&parser, &event) == 0) {
            Fail();
        }
        return event;
    }

  private:
    [[noreturn]] void Fail() const {
        if (parser.error == YAML_MEMORY_ERROR) {
            throw std::bad_alloc();
        }
        if (parser.error == YAML_READER_ERROR) {
            throw Error(name, PlaceOf(text, parser.problem_offset),
                        "expected UTF-8 text without control characters");
        }
        const std::string context = parser.context == nullptr ? "" : std::string(" ") + parser.context;
        throw Error(name, PlaceOf(parser.problem_mark),
                    std::string("expected well-formed YAML: ") + parser.problem + context);
    }

    const std::string_view text;
    const std::string& name;
    yaml_parser_t parser{};
    yaml_event_t event{};
};

Document::Document(std::string_view text, std::string name, std::size_t maxValues) : name(std::move(name)) {
    Builder builder(*this, maxValues);
    Parser parser(text, this->name);
    for (;;) {
        const yaml_event_t& event = parser.Next();
        if (event.type == YAML_STREAM_END_EVENT) {
            break;
        }
        builder.Add(event);
    }
    if (root == nullptr) {
        root = &values.emplace_back();
    }
}

}  // namespace Vessad::Yaml
