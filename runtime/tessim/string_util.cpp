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

// Appends `prefix` and the two hexadecimal digits of `byte`.
void AppendEscaped(std::string& result, std::string_view prefix, unsigned char byte) {
    constexpr std::string_view digits = "0123456789abcdef";
    result.append(prefix).append({digits[byte >> 4U], digits[byte & 0xFU]});
}

}  // namespace

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
        throw InvalidArgumentException("\"" + EscapeUntrusted(text, 64) + "\" is no whole number of 32 bits");
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

std::string_view TruncateUtf8(std::string_view text, std::size_t limit) {
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

bool IsPrintableAscii(char c) {
    return c >= ' ' && c <= '~';
}

std::string EscapeControls(std::string_view text) {
    constexpr std::string_view leadOfC1 = "\xC2";  // U+0080 to U+009F are this and a continuation up to 9F
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) {
            AppendEscaped(result, "\\x", byte);
        } else if (byte >= 0x80 && byte <= 0x9F && result.ends_with(leadOfC1)) {
            result.pop_back();
            AppendEscaped(result, "\\u00", byte);
        } else {
            result += c;
        }
    }
    return result;
}

std::string EscapeUntrusted(std::string_view text, std::size_t limit) {
    std::string result;
    for (const char c : text.substr(0, limit)) {
        if (IsPrintableAscii(c)) {
            result += c;
        } else {
            AppendEscaped(result, "\\x", static_cast<unsigned char>(c));
        }
    }
    return result;
}

}  // namespace Tessim::StringUtil

char* Str_Strcpy(char* buffer, std::string_view text, std::size_t size) {
    const std::string_view fitting = Tessim::StringUtil::TruncateUtf8(text, size - 1);
    std::memcpy(buffer, fitting.data(), fitting.size());
    buffer[fitting.size()] = '\0';
    return buffer;
}
