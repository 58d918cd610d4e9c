#include "apps/vessad/Preamble.h"

#include <algorithm>
#include <charconv>

namespace Vessad {

namespace {

bool Skip(std::string_view& line, std::string_view expected) {
    if (!line.starts_with(expected)) {
        return false;
    }
    line.remove_prefix(expected.size());
    return true;
}

// Takes a text in quotes; it holds printable ASCII without quotes.
bool TakeText(std::string_view& line, std::string& out) {
    if (!Skip(line, "\"")) {
        return false;
    }
    const std::size_t end = line.find('"');
    if (end == std::string_view::npos) {
        return false;
    }
    out = line.substr(0, end);
    line.remove_prefix(end + 1);
    return std::all_of(out.begin(), out.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

}  // namespace

std::optional<OpenRequest> ParseOpenRequest(std::string_view line) {
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

}  // namespace Vessad
