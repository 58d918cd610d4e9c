#include "runtime/tessim/preamble.h"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

namespace Tessim::Authd {
namespace {

constexpr std::size_t statusLength = 3;
constexpr std::size_t maxReason = 200;  // of a refusal, in a message

bool IsText(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return StringUtil::IsPrintableAscii(c) && c != '"'; });
}

// Removes `expected` from the start of `line`; false when the line starts with something else.
bool Skip(std::string_view& line, std::string_view expected) {
    if (!line.starts_with(expected)) {
        return false;
    }
    line.remove_prefix(expected.size());
    return true;
}

// Moves a text in quotes from the start of `line` to `out`; false when there is none.
bool TakeText(std::string_view& line, std::string& out) {
    if (!Skip(line, "\"")) {
        return false;
    }
    out = line.substr(0, line.find('"'));
    line.remove_prefix(out.size());
    return Skip(line, "\"") && IsText(out);
}

[[noreturn]] void ThrowViolation(const std::string& peer, const char* what,
                                 const SourceLocation& where = SourceLocation::current()) {
    throw StreamException(peer + ": no authentication service: " + what, where);
}

std::string ParseReplyLine(const std::string& peer, std::string_view line) {
    const std::string_view status = line.substr(0, statusLength);
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (status.size() < statusLength || !std::all_of(status.begin(), status.end(), isDigit) ||
        line.substr(statusLength, 1) != " ") {
        ThrowViolation(peer, "its reply has no status");
    }
    if (status != std::to_string(statusOpen)) {
        throw StreamException(peer + ": the authentication service refused the stream: " +
                              StringUtil::EscapeUntrusted(line, maxReason));
    }
    const std::string_view path = line.substr(statusLength + 1);
    if (path.empty() || !std::all_of(path.begin(), path.end(), StringUtil::IsPrintableAscii)) {
        ThrowViolation(peer, "its reply has no path");
    }
    return std::string(path);
}

}  // namespace

std::string MakeRequestLine(const OpenRequest& request) {
    if (!IsText(request.text1) || !IsText(request.text2)) {
        throw InvalidArgumentException("a text for the authentication service is not printable");
    }
    std::string line = "OPEN " + std::to_string(request.selector);
    line.append(" \"").append(request.text1).append("\" \"").append(request.text2).append("\"");
    line.append(preambleLineEnd);
    if (line.size() > maxPreambleLine) {
        throw InvalidArgumentException("the texts for the authentication service are too long");
    }
    return line;
}

std::optional<OpenRequest> ParseRequestLine(std::string_view line) {
    OpenRequest request;
    if (!Skip(line, "OPEN ")) {
        return std::nullopt;
    }
    const auto [stop, error] = std::from_chars(line.data(), line.data() + line.size(), request.selector);
    if (error != std::errc() || request.selector < 0) {
        return std::nullopt;
    }
    line.remove_prefix(static_cast<std::size_t>(stop - line.data()));
    if (!Skip(line, " ") || !TakeText(line, request.text1) || !Skip(line, " ") ||
        !TakeText(line, request.text2) || !line.empty()) {
        return std::nullopt;
    }
    return request;
}

std::string MakeReplyLine(int status, std::string_view text) {
    return std::to_string(status).append(" ").append(text).append(preambleLineEnd);
}

std::string ReadReplyLine(const std::string& peer, const std::function<bool(char& byte)>& readByte) {
    std::string line;
    while (!line.ends_with(preambleLineEnd)) {
        if (line.size() == maxPreambleLine) {
            ThrowViolation(peer, "its reply is too long");
        }
        char byte = 0;
        if (!readByte(byte)) {
            ThrowViolation(peer, "it closed the connection without a reply");
        }
        line += byte;
    }
    line.resize(line.size() - preambleLineEnd.size());
    return ParseReplyLine(peer, line);
}

}  // namespace Tessim::Authd
