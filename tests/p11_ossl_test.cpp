// The OpenSSL bridge: NID tables, engine registration, the key methods and the token
// signing primitive.
#include <gtest/gtest.h>

#include <openssl/engine.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>
#include <openssl/rsa.h>

#include "Certificate.h"
#include "p11_ossl.h"
#include "p11_ossl_eng.h"
#include "test_fixture.h"
#include "test_identities.h"
#include "test_log.h"

namespace {

TEST(NidTables, Mechanisms) {
    struct {
        int nid;
        CK_MECHANISM_TYPE mechanism;
    } cases[] = {{NID_rsa, 0x1},       {NID_rsaEncryption, 0x1}, {NID_sha256, 0x250},     {NID_sha512, 0x270},
                 {979, 0x1201},        {811, 0x1201},            {980, 0xD4321006},       {985, 0xD4321008},
                 {986, 0xD4321009},    {982, 0xD4321012},        {983, 0xD4321013},       {809, 0x1210},
                 {807, 0x1202},        {0, 0},                   {12345, 0}};
    for (const auto& c : cases) EXPECT_EQ(p11::nid_to_p11_mechanism_type(c.nid), c.mechanism) << c.nid;
}

TEST(NidTables, KeyTypesAreSigned) {
    EXPECT_EQ(p11::nid_to_p11_key_type(980), static_cast<int>(0xD4321003));
    EXPECT_LT(p11::nid_to_p11_key_type(980), 0);
    for (int nid : {979, 811, 6, 0}) EXPECT_EQ(p11::nid_to_p11_key_type(nid), 0x30) << nid;
}

TEST(Engine, SelectorsAndRegistration) {
    p11::reg_pkcs11_engine();
    p11::reg_pkcs11_engine();  // a second call changes nothing
    const int* nids = nullptr;
    EXPECT_EQ(p11::p11_pkey_meths(nullptr, nullptr, &nids, 0), 3);
    EXPECT_EQ(std::vector<int>(nids, nids + 3), (std::vector<int>{811, 979, 980}));
    EVP_PKEY_METHOD* pmeth = nullptr;
    EXPECT_EQ(p11::p11_pkey_meths(nullptr, &pmeth, &nids, 980), 1);
    EXPECT_EQ(pmeth, p11::pmeth_GostR3410_2012_512);
    EXPECT_EQ(p11::p11_pkey_meths(nullptr, &pmeth, &nids, 6), 0);
    EXPECT_EQ(pmeth, nullptr);
    EVP_PKEY_ASN1_METHOD* ameth = nullptr;
    EXPECT_EQ(p11::p11_pkey_asn1_meths(nullptr, &ameth, &nids, 811), 1);
    EXPECT_EQ(ameth, p11::ameth_GostR3410_2001);

    ENGINE* e = ENGINE_by_id("zorvo_pkcs11");
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(ENGINE_get_name(e), "zorvo_pkcs11");
    EXPECT_EQ(ENGINE_get_ex_data(e, 0), &p11::engine_ctx);
    ENGINE_free(e);
}

// Keys bound to a token of the test provider.
class BridgeTest : public ProviderTest {
protected:
    void SetUp() override {
        ProviderTest::SetUp();
        p11::reg_pkcs11_engine();
        token_ = std::make_unique<tp::Token>(1);
        module_ = load();
    }
    void open() {
        slot_ = firstSlot(module_);
        session_ = slot_->openSession(0);
        login_ = session_->login("1234", 4);
    }
    std::shared_ptr<p11::Certificate> certificate(size_t i = 0) { return session_->enumerateCerts()->at(i); }
    void claim() {
        p11::engine_ctx.slot = slot_;
        p11::engine_ctx.session = session_;
    }

    std::unique_ptr<tp::Token> token_;
    std::shared_ptr<p11::Module> module_;
    std::shared_ptr<p11::Slot> slot_;
    std::shared_ptr<p11::Session> session_;
    std::unique_ptr<p11::Session::LoginToken> login_;
};

TEST_F(BridgeTest, GostKeyMethods) {
    testid::install(*token_, testid::gost("gost2012_512"), {5});
    testid::install(*token_, testid::gost("gost2001"), {6});
    open();
    auto cert512 = certificate(0);
    auto cert2001 = certificate(1);
    auto key512 = session_->get_private_key_by_x509(cert512);
    auto key2001 = session_->get_private_key_by_x509(cert2001);
    EXPECT_EQ(EVP_PKEY_id(key512.get()), NID_id_GostR3410_2012_512);

    // The size query answers without the token.
    claim();
    tp_clear_log();
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(key512.get(), nullptr),
                                                                   EVP_PKEY_CTX_free);
    ASSERT_EQ(EVP_PKEY_sign_init(ctx.get()), 1);
    size_t len = 0;
    unsigned char digest[64] = {1};
    EXPECT_EQ(EVP_PKEY_sign(ctx.get(), nullptr, &len, digest, sizeof digest), 1);
    EXPECT_EQ(len, 128u);
    EXPECT_EQ(tp_call_count(nullptr), 0);

    // A GOST key takes only its own digest.
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx2001(EVP_PKEY_CTX_new(key2001.get(), nullptr),
                                                                        EVP_PKEY_CTX_free);
    EVP_PKEY_sign_init(ctx2001.get());
    ERR_set_mark();
    EXPECT_LE(EVP_PKEY_CTX_set_signature_md(ctx2001.get(), EVP_sha256()), 0);
    ERR_pop_to_mark();
    EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(ctx2001.get(), EVP_get_digestbynid(NID_id_GostR3411_94)), 1);
    int nid = 0;
    EXPECT_EQ(EVP_PKEY_get_default_digest_nid(key2001.get(), &nid), 2);
    EXPECT_EQ(nid, NID_id_GostR3411_94);

    // Keys compare by their public bits; the certificate's decoded key equals the token's.
    EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert512->getX509()), key512.get()), 1);
    EXPECT_NE(EVP_PKEY_eq(X509_get0_pubkey(cert2001->getX509()), key512.get()), 1);
}

TEST_F(BridgeTest, TokenSigningPrimitive) {
    testid::install(*token_, testid::gost("gost2012_256"), {5});
    open();
    const CK_OBJECT_HANDLE key = 2;  // the private key follows the certificate
    unsigned char digest[32] = {7};
    unsigned char sig[64];
    const std::weak_ptr<p11::Session> gone;
    struct {
        const char* what;
        bool live_session;
        unsigned char* out;
        size_t len;
        int nid;
        int result;
        size_t len_after;
        int queued_reason;  // what reaches OpenSSL's error queue
    } cases[] = {
        {"signature", true, sig, sizeof sig, 979, 1, 64, 0},
        {"length query", true, nullptr, 0, 979, 1, 64, 0},
        {"unknown nid", true, sig, sizeof sig, 12345, 0, sizeof sig, 0},
        {"short buffer", true, sig, 10, 979, 0, 10, static_cast<int>(CKR_BUFFER_TOO_SMALL)},
        {"no session", false, sig, sizeof sig, 979, 0, sizeof sig, 0},
    };
    for (const auto& c : cases) {
        // A length query or a short buffer leaves the operation open on the token: a fresh
        // session per case.
        auto session = slot_->openSession(0);
        ERR_clear_error();
        size_t len = c.len;
        const int result = p11::p11_pkey_sign(slot_, c.live_session ? session : gone, key, c.nid, c.out, &len,
                                              digest, sizeof digest);
        EXPECT_EQ(result, c.result) << c.what;
        EXPECT_EQ(len, c.len_after) << c.what;
        EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), c.queued_reason) << c.what;
    }
    ERR_clear_error();
}

TEST_F(BridgeTest, RsaMethod) {
    testid::install(*token_, testid::rsa(), {5});
    open();
    auto key = session_->get_private_key_by_x509(certificate());
    const RSA* rsa = EVP_PKEY_get0_RSA(key.get());
    ASSERT_NE(rsa, nullptr);
    EXPECT_EQ(RSA_get_method(rsa), p11::p11_get_rsa_method());
    EXPECT_EQ(RSA_get0_d(rsa), nullptr);  // the private half stays on the token
    auto* record = static_cast<p11::p11_rsa_key_data*>(RSA_get_ex_data(rsa, 0));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->key, 2u);
    EXPECT_EQ(record->session.lock(), session_);
    const BIGNUM* n = nullptr;
    RSA_get0_key(rsa, &n, nullptr, nullptr);
    EXPECT_EQ(BN_num_bits(n), 2048);

    // A SHA-512 DigestInfo (83 bytes) cannot fit a 512-bit modulus: refused before the token.
    p11::ossl::evp_pkey_ptr small(EVP_RSA_gen(512));
    RSA* smallRsa = EVP_PKEY_get1_RSA(small.get());
    RSA_set_method(smallRsa, p11::p11_get_rsa_method());
    unsigned char hash[64] = {}, sig[256];
    unsigned int siglen = 0;
    testlog::Capture log;
    tp_clear_log();
    EXPECT_EQ(RSA_meth_get_sign(p11::p11_get_rsa_method())(NID_sha512, hash, 64, sig, &siglen, smallRsa), 0);
    EXPECT_TRUE(log.contains(L"P11_RSA_KEY_APP_DATA failed"));  // no record on this key
    p11::p11_rsa_attach(smallRsa, std::make_unique<p11::p11_rsa_key_data>());
    EXPECT_EQ(RSA_meth_get_sign(p11::p11_get_rsa_method())(NID_sha512, hash, 64, sig, &siglen, smallRsa), 0);
    EXPECT_EQ(siglen, 64u);  // set before anything can fail
    EXPECT_EQ(tp_call_count(nullptr), 0);
    RSA_free(smallRsa);
}

TEST_F(BridgeTest, UnsupportedKeyTypes) {
    struct {
        CK_KEY_TYPE type;
        const char* message;
        const wchar_t* logged;
    } cases[] = {
        {CKK_EC, "CKK_EC private key type is unsupported", L"CKK_EC private key type is unsupported"},
        {CKK_DSA, "unsupported private key type", L"private key type is unsupported: 1"},
    };
    testid::install(*token_, testid::rsa(), {5});
    open();
    auto cert = certificate();
    for (const auto& c : cases) {
        CK_OBJECT_HANDLE key = token_->private_key(c.type, {9});
        testlog::Capture log;
        EXPECT_P11_ERROR(session_->init_private_key(slot_, key, cert), 110, c.message);
        EXPECT_TRUE(log.contains(c.logged));
    }
}

TEST_F(BridgeTest, KeyLookup) {
    const testid::Identity& id = testid::gost("gost2012_256");
    // The private key has another CKA_ID; the public key object carries the certificate's
    // key value and the private key's identifier.
    token_->certificate(id.certDer, "cert", {0xAA});
    CK_OBJECT_HANDLE first = token_->gost_key(id.keyType, {0xBB}, id.curve, id.secret);
    token_->gost_key(id.keyType, {0xBB}, id.curve, id.secret);  // same id: the first wins
    CK_OBJECT_HANDLE pub = 0;
    {
        const unsigned char* p = id.certDer.data();
        p11::ossl::x509_ptr x(d2i_X509(nullptr, &p, static_cast<long>(id.certDer.size())));
        const unsigned char* bits = nullptr;
        int len = 0;
        X509_PUBKEY_get0_param(nullptr, &bits, &len, nullptr, X509_get_X509_PUBKEY(x.get()));
        std::unique_ptr<ASN1_OCTET_STRING, decltype(&ASN1_OCTET_STRING_free)> point(
            d2i_ASN1_OCTET_STRING(nullptr, &bits, len), ASN1_OCTET_STRING_free);
        token_->public_key(CKK_RSA, {0xCC}, tp::Bytes(point->data, point->data + point->length));  // wrong type
        pub = token_->public_key(CKK_GOSTR3410, {0xBB}, tp::Bytes(point->data, point->data + point->length));
    }
    open();
    auto cert = certificate();
    EXPECT_EQ(session_->get_private_key_by_id(slot_, cert->get_id().first.get(), cert->get_id().second), 0u);
    EXPECT_EQ(session_->get_private_key_by_x509_long_way(slot_, cert), first);

    tp_set_attribute(pub, CKA_ID, nullptr, 0);
    EXPECT_P11_ERROR(session_->get_private_key_by_x509_long_way(slot_, cert), 301, "failed to get public key params");
    tp_remove_object(pub);
    session_ = slot_->openSession(0);  // the failed search is still open in the old one
    testlog::Capture log;
    EXPECT_P11_ERROR(session_->get_private_key_by_x509(cert), 108, "failed to find a private key");
    EXPECT_TRUE(log.contains(L"failed to find a private key"));
}

TEST_F(BridgeTest, LookupByIdNeverTakesTheLongWay) {
    testid::install(*token_, testid::rsa(), {5});
    open();
    auto cert = certificate();
    tp_clear_log();
    session_->get_private_key_by_x509(cert);
    EXPECT_EQ(tp_call_count("C_FindObjectsInit"), 1);
    auto search = tp::call_template("C_FindObjectsInit");
    ASSERT_EQ(search.size(), 2u);
    EXPECT_EQ(search[0].value, tp::ulong_attr(CKA_CLASS, CKO_PRIVATE_KEY).value);
    EXPECT_EQ(search[1].value, tp::Bytes{5});
}

TEST_F(BridgeTest, Gost512PublicKeyNeverMatchesTheLongWay) {
    const testid::Identity& id = testid::gost("gost2012_512");
    token_->certificate(id.certDer, "cert", {0xAA});
    token_->gost_key(id.keyType, {0xBB}, id.curve, id.secret);
    token_->public_key(TP_CKK_GOSTR3410_512, {0xBB}, tp::Bytes(128, 1));
    open();
    EXPECT_P11_ERROR(session_->get_private_key_by_x509(certificate()), 108, "failed to find a private key");
}

TEST_F(BridgeTest, LongWayIgnoresRsaCertificates) {
    testid::install(*token_, testid::rsa(), {5});
    token_->certificate(testid::rsa().certDer, "other id", {6});
    open();
    EXPECT_EQ(session_->get_private_key_by_x509_long_way(slot_, certificate(1)), 0u);
}

}  // namespace
