// Keys and certificates for TLS. A key store is constant; threads may share it.
#pragma once

#include <string>
#include <vector>

#include "runtime/tessim/object.h"

namespace Tessim::Crypto {

// A private key with its certificate, and the certificates to trust. Each may be missing. Texts are PEM.
class KeyStore : public virtual Object {
  public:
    virtual const std::string& GetPrivateKey() const = 0;
    virtual const std::string& GetCertificate() const = 0;
    virtual const std::vector<std::string>& GetTrustedCertificates() const = 0;
};

// Puts a key store into `out`. An empty text or list means "none".
// Throws InvalidArgumentException when there is a key without a certificate or the reverse.
void CreateKeyStore(const std::string& privateKey, const std::string& certificate,
                    const std::vector<std::string>& trustedCertificates, Ref<KeyStore>& out);

}  // namespace Tessim::Crypto
