// A client that speaks the wire as a test tells it to, byte by byte. Waits at most 10 s for anything.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "runtime/tessim/file_descriptor.h"

namespace VessadTest {

struct HttpReply {
    int status = 0;  // 0: the connection ended instead
    std::string header;
    std::string body;
};

class RawClient {
  public:
    // Connects, and does no more.
    explicit RawClient(std::uint16_t port);

    // Whether the TLS handshake came off. `maxVersion` is one of OpenSSL's, 0 for the newest.
    bool Handshake(int maxVersion = 0);

    // Handshake and preamble; the server's line without its end, empty when there was none.
    std::string Open(const std::string& line = "OPEN 2 \"\" \"\"\r\n");

    // Sends over TLS; false when the connection is broken.
    bool Send(std::string_view text);
    // Sends bytes outside TLS.
    bool SendRaw(std::string_view bytes);
    // Up to and with the line feed; shorter when the connection ended before.
    std::string ReadLine();
    // Whether the server has ended the connection, by a goodbye or without, waiting at most `milliseconds`
    // for it. Takes what it sent before away.
    bool IsEnded(int milliseconds);

    // One exchange on the open stream.
    HttpReply Exchange(std::string_view request);
    // A POST of `body` to the API.
    HttpReply Post(std::string_view body);

    // An API call, its parameters given as XML.
    HttpReply Call(const std::string& type, const std::string& id, const std::string& method,
                   const std::string& parameters = "");
    // A ticket's file. Empty when there is no ticket.
    std::string AskForTicket();
    // The status of the login's reply.
    int LogIn(const std::string& password);

  private:
    std::string Read(std::size_t size);

    Tessim::FileDescriptor socket;
    std::unique_ptr<SSL, decltype(&SSL_free)> tls;
};

}  // namespace VessadTest
