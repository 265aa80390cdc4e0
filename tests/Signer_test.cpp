// The streaming signer on the test provider, every signature checked by openssl.
#include "Signer.h"

#include <gtest/gtest.h>

#include "Certificate.h"
#include "p11_ossl.h"
#include "test_certs.h"
#include "test_fixture.h"
#include "test_openssl.h"

namespace {

class SignerTest : public ProviderTest {
protected:
    void SetUp() override {
        ProviderTest::SetUp();
        p11::engine_in_use = false;
        key_.reset(EVP_RSA_gen(2048));
        testcert::Options o;
        o.subject = {{"CN", V_ASN1_UTF8STRING, "Stream signer"}};
        o.key = key_.get();
        cert_ = testcert::make(o);
        token_ = std::make_unique<tp::Token>(3);
        token_->pin("1234");
        token_->certificate(testcert::der(cert_.get()), "cert", {0x21});
        token_->rsa_key({0x21}, tp::bytes(testssl::key_pem(key_.get())));
        module_ = load();
        slot_ = firstSlot(module_);
        session_ = slot_->openSession(0);
        certs_ = session_->enumerateCerts();
    }
    void TearDown() override {
        p11::engine_in_use = false;
        ProviderTest::TearDown();
    }

    p11::ossl::evp_pkey_ptr key_;
    p11::ossl::x509_ptr cert_;
    std::unique_ptr<tp::Token> token_;
    std::shared_ptr<p11::Module> module_;
    std::shared_ptr<p11::Slot> slot_;
    std::shared_ptr<p11::Session> session_;
    std::shared_ptr<std::vector<std::shared_ptr<p11::Certificate>>> certs_;
};

TEST_F(SignerTest, SeveralMessagesOneLogin) {
    for (bool attached : {true, false}) {
        auto signer = certs_->at(0)->startSigning(session_->login("1234", 4), attached);
        for (std::string message : {"first message", "", "third"}) {
            signer->addData(message.data(), static_cast<int>(message.size()));
            const std::string pem = signer->finish();
            auto verified = testssl::cms_verify(pem, testssl::cert_pem(cert_.get()), attached ? nullptr : &message);
            EXPECT_TRUE(verified.ok) << verified.log;
            EXPECT_EQ(verified.content, message);
        }
        signer.reset();
        EXPECT_EQ(tp_call_count("C_Logout"), attached ? 1 : 2);
    }
}

}  // namespace
