// The daemon's TLS side.
#pragma once

#include <boost/asio/ssl/context.hpp>

namespace Vessad {

// A server context for TLS 1.2 or newer with a key and a self-signed certificate that are made now and live
// in memory only: clients are on this host, and what they trust is the ticket file, not the certificate.
// Throws std::runtime_error when OpenSSL refuses.
boost::asio::ssl::context MakeTlsContext();

}  // namespace Vessad
