// What a client and the authentication service say to each other before a stream is the service's: the lines
// that authd.h describes.
#pragma once

#include <functional>
#include <string>

#include "runtime/tessim/authd.h"

namespace Tessim::Authd {

// The client's line, with its line end. Throws InvalidArgumentException when a text is not printable ASCII
// without quotes, or when both together are too long.
std::string MakeRequestLine(Selector selector, const std::string& text1, const std::string& text2);

// Reads the service's line and nothing behind it, and answers the connection's path. `readByte` stores the
// next byte, or answers false at the end of the stream. Throws StreamException, with `peer` in the message,
// when the service refuses or says something else.
std::string ReadReplyLine(const std::string& peer, const std::function<bool(char& byte)>& readByte);

}  // namespace Tessim::Authd
