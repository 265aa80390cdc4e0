// One-shot CMS signing on the test provider, every signature checked by openssl.
#include <gtest/gtest.h>

#include <openssl/rsa.h>

#include "Certificate.h"
#include "p11_ossl.h"
#include "p11_ossl_eng.h"
#include "test_certs.h"
#include "test_fixture.h"
#include "test_log.h"
#include "test_openssl.h"

namespace {

struct RsaIdentity {
    p11::ossl::evp_pkey_ptr key;
    p11::ossl::x509_ptr cert;
};

const RsaIdentity& rsa_identity() {
    static const RsaIdentity identity = [] {
        RsaIdentity id;
        id.key.reset(EVP_RSA_gen(2048));
        testcert::Options o;
        o.subject = {{"CN", V_ASN1_UTF8STRING, "RSA signer"}};
        o.keyUsage = "critical,digitalSignature,nonRepudiation";
        o.key = id.key.get();
        id.cert = testcert::make(o);
        return id;
    }();
    return identity;
}

class SignOnItTest : public ProviderTest {
protected:
    void SetUp() override {
        ProviderTest::SetUp();
        p11::engine_in_use = false;  // the one-shot path keeps the claim for good
        token_ = std::make_unique<tp::Token>(3);
        token_->pin("1234");
        const auto& id = rsa_identity();
        token_->certificate(testcert::der(id.cert.get()), "rsa cert", {0x11});
        token_->rsa_key({0x11}, tp::bytes(testssl::key_pem(id.key.get())), "rsa key");
        module_ = load();
        slot_ = firstSlot(module_);
        session_ = slot_->openSession(0);
        certs_ = session_->enumerateCerts();
    }
    void TearDown() override {
        p11::engine_in_use = false;
        ProviderTest::TearDown();
    }
    std::string sign(const char* data, bool attached) {
        return certs_->at(0)->signOnIt(session_->login("1234", 4), data, attached);
    }
    std::string trusted() { return testssl::cert_pem(rsa_identity().cert.get()); }

    std::unique_ptr<tp::Token> token_;
    std::shared_ptr<p11::Module> module_;
    std::shared_ptr<p11::Slot> slot_;
    std::shared_ptr<p11::Session> session_;
    std::shared_ptr<std::vector<std::shared_ptr<p11::Certificate>>> certs_;
};

TEST_F(SignOnItTest, AttachedAndDetachedVerify) {
    for (bool attached : {true, false}) {
        p11::engine_in_use = false;
        const std::string pem = sign("signed text", attached);
        const std::string content = "signed text";
        auto verified = testssl::cms_verify(pem, trusted(), attached ? nullptr : &content);
        EXPECT_TRUE(verified.ok) << verified.log;
        EXPECT_EQ(verified.content, content);
        EXPECT_EQ(pem.rfind("-----BEGIN CMS-----\n", 0), 0u);
    }
}

}  // namespace
