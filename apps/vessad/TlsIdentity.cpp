#include "apps/vessad/TlsIdentity.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstdint>
#include <memory>

#include "runtime/tessim/openssl_error.h"

namespace Vessad {

namespace {

using Tessim::RequireOpenSsl;

constexpr long secondsPerDay = 24L * 60 * 60;
constexpr long validDays = 3650;

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

Certificate MakeCertificate(EVP_PKEY* key) {
    Certificate certificate(X509_new(), X509_free);
    RequireOpenSsl(certificate != nullptr, "create a certificate");
    std::uint32_t serial = 0;
    RequireOpenSsl(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1,
                   "get random numbers");
    X509_NAME* name = X509_get_subject_name(certificate.get());
    const auto* common = reinterpret_cast<const unsigned char*>("localhost");
    RequireOpenSsl(
        X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
            ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), static_cast<long>(serial >> 1U)) ==
                1 &&
            X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -secondsPerDay) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(certificate.get()), validDays * secondsPerDay) != nullptr &&
            X509_set_pubkey(certificate.get(), key) == 1 &&
            X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common, -1, -1, 0) == 1 &&
            X509_set_issuer_name(certificate.get(), name) == 1 &&
            X509_sign(certificate.get(), key, EVP_sha256()) > 0,
        "create a certificate");
    return certificate;
}

}  // namespace

boost::asio::ssl::context MakeTlsContext() {
    boost::asio::ssl::context context(boost::asio::ssl::context::tls_server);
    SSL_CTX* native = context.native_handle();
    const Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    RequireOpenSsl(key != nullptr, "create a key");
    RequireOpenSsl(SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION) == 1 &&
                       SSL_CTX_use_certificate(native, MakeCertificate(key.get()).get()) == 1 &&
                       SSL_CTX_use_PrivateKey(native, key.get()) == 1,
                   "set up TLS");
    // No per-client state, and no repeated key exchange, at a client's request.
    SSL_CTX_set_options(native, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    SSL_CTX_set_num_tickets(native, 0);
    SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);
    return context;
}

}  // namespace Vessad
