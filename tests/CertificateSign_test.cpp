// One-shot CMS signing on the test provider (RSA and the three GOST key types), every
// signature checked by openssl in a separate process and by reading its structure here.
#include <gtest/gtest.h>

#include <openssl/cms.h>
#include <openssl/objects.h>
#include <openssl/pem.h>

#include "Certificate.h"
#include "p11_ossl.h"
#include "p11_ossl_eng.h"
#include "test_fixture.h"
#include "test_identities.h"
#include "test_log.h"
#include "test_openssl.h"

namespace {

struct Algs {
    int digest, digestParamType, signature, signatureParamType;
};

Algs signer_algs(CMS_ContentInfo* cms) {
    CMS_SignerInfo* si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms), 0);
    X509_ALGOR *digest = nullptr, *signature = nullptr;
    CMS_SignerInfo_get0_algs(si, nullptr, nullptr, &digest, &signature);
    const ASN1_OBJECT *d = nullptr, *s = nullptr;
    Algs a{};
    X509_ALGOR_get0(&d, &a.digestParamType, nullptr, digest);
    X509_ALGOR_get0(&s, &a.signatureParamType, nullptr, signature);
    a.digest = OBJ_obj2nid(d);
    a.signature = OBJ_obj2nid(s);
    return a;
}

class OneShotTest : public SigningTest {
protected:
    std::string sign(const char* data, bool attached) {
        p11::engine_in_use = false;
        return cert_->signOnIt(session_->login("1234", 4), data, attached);
    }
};

TEST_P(OneShotTest, SignaturesVerifyAttachedAndDetached) {
    const testid::Identity& id = identity();
    for (bool attached : {true, false}) {
        for (std::string data : {std::string("signed text"), std::string()}) {
            // The gost engine hashes the empty message differently for 34.11-94.
            if (data.empty() && id.name == "gost2001") continue;
            const std::string pem = sign(data.c_str(), attached);
            auto verified = testssl::cms_verify(pem, id.certPem, attached ? nullptr : &data, id.gost());
            EXPECT_TRUE(verified.ok) << id.name << " attached=" << attached << "\n" << verified.log;
            EXPECT_EQ(verified.content, data);

            auto cms = testssl::parse_pem(pem);
            ASSERT_TRUE(cms);
            EXPECT_EQ(CMS_is_detached(cms.get()), attached ? 0 : 1);
            if (attached) {
                ASN1_OCTET_STRING** content = CMS_get0_content(cms.get());
                ASSERT_TRUE(content && *content);
                EXPECT_EQ(std::string(reinterpret_cast<char*>((*content)->data), (*content)->length), data);
            }
            CMS_SignerInfo* si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
            const unsigned char* der = id.certDer.data();
            p11::ossl::x509_ptr cert(d2i_X509(nullptr, &der, static_cast<long>(id.certDer.size())));
            EXPECT_EQ(CMS_SignerInfo_cert_cmp(si, cert.get()), 0);  // issuer and serial of the signer
            STACK_OF(X509)* certs = CMS_get1_certs(cms.get());
            EXPECT_EQ(sk_X509_num(certs), 1);
            sk_X509_pop_free(certs, X509_free);
        }
    }
}

TEST_P(OneShotTest, AlgorithmIdentifiers) {
    auto cms = testssl::parse_pem(sign("x", true));
    Algs a = signer_algs(cms.get());
    struct Row {
        const char* name;
        int digest, signature;
    };
    const Row rows[] = {{"gost2001", NID_id_GostR3411_94, NID_id_GostR3410_2001},
                        {"gost2012_256", NID_id_GostR3411_2012_256, NID_id_GostR3410_2012_256},
                        {"gost2012_512", NID_id_GostR3411_2012_512, NID_id_GostR3410_2012_512}};
    for (const Row& r : rows) {
        if (GetParam() != r.name) continue;
        EXPECT_EQ(a.digest, r.digest);
        EXPECT_EQ(a.signature, r.signature);  // the key algorithm itself, not a with-digest OID
        EXPECT_EQ(a.digestParamType, V_ASN1_NULL);
        EXPECT_EQ(a.signatureParamType, V_ASN1_NULL);
    }
    if (GetParam() == "rsa") {
        EXPECT_EQ(a.digest, NID_sha256);
    }
}

TEST_P(OneShotTest, TokenSeesOneSignaturePerCall) {
    tp_clear_log();
    sign("abc", false);
    EXPECT_EQ(tp_call_count("C_SignInit"), 1);
    EXPECT_EQ(tp_call_count("C_Sign"), 1);
    const CK_MECHANISM_TYPE expected = GetParam() == "gost2012_512" ? TP_CKM_GOSTR3410_512
                                       : GetParam() == "rsa"        ? CKM_RSA_PKCS
                                                                    : CKM_GOSTR3410;
    EXPECT_EQ(tp::call("C_SignInit").mechanism, expected);
    EXPECT_EQ(tp_call_count("C_Logout"), 1);  // the login ends with the call
}

TEST_P(OneShotTest, EngineStaysClaimedAfterwards) {
    sign("first", true);
    testlog::Capture log;
    tp_clear_log();
    EXPECT_P11_ERROR(cert_->signOnIt(session_->login("1234", 4), "second", true), 300,
                     "error while locking OPENSSL P11 engine");
    EXPECT_EQ(tp_call_count("C_FindObjectsInit"), 0);  // refused before any key lookup
    EXPECT_EQ(tp_call_count("C_Logout"), 1);
    EXPECT_TRUE(log.contains(L"error while locking OPENSSL P11 engine"));
    EXPECT_P11_ERROR(cert_->startSigning(session_->login("1234", 4), true), 300,
                     "error while locking OPENSSL P11 engine");
}

TEST_P(OneShotTest, TokenRefusalIsFinalizationFailure) {
    for (CK_RV rv : {CKR_CANCEL, CKR_DEVICE_ERROR}) {
        tp_fail_nth("C_Sign", 1, rv);
        p11::engine_in_use = false;
        EXPECT_P11_ERROR(cert_->signOnIt(session_->login("1234", 4), "no", true), 300,
                         "error while signing finalization");
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, OneShotTest, ::testing::Values("rsa", "gost2001", "gost2012_256", "gost2012_512"),
                         [](const auto& info) { return info.param; });

class RsaOneShotTest : public OneShotTest {};

TEST_P(RsaOneShotTest, EmbeddedNulEndsTheData) {
    const char data[] = "visible\0hidden";
    auto verified = testssl::cms_verify(sign(data, true), identity().certPem, nullptr);
    EXPECT_TRUE(verified.ok) << verified.log;
    EXPECT_EQ(verified.content, "visible");
}

TEST_P(RsaOneShotTest, SessionGoneIsCode12AndLeavesTheEngineAlone) {
    auto login = session_->login("1234", 4);
    session_.reset();
    EXPECT_P11_ERROR(cert_->signOnIt(std::move(login), "x", true), 12, "failed to get session");
    EXPECT_FALSE(p11::engine_in_use);
}

INSTANTIATE_TEST_SUITE_P(Rsa, RsaOneShotTest, ::testing::Values("rsa"));

class SignOnItTest : public ProviderTest {};

// A GOST certificate read before the engine existed still signs once it is registered.
TEST_F(SignOnItTest, GostCertificateEnumeratedBeforeRegistration) {
    const testid::Identity& id = testid::gost("gost2012_256");
    tp::Token token(1);
    testid::install(token, id, {7});
    auto module = load();
    auto slot = firstSlot(module);
    auto session = slot->openSession(0);
    auto cert = session->enumerateCerts()->at(0);  // in its own process: nothing registered yet
    p11::reg_pkcs11_engine();
    p11::engine_in_use = false;
    const std::string pem = cert->signOnIt(session->login("1234", 4), "late", true);
    p11::engine_in_use = false;
    auto verified = testssl::cms_verify(pem, id.certPem, nullptr, true);
    EXPECT_TRUE(verified.ok) << verified.log;
}

}  // namespace
