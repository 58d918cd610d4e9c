// TLS contexts. Once created, a context may be shared by threads.
#pragma once

#include <string>

#include "runtime/tessim/crypto.h"
#include "runtime/tessim/object.h"

struct ssl_ctx_st;  // OpenSSL's SSL_CTX

namespace Tessim::Ssl {

enum class SupportedVersion : int {
    Tls12OrNewer = 1,
};

class SSLContext : public virtual Object {
  public:
    // OpenSSL's own context, owned by this object.
    virtual ssl_ctx_st* GetNative() const = 0;
};

// Makes OpenSSL ready; may be called any number of times. `options` is reserved and must be empty
// (InvalidArgumentException otherwise).
void InitSSL(const std::string& options);

// Puts a client context into `out`. With trusted certificates in `keys` the peer must present one that they
// vouch for. Without any, as on the loopback connection to the management daemon, the peer is not
// authenticated and stays untrusted until it has proved itself in another way. Throws SystemException when
// OpenSSL refuses, InvalidArgumentException for an unknown version.
void CreateSSLContext(Crypto::KeyStore* keys, SupportedVersion version, Ref<SSLContext>& out);

}  // namespace Tessim::Ssl
