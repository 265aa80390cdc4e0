// The streaming signer on the test provider (RSA and the three GOST key types), every
// signature checked by openssl in a separate process, and its signing-certificate attribute.
#include "Signer.h"

#include <gtest/gtest.h>

#include <openssl/cms.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "Certificate.h"
#include "p11_ossl.h"
#include "p11_ossl_eng.h"
#include "test_fixture.h"
#include "test_identities.h"
#include "test_log.h"
#include "test_openssl.h"

namespace {

using Bytes = std::vector<unsigned char>;

// One DER element: its tag, its whole encoding and its contents.
struct Element {
    int tag = -1;
    Bytes whole, contents;
};

// Reads the element at p and moves p past it.
Element next(const unsigned char*& p, const unsigned char* end) {
    const unsigned char* start = p;
    long len = 0;
    int tag = 0, cls = 0;
    if (ASN1_get_object(&p, &len, &tag, &cls, end - p) & 0x80) return {};
    Element e;
    e.tag = tag;
    e.contents.assign(p, p + len);
    p += len;
    e.whole.assign(start, p);
    return e;
}

Bytes der_of(const std::string& pem_cert) {
    p11::ossl::bio_ptr in(BIO_new_mem_buf(pem_cert.data(), static_cast<int>(pem_cert.size())));
    p11::ossl::x509_ptr x(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
    unsigned char* out = nullptr;
    int len = i2d_X509(x.get(), &out);
    Bytes der(out, out + len);
    OPENSSL_free(out);
    return der;
}

// The attribute value's DER, as the signature carries it.
Bytes signing_certificate_attribute(CMS_ContentInfo* cms) {
    CMS_SignerInfo* si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms), 0);
    p11::ossl::Deleter<ASN1_OBJECT, ASN1_OBJECT_free> freeObject;
    ASN1_OBJECT* oid = OBJ_txt2obj("1.2.840.113549.1.9.16.2.47", 1);
    int at = CMS_signed_get_attr_by_OBJ(si, oid, -1);
    freeObject(oid);
    if (at < 0) return {};
    ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(si, at), 0);
    if (value == nullptr || value->type != V_ASN1_SEQUENCE) return {};
    return Bytes(value->value.sequence->data, value->value.sequence->data + value->value.sequence->length);
}

class StreamTest : public SigningTest {
protected:
    std::shared_ptr<p11::Signer> start(bool attached) { return cert_->startSigning(session_->login("1234", 4), attached); }
    void expect_verifies(const std::string& pem, const std::string& data, bool attached) {
        auto verified = testssl::cms_verify(pem, identity().certPem, attached ? nullptr : &data, identity().gost());
        EXPECT_TRUE(verified.ok) << GetParam() << " attached=" << attached << "\n" << verified.log;
        EXPECT_EQ(verified.content, data);
    }
    void feed(p11::Signer& signer, const std::string& data) {
        for (size_t at = 0; at < data.size(); at += 1000)
            signer.addData(data.data() + at, static_cast<int>(std::min<size_t>(1000, data.size() - at)));
    }
};

TEST_P(StreamTest, SeveralMessagesOneLogin) {
    for (bool attached : {true, false}) {
        auto signer = start(attached);
        for (std::string message : {std::string("first message"), std::string(5000, 'z'), std::string()}) {
            if (message.empty() && GetParam() == "gost2001") continue;  // the verifier hashes it differently
            feed(*signer, message);
            expect_verifies(signer->finish(), message, attached);
        }
        const int logouts = tp_call_count("C_Logout");
        signer.reset();
        EXPECT_EQ(tp_call_count("C_Logout"), logouts + 1);  // destroying the signer logs out
        EXPECT_FALSE(p11::engine_in_use);
    }
}

TEST_P(StreamTest, SigningCertificateAttribute) {
    const testid::Identity& id = identity();
    struct Row {
        const char* name;
        int hashNid;
        const char* dgst;
    };
    const Row rows[] = {{"rsa", NID_sha256, "-sha256"},
                        {"gost2001", NID_id_GostR3411_94, "-engine gost -md_gost94"},
                        {"gost2012_256", NID_id_GostR3411_2012_256, "-engine gost -md_gost12_256"},
                        {"gost2012_512", NID_id_GostR3411_2012_512, "-engine gost -md_gost12_512"}};
    const Row& row = *std::find_if(std::begin(rows), std::end(rows), [&](const Row& r) { return GetParam() == r.name; });

    auto signer = start(false);
    for (int round = 0; round < 2; ++round) {  // every signature of the process carries it
        auto cms = testssl::parse_pem(signer->finish());
        const Bytes value = signing_certificate_attribute(cms.get());
        ASSERT_FALSE(value.empty()) << "attribute missing";
        const unsigned char* p = value.data();
        Element v2 = next(p, value.data() + value.size());
        ASSERT_EQ(v2.tag, V_ASN1_SEQUENCE);
        EXPECT_EQ(v2.whole.size(), value.size());
        p = v2.contents.data();
        Element certs = next(p, v2.contents.data() + v2.contents.size());
        ASSERT_EQ(certs.tag, V_ASN1_SEQUENCE);
        p = certs.contents.data();
        Element certId = next(p, certs.contents.data() + certs.contents.size());
        ASSERT_EQ(certId.tag, V_ASN1_SEQUENCE);

        const unsigned char* q = certId.contents.data();
        const unsigned char* end = q + certId.contents.size();
        Element algorithm = next(q, end), hash = next(q, end), issuerSerial = next(q, end);
        // hashAlgorithm: the OID alone, no parameters, written even for SHA-256.
        const unsigned char* a = algorithm.contents.data();
        Element oid = next(a, a + algorithm.contents.size());
        EXPECT_EQ(oid.whole.size(), algorithm.contents.size());
        const unsigned char* o = oid.whole.data();
        std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> object(
            d2i_ASN1_OBJECT(nullptr, &o, static_cast<long>(oid.whole.size())), ASN1_OBJECT_free);
        EXPECT_EQ(OBJ_obj2nid(object.get()), row.hashNid);

        // certHash: the certificate's DER under that hash, computed by openssl.
        std::string digest;
        const std::string derFile = testssl::write_temp(id.name + ".der",
                                                        std::string(id.certDer.begin(), id.certDer.end()));
        ASSERT_EQ(testssl::run(std::string("openssl dgst ") + row.dgst + " -binary " + derFile + " 2>/dev/null", &digest), 0);
        EXPECT_EQ(hash.tag, V_ASN1_OCTET_STRING);
        EXPECT_EQ(std::string(hash.contents.begin(), hash.contents.end()), digest);

        // issuerSerial: GeneralNames holding the issuer as directoryName [4], then the serial.
        const unsigned char* i = issuerSerial.contents.data();
        const unsigned char* iend = i + issuerSerial.contents.size();
        Element names = next(i, iend), serial = next(i, iend);
        const Bytes certDer = der_of(id.certPem);
        const unsigned char* c = certDer.data();
        p11::ossl::x509_ptr x(d2i_X509(nullptr, &c, static_cast<long>(certDer.size())));
        unsigned char* issuerDer = nullptr;
        int issuerLen = i2d_X509_NAME(X509_get_issuer_name(x.get()), &issuerDer);
        const unsigned char* n = names.contents.data();
        Element directoryName = next(n, n + names.contents.size());
        EXPECT_EQ(directoryName.contents, Bytes(issuerDer, issuerDer + issuerLen));
        OPENSSL_free(issuerDer);
        unsigned char* serialDer = nullptr;
        int serialLen = i2d_ASN1_INTEGER(X509_get0_serialNumber(x.get()), &serialDer);
        EXPECT_EQ(serial.whole, Bytes(serialDer, serialDer + serialLen));
        OPENSSL_free(serialDer);
    }
}

TEST_P(StreamTest, CancelOnTheTokenThenTheNextMessageSigns) {
    auto signer = start(true);
    feed(*signer, "cancelled message");
    tp_fail_nth("C_Sign", 1, CKR_CANCEL);
    EXPECT_P11_ERROR(signer->finish(), 501, "user cancel operation");
    feed(*signer, "next message");
    expect_verifies(signer->finish(), "next message", true);
}

TEST_P(StreamTest, OtherTokenFailureIsCode300) {
    auto signer = start(false);
    tp_fail_nth("C_Sign", 1, CKR_DEVICE_ERROR);
    EXPECT_P11_ERROR(signer->finish(), 300, "error while signing finalization");
}

INSTANTIATE_TEST_SUITE_P(Keys, StreamTest, ::testing::Values("rsa", "gost2001", "gost2012_256", "gost2012_512"),
                         [](const auto& info) { return info.param; });

class SignerRulesTest : public StreamTest {};

TEST_P(SignerRulesTest, OneSignerAtATime) {
    auto first = start(true);
    EXPECT_P11_ERROR(start(true), 300, "error while locking OPENSSL P11 engine");
    EXPECT_EQ(tp_call_count("C_Logout"), 1);  // the refused login was given back
    first.reset();
    auto second = start(true);
    EXPECT_NE(second, nullptr);
}

TEST_P(SignerRulesTest, NoSignerAfterAOneShotSignature) {
    cert_->signOnIt(session_->login("1234", 4), "one shot", true);
    EXPECT_P11_ERROR(start(true), 300, "error while locking OPENSSL P11 engine");
}

TEST_P(SignerRulesTest, FailedConstructionGivesTheEngineBack) {
    tp_fail_from("C_FindObjects", 1, CKR_DEVICE_REMOVED);
    EXPECT_P11_ERROR(start(true), 108, "failed to find private key of the certificate");
    EXPECT_FALSE(p11::engine_in_use);
    EXPECT_EQ(tp_call_count("C_Logout"), 1);
}

TEST_P(SignerRulesTest, SpentSignerRefusesDataUntilInit) {
    auto signer = start(true);
    signer->reset();
    EXPECT_P11_ERROR(signer->addData("x", 1), 300, "signer is not initialized");
    EXPECT_P11_ERROR(signer->finish(), 300, "signer is not initialized");
    signer->init();
    feed(*signer, "again");
    expect_verifies(signer->finish(), "again", true);
}

TEST_P(SignerRulesTest, CertificateGoneIsCode13) {
    auto signer = start(true);
    cert_.reset();
    tp_fail_nth("C_Sign", 1, CKR_CANCEL);  // the cancel path prepares a fresh message
    EXPECT_P11_ERROR(signer->finish(), 13, "failed to get certificate");
}

INSTANTIATE_TEST_SUITE_P(Rsa, SignerRulesTest, ::testing::Values("rsa"));

}  // namespace
