#include "runtime/tessim/ssl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <string>

#include "runtime/tessim/crypto.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/openssl_error.h"
#include "tests/support/tls_test_server.h"
#include "tests/unit/tessim/open_stream.h"

namespace Tessim::Ssl {
namespace {

using ::testing::HasSubstr;

Ref<Crypto::KeyStore> MakeKeys(const std::string& key = "", const std::string& certificate = "",
                               const std::vector<std::string>& trusted = {}) {
    Ref<Crypto::KeyStore> keys;
    Crypto::CreateKeyStore(key, certificate, trusted, keys);
    return keys;
}

TEST(OpenSslErrors, AreNamedWithTheirDataOldestFirstAndTaken) {
    InitSSL("");
    ERR_raise(ERR_LIB_SSL, ERR_R_PASSED_NULL_PARAMETER);
    ERR_raise_data(ERR_LIB_USER, 1, "detail");  // a library without texts
    EXPECT_EQ(TakeOpenSslErrors(), "passed a null parameter; error 1073741825 (detail)");
    EXPECT_EQ(TakeOpenSslErrors(), "no reason from OpenSSL");
}

TEST(SSLContext, RequiresTls12AndUsesTheKeyWithItsCertificate) {
    const KelvTest::Identity own;
    Ref<SSLContext> context;
    CreateSSLContext(MakeKeys(own.privateKey, own.certificate).Get(), SupportedVersion::Tls12OrNewer,
                     context);
    EXPECT_EQ(SSL_CTX_get_min_proto_version(context->GetNative()), TLS1_2_VERSION);
    EXPECT_NE(SSL_CTX_get0_certificate(context->GetNative()), nullptr);
    EXPECT_NE(SSL_CTX_get0_privatekey(context->GetNative()), nullptr);
}

TEST(SSLContext, RejectsTextsThatAreNoKeysOrCertificates) {
    const KelvTest::Identity own;
    const KelvTest::Identity other;
    const struct {
        Ref<Crypto::KeyStore> keys;
        const char* reason;
    } cases[] = {
        {MakeKeys("no key", own.certificate), "cannot read the private key"},
        {MakeKeys(own.privateKey, "none"), "cannot read a certificate"},
        {MakeKeys("", "", {own.certificate, "none"}), "cannot read a certificate"},
        {MakeKeys(own.privateKey, other.certificate), "mismatch"},
    };
    for (const auto& tested : cases) {
        Ref<SSLContext> context;
        EXPECT_THAT(MessageOf<SystemException>([&] {
                        CreateSSLContext(tested.keys.Get(), SupportedVersion::Tls12OrNewer, context);
                    }),
                    HasSubstr(tested.reason));
        EXPECT_FALSE(context);
        EXPECT_EQ(ERR_peek_error(), 0U);
    }
}

TEST(SSLContext, NeedsAKeyWithItsCertificateOrNeitherAKnownVersionAndNoOptions) {
    EXPECT_THROW(MakeKeys("key", ""), InvalidArgumentException);
    EXPECT_THROW(MakeKeys("", "certificate"), InvalidArgumentException);
    EXPECT_THROW(InitSSL("fast"), InvalidArgumentException);
    Ref<SSLContext> context;
    EXPECT_THROW(CreateSSLContext(nullptr, SupportedVersion::Tls12OrNewer, context),
                 InvalidArgumentException);
    EXPECT_THROW(CreateSSLContext(MakeKeys().Get(), static_cast<SupportedVersion>(2), context),
                 InvalidArgumentException);
}

}  // namespace
}  // namespace Tessim::Ssl
