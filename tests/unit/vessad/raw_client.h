// A client of the daemon that sends any bytes. Blocks at most 10 s for anything.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "runtime/tessim/file_descriptor.h"

namespace VessadTest {

struct HttpReply {
    int status = 0;  // 0: the connection was closed instead
    std::string header;
    std::string body;
};

// The text of the first element of that name, empty when there is none.
std::string TextOf(const std::string& xml, const std::string& element);

class RawClient {
  public:
    // Connects. Throws std::runtime_error when no server listens.
    explicit RawClient(std::uint16_t port);

    // Returns whether the TLS handshake succeeded. `maxVersion` is one of OpenSSL's, 0 for the newest.
    bool Handshake(int maxVersion = 0);

    // Handshake and preamble; returns the server's line without its end, empty when there was none.
    std::string Open(const std::string& line = "OPEN 2 \"\" \"\"\r\n");

    // Sends over TLS, or beside it. Errors show in the next read.
    void Send(std::string_view text);
    void SendRaw(std::string_view bytes);
    // Returns whether the server has closed the connection within so many milliseconds. Discards what it sent
    // before.
    bool IsClosed(int milliseconds);

    // Sends a request and reads the response.
    HttpReply Exchange(std::string_view request);
    // A POST of `body` to the API.
    HttpReply Post(std::string_view body);

    // Posts an API call, its parameters given as XML.
    HttpReply Call(const std::string& type, const std::string& id, const std::string& method,
                   const std::string& parameters = "");
    // Returns the password of a new ticket, empty when there is no ticket.
    std::string AcquireTicket();
    HttpReply LogIn(const std::string& password, const std::string& user = "root");

  private:
    // Reads bytes until `complete` returns true for them, or the connection is closed.
    std::string ReadUntil(const std::function<bool(std::string_view)>& complete);

    Tessim::FileDescriptor socket;
    std::unique_ptr<SSL, decltype(&SSL_free)> tls;
};

}  // namespace VessadTest
