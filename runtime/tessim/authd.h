// The client of the local authentication service: it opens TLS streams to the services behind it.
//
// The service listens on a loopback port. After the TLS handshake each side sends one line (preamble.h). From
// then on the stream belongs to the service that the client's line selected.
#pragma once

#include <sys/types.h>

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
    // The path of the connection, from the service's reply line. Not empty; lives as long as the stream.
    virtual const std::string& GetConnectionPath() const = 0;
    // The user whose process is the service.
    virtual uid_t GetPeerOwner() const = 0;
};

class Client : public virtual Object {
  public:
    // Opens a ServiceStream to the service `selector` at `host`:`port` and puts it into `out`. The two texts
    // are passed to the service as they are (printable ASCII without quotes). `host` is "localhost", the IPv4
    // loopback address without a resolver, or a numeric address.
    //
    // Waits at most until the deadline of the time budget in force. On failure `out` is unchanged. Throws
    // StreamException when the service is not there, refuses the stream or breaks the protocol;
    // TimeoutException when it does not reply in time; SystemException when the operating system has no
    // socket; InvalidArgumentException for a bad host or text. During the backoff after a TimeoutException of
    // any stream to the same address and port (peer.h), opening throws it again at once, so that a daemon
    // that hangs does not block the agent at each request. Any number of threads may open streams.
    virtual void Open(Selector selector, const std::string& host, std::uint16_t port,
                      const std::string& text1, const std::string& text2, Ref<System::Stream>& out) = 0;
};

// Puts a client that opens its streams with `context`, which it keeps, into `out`. Throws
// InvalidArgumentException when `context` is null.
void CreateClient(Ssl::SSLContext* context, Ref<Client>& out);
// Puts a client without keys or trusted certificates into `out`: the loopback connection's, whose peer proves
// itself in another way (Ssl::CreateSSLContext). Throws SystemException when OpenSSL refuses.
void CreateLocalClient(Ref<Client>& out);

}  // namespace Tessim::Authd
