#include "runtime/tessim/crypto.h"

#include <utility>

#include "runtime/tessim/exception.h"

namespace Tessim::Crypto {
namespace {

class KeyStoreImpl final : public virtual KeyStore, public ObjectImpl {
  public:
    KeyStoreImpl(std::string privateKey, std::string certificate,
                 std::vector<std::string> trustedCertificates)
        : privateKey(std::move(privateKey)),
          certificate(std::move(certificate)),
          trustedCertificates(std::move(trustedCertificates)) {}

    const std::string& GetPrivateKey() const override { return privateKey; }
    const std::string& GetCertificate() const override { return certificate; }
    const std::vector<std::string>& GetTrustedCertificates() const override { return trustedCertificates; }

  private:
    std::string privateKey;
    std::string certificate;
    std::vector<std::string> trustedCertificates;
};

}  // namespace

void CreateKeyStore(const std::string& privateKey, const std::string& certificate,
                    const std::vector<std::string>& trustedCertificates, Ref<KeyStore>& out) {
    if (privateKey.empty() != certificate.empty()) {
        throw InvalidArgumentException("a private key needs its certificate, and a certificate its key");
    }
    out = MakeRef<KeyStoreImpl>(privateKey, certificate, trustedCertificates);
}

}  // namespace Tessim::Crypto
