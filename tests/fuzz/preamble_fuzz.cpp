#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/tessim/assertion.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/preamble.h"
#include "tests/fuzz/fuzz.h"

namespace Authd = Tessim::Authd;

namespace {

using Authd::preambleLineEnd;

// Checks the client's parser with a server that sends `stream`.
void CheckReply(std::string_view stream) {
    std::size_t read = 0;
    std::optional<std::string> path;
    try {
        path = Authd::ReadReplyLine("localhost:902", [&](char& byte) {
            if (read == stream.size()) {
                return false;
            }
            byte = stream[read++];
            return true;
        });
    } catch (const Tessim::StreamException& refused) {
        Tessim::Assert(std::all_of(refused.what(), refused.what() + std::string_view(refused.what()).size(),
                                   [](char c) { return c >= ' ' && c <= '~'; }),
                       "a refusal is printable");
    }
    const std::size_t end = stream.find(preambleLineEnd);
    const std::size_t length = end == std::string_view::npos ? stream.size() : end + preambleLineEnd.size();
    Tessim::Assert(read == std::min(length, Authd::maxPreambleLine),
                   "the line is read to its end or its limit, and nothing behind it is");
    const std::string_view line = stream.substr(0, end);
    Tessim::Assert(path.has_value() ==
                       (length <= Authd::maxPreambleLine && end != std::string_view::npos &&
                        line.starts_with("200 ") && line.size() > 4 &&
                        std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; })),
                   "a path is returned when there is one");
    Tessim::Assert(!path || *path == line.substr(4), "the path is what follows the status");
}

// Checks the daemon's parser with a client that sends `line`.
void CheckRequest(std::string_view line) {
    const auto request = Authd::ParseRequestLine(line);
    if (!request) {
        return;
    }
    std::string written;
    try {
        written = Authd::MakeRequestLine(*request);
    } catch (const Tessim::InvalidArgumentException&) {
        Tessim::Assert(line.size() + preambleLineEnd.size() > Authd::maxPreambleLine,
                       "a client can make what the daemon accepts, unless it is too long");
        return;
    }
    written.resize(written.size() - preambleLineEnd.size());
    const auto again = Authd::ParseRequestLine(written);
    Tessim::Assert(again && again->selector == request->selector && again->text1 == request->text1 &&
                       again->text2 == request->text2,
                   "the daemon parses what a client makes");
}

// Checks the request line with any texts.
void CheckTexts(std::string_view text) {
    const std::size_t cut = std::min(text.find('\n'), text.size());
    const std::string first(text.substr(0, cut));
    const std::string second(text.substr(std::min(cut + 1, text.size())));
    try {
        const std::string line = Authd::MakeRequestLine({2, first, second});
        Tessim::Assert(line.size() <= Authd::maxPreambleLine && line.ends_with(preambleLineEnd),
                       "a line has its end and keeps to its limit");
        const auto request =
            Authd::ParseRequestLine(std::string_view(line).substr(0, line.size() - preambleLineEnd.size()));
        Tessim::Assert(request && request->text1 == first && request->text2 == second,
                       "the daemon gets the texts of the client");
    } catch (const Tessim::InvalidArgumentException&) {
        return;
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    CheckReply(text);
    CheckRequest(text);
    CheckTexts(text);
    return 0;
}
