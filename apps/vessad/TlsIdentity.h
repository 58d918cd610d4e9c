// The daemon's TLS key and certificate.
#pragma once

#include <boost/asio/ssl/context.hpp>

namespace Vessad {

// Returns a server context for TLS 1.2 or newer with a new key and self-signed certificate, which exist in
// memory only: clients are on this host and trust the ticket file, not the certificate. Throws
// Tessim::SystemException with OpenSSL's reason.
boost::asio::ssl::context MakeTlsContext();

}  // namespace Vessad
