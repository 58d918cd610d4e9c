#include "runtime/tessim/ssl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <string>

#include "runtime/tessim/crypto.h"
#include "runtime/tessim/exception.h"
#include "tests/support/tls_test_server.h"

namespace Tessim::Ssl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

Ref<Crypto::KeyStore> MakeKeys(const std::string& key = "", const std::string& certificate = "",
                               const std::vector<std::string>& trusted = {}) {
    Ref<Crypto::KeyStore> keys;
    Crypto::CreateKeyStore(key, certificate, trusted, keys);
    return keys;
}

Ref<SSLContext> MakeContext(const Ref<Crypto::KeyStore>& keys) {
    Ref<SSLContext> context;
    CreateSSLContext(keys.Get(), SupportedVersion::Tls12OrNewer, context);
    return context;
}

// The servers are there for their keys and certificates.
class SSLContextTest : public testing::Test {
  protected:
    KelvTest::TlsTestServer server{[](KelvTest::ServedConnection&) {}};
    KelvTest::TlsTestServer other{[](KelvTest::ServedConnection&) {}};
};

TEST(KeyStore, HoldsWhatItWasMadeOf) {
    const auto keys = MakeKeys("key", "certificate", {"one", "two"});
    EXPECT_EQ(keys->GetPrivateKey(), "key");
    EXPECT_EQ(keys->GetCertificate(), "certificate");
    EXPECT_THAT(keys->GetTrustedCertificates(), ElementsAre("one", "two"));
    const auto empty = MakeKeys();
    EXPECT_EQ(empty->GetPrivateKey() + empty->GetCertificate(), "");
    EXPECT_THAT(empty->GetTrustedCertificates(), IsEmpty());
    EXPECT_THROW(MakeKeys("key", ""), InvalidArgumentException);
    EXPECT_THROW(MakeKeys("", "certificate"), InvalidArgumentException);
}

TEST(InitSSL, MayBeCalledAgainButAcceptsNoOptions) {
    InitSSL("");
    EXPECT_NO_THROW(InitSSL(""));
    EXPECT_THROW(InitSSL("fast"), InvalidArgumentException);
}

TEST_F(SSLContextTest, RequiresTls12AndVerifiesAgainstTrustedCertificates) {
    const auto context = MakeContext(MakeKeys());
    EXPECT_EQ(SSL_CTX_get_min_proto_version(context->GetNative()), TLS1_2_VERSION);
    EXPECT_EQ(SSL_CTX_get_verify_mode(context->GetNative()), SSL_VERIFY_NONE);
    const auto verifying = MakeContext(MakeKeys("", "", {server.GetCertificate()}));
    EXPECT_EQ(SSL_CTX_get_verify_mode(verifying->GetNative()), SSL_VERIFY_PEER);
}

TEST_F(SSLContextTest, UsesTheKeyAndItsCertificate) {
    const auto context = MakeContext(MakeKeys(server.GetPrivateKey(), server.GetCertificate()));
    EXPECT_NE(SSL_CTX_get0_certificate(context->GetNative()), nullptr);
    EXPECT_NE(SSL_CTX_get0_privatekey(context->GetNative()), nullptr);
}

TEST_F(SSLContextTest, RefusesTextsThatAreNoKeysOrCertificates) {
    for (const auto& keys :
         {MakeKeys("no key", server.GetCertificate()), MakeKeys(server.GetPrivateKey(), "none"),
          MakeKeys("", "", {server.GetCertificate(), "none"})}) {
        Ref<SSLContext> context;
        EXPECT_THROW(CreateSSLContext(keys.Get(), SupportedVersion::Tls12OrNewer, context), SystemException);
        EXPECT_FALSE(context);
        EXPECT_EQ(ERR_peek_error(), 0U);
    }
}

TEST_F(SSLContextTest, RefusesAKeyOfAnotherCertificateWithTheReason) {
    try {
        MakeContext(MakeKeys(server.GetPrivateKey(), other.GetCertificate()));
        FAIL();
    } catch (const SystemException& thrown) {
        EXPECT_THAT(thrown.what(), HasSubstr("mismatch"));
    }
}

TEST_F(SSLContextTest, NeedsAKeyStoreAndAKnownVersion) {
    Ref<SSLContext> context;
    EXPECT_THROW(CreateSSLContext(nullptr, SupportedVersion::Tls12OrNewer, context),
                 InvalidArgumentException);
    EXPECT_THROW(CreateSSLContext(MakeKeys().Get(), static_cast<SupportedVersion>(2), context),
                 InvalidArgumentException);
}

}  // namespace
}  // namespace Tessim::Ssl
