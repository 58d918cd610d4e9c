// Small text operations. All functions are thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Tessim::StringUtil {

// The parts of `text` between the characters of `separators`, in order. Adjacent separators make empty parts;
// an empty text is one empty part.
std::vector<std::string> Tokenize(std::string_view text, std::string_view separators);

// The decimal number that `text` is, whole: an optional "-" and digits, nothing around them.
// Throws InvalidArgumentException when it is anything else or does not fit an int.
int ParseInt(std::string_view text);

// `text` without blanks, tabs and line ends at either end.
std::string Trim(std::string_view text);

// The length in bytes of the UTF-8 character at the start of `text`, which is not empty; 0 when there is
// none: stray, missing or overlong bytes, a surrogate, or more than U+10FFFF.
std::size_t Utf8Length(std::string_view text);

// The longest prefix of `text` that has at most `limit` bytes and does not end inside a UTF-8 character.
// Bytes that are not UTF-8 are truncated anywhere.
std::string_view TruncateUtf8(std::string_view text, std::size_t limit);

// From the blank to the tilde.
bool IsPrintableAscii(char c);

// `text` as one line of a log: a control character becomes "\x" and its two hexadecimal digits, one of the
// second set (U+0080 to U+009F) "\u00" and them. Everything else stays as it is, a backslash too.
std::string EscapeControls(std::string_view text);

// Untrusted text for a message: the first `limit` bytes of `text`, in which every byte but printable ASCII
// becomes "\x" and its two hexadecimal digits.
std::string EscapeUntrusted(std::string_view text, std::size_t limit);

}  // namespace Tessim::StringUtil

// Copies `text` into `buffer` of `size` bytes (at least 1), truncated to fit as TruncateUtf8 does, always
// NUL-terminated. Returns `buffer`.
char* Str_Strcpy(char* buffer, std::string_view text, std::size_t size);
