#include "runtime/tessim/string_util.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <system_error>

#include "runtime/tessim/exception.h"

namespace Tessim::StringUtil {
namespace {

constexpr std::size_t maxUtf8Length = 4;

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// The length of the UTF-8 character that `text` starts with; 0 when it starts with none.
std::size_t Utf8Length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    const std::size_t length = lead >= 0xC2 && lead <= 0xDF ? 2 : lead >= 0xE0 && lead <= 0xEF ? 3 : 4;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length ||
        !std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length), IsContinuation)) {
        return 0;
    }
    // Overlong forms, surrogates, and what lies beyond the last code point.
    const unsigned char second = byte(1);
    const bool wrong = (lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
                       (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F);
    return wrong ? 0 : length;
}

}  // namespace

std::vector<std::string> Tokenize(std::string_view text, std::string_view separators) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find_first_of(separators, start);
        parts.emplace_back(text.substr(start, end - start));
        if (end == std::string_view::npos) {
            return parts;
        }
        start = end + 1;
    }
}

int ParseInt(std::string_view text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw InvalidArgumentException("\"" + Printable(text, 64) + "\" is no whole number of 32 bits");
    }
    return value;
}

std::string Trim(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t start = text.find_first_not_of(blanks);
    if (start == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(start, text.find_last_not_of(blanks) - start + 1));
}

std::string_view CutUtf8(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) {
        return text;
    }
    for (std::size_t back = 1; back < maxUtf8Length && back <= limit; ++back) {
        const std::size_t start = limit - back;
        if (!IsContinuation(text[start])) {
            return text.substr(0, Utf8Length(text.substr(start)) > back ? start : limit);
        }
    }
    return text.substr(0, limit);
}

std::string OneLine(std::string text) {
    constexpr std::string_view digits = "0123456789abcdef";
    constexpr char firstOfC1 = '\xC2';  // U+0080 to U+009F are this and a continuation up to 9F
    const auto isControl = [&](std::size_t at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const bool isC1 = byte >= 0x80 && byte <= 0x9F && at > 0 && text[at - 1] == firstOfC1;
        return byte < 0x20 || byte == 0x7F || isC1;
    };
    std::string result;
    std::size_t copied = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (isControl(at)) {
            const auto byte = static_cast<unsigned char>(text[at]);
            const bool isC1 = byte >= 0x80;
            result.append(text, copied, at - copied - (isC1 ? 1 : 0));
            result.append(isC1 ? "\\u00" : "\\x").append({digits[byte >> 4U], digits[byte & 0xFU]});
            copied = at + 1;
        }
    }
    if (copied == 0) {
        return text;
    }
    return result.append(text, copied);
}

std::string Printable(std::string_view text, std::size_t limit) {
    std::string result(text.substr(0, limit));
    std::replace_if(
        result.begin(), result.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return result;
}

}  // namespace Tessim::StringUtil

char* Str_Strcpy(char* buffer, std::string_view text, std::size_t size) {
    const std::string_view cut = Tessim::StringUtil::CutUtf8(text, size - 1);
    std::memcpy(buffer, cut.data(), cut.size());
    buffer[cut.size()] = '\0';
    return buffer;
}
