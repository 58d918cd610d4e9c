#include "runtime/tessim/preamble.h"

#include <algorithm>
#include <string_view>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

namespace Tessim::Authd {
namespace {

constexpr std::string_view lineEnd = "\r\n";
constexpr std::size_t statusLength = 4;  // three digits and a blank
constexpr std::size_t maxReason = 200;   // of a refusal, in a message

bool IsPrintable(char c) {
    return c >= ' ' && c <= '~';
}

[[noreturn]] void ThrowViolation(const std::string& peer, const char* what,
                                 const SourceLocation& where = SourceLocation::current()) {
    throw StreamException(peer + ": no authentication service: " + what, where);
}

std::string ParseReply(const std::string& peer, const std::string& line) {
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (line.size() < statusLength || line[statusLength - 1] != ' ' ||
        !std::all_of(line.begin(), line.begin() + statusLength - 1, isDigit)) {
        ThrowViolation(peer, "its answer has no status");
    }
    std::string path = line.substr(statusLength);
    if (!line.starts_with("200")) {
        throw StreamException(peer + ": the authentication service refused the stream: " +
                              StringUtil::Printable(line, maxReason));
    }
    if (path.empty() || !std::all_of(path.begin(), path.end(), IsPrintable)) {
        ThrowViolation(peer, "its answer has no path");
    }
    return path;
}

}  // namespace

std::string MakeRequestLine(Selector selector, const std::string& text1, const std::string& text2) {
    for (const std::string* text : {&text1, &text2}) {
        if (!std::all_of(text->begin(), text->end(), [](char c) { return IsPrintable(c) && c != '"'; })) {
            throw InvalidArgumentException("a text for the authentication service is not printable");
        }
    }
    std::string line = "OPEN " + std::to_string(static_cast<int>(selector));
    line.append(" \"").append(text1).append("\" \"").append(text2).append("\"").append(lineEnd);
    if (line.size() > maxPreambleLine) {
        throw InvalidArgumentException("the texts for the authentication service are too long");
    }
    return line;
}

std::string ReadReplyLine(const std::string& peer, const std::function<bool(char& byte)>& readByte) {
    std::string line;
    while (!line.ends_with(lineEnd)) {
        if (line.size() == maxPreambleLine) {
            ThrowViolation(peer, "its answer is too long");
        }
        char byte = 0;
        if (!readByte(byte)) {
            ThrowViolation(peer, "it closed the connection without an answer");
        }
        line += byte;
    }
    line.resize(line.size() - lineEnd.size());
    return ParseReply(peer, line);
}

}  // namespace Tessim::Authd
