// The preamble: one line each way, before a TLS stream belongs to a service. Both sides; thread-safe.
//
//   client:  OPEN <selector> "<text>" "<text>"
//   server:  200 <connection path>     or     <three digits> <reason>
//
// A line ends with CR LF and has at most maxPreambleLine bytes. The selector is a decimal number of at most
// 31 bits without a sign, the texts are printable ASCII without quotes, the path is printable ASCII and not
// empty.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Tessim::Authd {

inline constexpr std::size_t maxPreambleLine = 512;  // bytes, with the line end
inline constexpr std::string_view preambleLineEnd = "\r\n";

// The service that a stream is opened to.
enum class Selector : int {
    ManagementApi = 2,
};

// The status of a reply that opens the stream. Any other refuses it.
inline constexpr int statusOpen = 200;

struct OpenRequest {
    int selector = 0;  // a client may request a service that no Selector names
    std::string text1;
    std::string text2;
};

// The client's line, with its line end. `request.selector` is not negative. Throws InvalidArgumentException
// when a text is not printable ASCII without quotes, or when the line would be too long.
std::string MakeRequestLine(const OpenRequest& request);

// The request in the client's line, given without its line end; nothing when it is none.
std::optional<OpenRequest> ParseRequestLine(std::string_view line);

// The server's line, with its line end. `status` has three digits; `text` is the connection's path for
// statusOpen, else the reason, and short enough for a line.
std::string MakeReplyLine(int status, std::string_view text);

// Reads the server's line and nothing behind it, and returns the connection's path. `readByte` stores the
// next byte and returns true, or returns false at the end of the stream; what it throws is passed on. Throws
// StreamException, with `peer` in the message, when the server refuses the stream or sends something else.
std::string ReadReplyLine(const std::string& peer, const std::function<bool(char& byte)>& readByte);

}  // namespace Tessim::Authd
