// The client of the local authentication service: it opens TLS streams to the services behind it.
//
// The service listens on a loopback port. After the TLS handshake each side sends one line (preamble.h). From
// then on the stream belongs to the service that the client's line selected.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/tessim/object.h"
#include "runtime/tessim/preamble.h"
#include "runtime/tessim/ssl.h"
#include "runtime/tessim/stream.h"

namespace Tessim::Authd {

// A stream that the service opened.
class ServiceStream : public virtual System::Stream {
  public:
    // The connection's path that the service answered.
    virtual const std::string& GetConnectionPath() const = 0;
};

class Client : public virtual Object {
  public:
    // Opens a stream to the service `selector` at `host`:`port` into `out`. The two texts are handed to the
    // service as they are (printable ASCII without quotes). `host` is "localhost", which means the IPv4
    // loopback address and never goes to a resolver, or a numeric address.
    //
    // Waits at most until the deadline of the time budget in force. Throws StreamException when the service
    // is not there, refuses or breaks the protocol; TimeoutException when it does not answer in time;
    // SystemException when the operating system gives no socket; InvalidArgumentException for a host or text
    // that is none. `out` keeps what it held then. After a TimeoutException by any stream to the same
    // address and port, opening fails with the same message, at once, for 5 s: a daemon that hangs must not
    // hold the agent again and again.
    virtual void Open(Selector selector, const std::string& host, std::uint16_t port,
                      const std::string& text1, const std::string& text2, Ref<System::Stream>& out) = 0;
};

// Puts a client that opens its streams with `context` into `out`. Throws InvalidArgumentException on null.
void CreateClient(Ssl::SSLContext* context, Ref<Client>& out);

}  // namespace Tessim::Authd
