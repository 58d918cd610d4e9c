#include "runtime/tessim/ssl.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <climits>
#include <memory>
#include <utility>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/openssl_error.h"

namespace Tessim::Ssl {
namespace {

template <auto free>
struct Free {
    template <class T>
    void operator()(T* object) const noexcept {
        free(object);
    }
};
using ContextPointer = std::unique_ptr<SSL_CTX, Free<&SSL_CTX_free>>;
using BioPointer = std::unique_ptr<BIO, Free<&BIO_free>>;
using KeyPointer = std::unique_ptr<EVP_PKEY, Free<&EVP_PKEY_free>>;
using CertificatePointer = std::unique_ptr<X509, Free<&X509_free>>;

class SSLContextImpl final : public virtual SSLContext, public ObjectImpl {
  public:
    explicit SSLContextImpl(ContextPointer context) : context(std::move(context)) {}

    ssl_ctx_st* GetNative() const override { return context.get(); }

  private:
    ContextPointer context;
};

BioPointer OpenText(const std::string& pem) {
    BioPointer bio(pem.size() <= INT_MAX ? BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()))
                                         : nullptr);
    RequireOpenSsl(bio != nullptr, "read a PEM text");
    return bio;
}

// Without it OpenSSL would prompt for a passphrase on the terminal.
int NoPassphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*unused*/) {
    return -1;
}

CertificatePointer ReadCertificate(const std::string& pem) {
    CertificatePointer certificate(PEM_read_bio_X509(OpenText(pem).get(), nullptr, NoPassphrase, nullptr));
    RequireOpenSsl(certificate != nullptr, "read a certificate");
    return certificate;
}

void UseOwnKey(SSL_CTX* context, const Crypto::KeyStore& keys) {
    const KeyPointer key(
        PEM_read_bio_PrivateKey(OpenText(keys.GetPrivateKey()).get(), nullptr, NoPassphrase, nullptr));
    RequireOpenSsl(key != nullptr, "read the private key");
    RequireOpenSsl(SSL_CTX_use_certificate(context, ReadCertificate(keys.GetCertificate()).get()) == 1 &&
                       SSL_CTX_use_PrivateKey(context, key.get()) == 1,
                   "use the private key and its certificate");
}

void RequireTrustedPeer(SSL_CTX* context, const Crypto::KeyStore& keys) {
    X509_STORE* store = SSL_CTX_get_cert_store(context);
    for (const std::string& pem : keys.GetTrustedCertificates()) {
        RequireOpenSsl(X509_STORE_add_cert(store, ReadCertificate(pem).get()) == 1, "trust a certificate");
    }
    // A listed certificate is trusted as it is, whoever signed it.
    RequireOpenSsl(X509_STORE_set_flags(store, X509_V_FLAG_PARTIAL_CHAIN) == 1, "trust the certificates");
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
}

}  // namespace

void InitSSL(const std::string& options) {
    if (!options.empty()) {
        throw InvalidArgumentException("reserved options of InitSSL are set");
    }
    ERR_clear_error();
    RequireOpenSsl(OPENSSL_init_ssl(0, nullptr) == 1, "make OpenSSL ready");
}

void CreateSSLContext(Crypto::KeyStore* keys, SupportedVersion version, Ref<SSLContext>& out) {
    if (keys == nullptr || version != SupportedVersion::Tls12OrNewer) {
        throw InvalidArgumentException("a TLS context needs a key store and a known version");
    }
    ERR_clear_error();
    ContextPointer context(SSL_CTX_new(TLS_client_method()));
    RequireOpenSsl(context != nullptr, "make a TLS context");
    RequireOpenSsl(SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) == 1, "require TLS 1.2");
    // For TLS 1.2 elliptic curves only: a hostile peer's finite-field parameters can cost seconds of work.
    RequireOpenSsl(SSL_CTX_set_cipher_list(context.get(), "ECDHE+AESGCM:ECDHE+CHACHA20") == 1,
                   "choose the ciphers");
    SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, nullptr);
    if (!keys->GetPrivateKey().empty()) {
        UseOwnKey(context.get(), *keys);
    }
    if (!keys->GetTrustedCertificates().empty()) {
        RequireTrustedPeer(context.get(), *keys);
    }
    out = MakeRef<SSLContextImpl>(std::move(context));
}

}  // namespace Tessim::Ssl
