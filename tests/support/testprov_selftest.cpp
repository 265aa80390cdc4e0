// Smoke test of the test provider, driven the way the library drives it: through dlopen.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <string>
#include <vector>

#include "testprov.h"

namespace {

using tp::Bytes;

Bytes fromHex(const std::string& hex) {
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

Bytes reversed(Bytes b) {
    return Bytes(b.rbegin(), b.rend());
}

class TestProv : public ::testing::Test {
protected:
    void SetUp() override {
        tp_reset();
        handle_ = dlopen(ZORVO_TESTPROV_PATH, RTLD_NOW);
        ASSERT_NE(handle_, nullptr) << dlerror();
        auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle_, "C_GetFunctionList"));
        ASSERT_NE(get, nullptr);
        ASSERT_EQ(get(&f_), CKR_OK);
        ASSERT_EQ(f_->C_Initialize(nullptr), CKR_OK);
    }
    void TearDown() override {
        if (handle_) dlclose(handle_);
    }
    CK_SESSION_HANDLE open(CK_SLOT_ID slot) {
        CK_SESSION_HANDLE h = 0;
        EXPECT_EQ(f_->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &h), CKR_OK);
        return h;
    }

    void* handle_ = nullptr;
    CK_FUNCTION_LIST_PTR f_ = nullptr;
};

TEST_F(TestProv, DlopenSharesTheLinkedInstance) {
    EXPECT_EQ(dlsym(handle_, "tp_reset"), reinterpret_cast<void*>(&tp_reset));
    EXPECT_EQ(tp::sequence(), "C_GetFunctionList,C_Initialize");
    EXPECT_EQ(tp_initialize_count(), 1);
    EXPECT_EQ(f_->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
    EXPECT_EQ(f_->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(f_->C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(tp_finalize_count(), 1);
    EXPECT_EQ(f_->C_DigestInit(0, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
}

TEST_F(TestProv, SlotListHonoursTokenPresentAndBufferSize) {
    tp::Token token(7);
    ASSERT_EQ(tp_add_slot(3, nullptr), 0);
    CK_ULONG n = 0;
    ASSERT_EQ(f_->C_GetSlotList(CK_TRUE, nullptr, &n), CKR_OK);
    EXPECT_EQ(n, 1u);
    ASSERT_EQ(f_->C_GetSlotList(CK_FALSE, nullptr, &n), CKR_OK);
    EXPECT_EQ(n, 2u);
    CK_SLOT_ID ids[2] = {};
    n = 1;
    EXPECT_EQ(f_->C_GetSlotList(CK_FALSE, ids, &n), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(n, 2u);
    ASSERT_EQ(f_->C_GetSlotList(CK_FALSE, ids, &n), CKR_OK);
    EXPECT_EQ(ids[0], 7u);
    EXPECT_EQ(ids[1], 3u);
    EXPECT_EQ(
        tp::call_text("C_GetSlotList", 2),
        "C_GetSlotList(tokenPresent=0, pSlotList=ptr, *pulCount=1) = CKR_BUFFER_TOO_SMALL, *pulCount=2");
    CK_TOKEN_INFO ti;
    EXPECT_EQ(f_->C_GetTokenInfo(3, &ti), CKR_TOKEN_NOT_PRESENT);
    ASSERT_EQ(f_->C_GetTokenInfo(7, &ti), CKR_OK);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(ti.label), 16), "zorvo test token");
}

TEST_F(TestProv, LoginFollowsTokenRules) {
    tp::Token token(1);
    token.pin("0000");
    CK_SESSION_HANDLE h = open(1);
    EXPECT_EQ(f_->C_Logout(h), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(f_->C_Login(h, CKU_USER, nullptr, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(f_->C_Login(h, CKU_USER, (CK_UTF8CHAR_PTR) "1234", 4), CKR_PIN_INCORRECT);
    EXPECT_EQ(f_->C_Login(h, CKU_USER, (CK_UTF8CHAR_PTR) "0000", 4), CKR_OK);
    EXPECT_EQ(f_->C_Login(h, CKU_USER, (CK_UTF8CHAR_PTR) "0000", 4), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_TRUE(tp_is_logged_in(1));
    EXPECT_EQ(f_->C_CloseSession(h), CKR_OK);
    EXPECT_FALSE(tp_is_logged_in(1));  // the last session took the login with it
    tp_call c = tp::call("C_Login", 0);
    EXPECT_TRUE(c.null_ptr);
    EXPECT_EQ(c.in_len, 4u);
    EXPECT_EQ(c.rv, CKR_ARGUMENTS_BAD);
}

TEST_F(TestProv, FindAndAttributeSemantics) {
    tp::Token token(1);
    Bytes der = {0x30, 0x03, 0x02, 0x01, 0x01};
    CK_OBJECT_HANDLE c1 = token.certificate(der, "one", {0x01});
    token.private_key(CKK_RSA, {0x01});
    CK_OBJECT_HANDLE c2 = token.certificate(der, "two", {0x02});
    CK_SESSION_HANDLE h = open(1);

    CK_OBJECT_CLASS cls = CKO_CERTIFICATE;
    CK_ATTRIBUTE tmpl[] = {{CKA_CLASS, &cls, sizeof cls}};
    ASSERT_EQ(f_->C_FindObjectsInit(h, tmpl, 1), CKR_OK);
    EXPECT_EQ(f_->C_FindObjectsInit(h, tmpl, 1), CKR_OPERATION_ACTIVE);
    CK_OBJECT_HANDLE found[4];
    CK_ULONG n = 0;
    ASSERT_EQ(f_->C_FindObjects(h, found, 1, &n), CKR_OK);
    ASSERT_EQ(n, 1u);
    EXPECT_EQ(found[0], c1);
    ASSERT_EQ(f_->C_FindObjects(h, found, 4, &n), CKR_OK);
    ASSERT_EQ(n, 1u);
    EXPECT_EQ(found[0], c2);
    ASSERT_EQ(f_->C_FindObjects(h, found, 4, &n), CKR_OK);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(f_->C_FindObjectsFinal(h), CKR_OK);
    std::vector<tp::Attr> logged = tp::call_template("C_FindObjectsInit");
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].type, CKA_CLASS);
    EXPECT_EQ(logged[0].value, tp::ulong_attr(CKA_CLASS, CKO_CERTIFICATE).value);

    CK_ATTRIBUTE a[] = {{CKA_VALUE, nullptr, 0}, {CKA_MODULUS, nullptr, 0}};
    EXPECT_EQ(f_->C_GetAttributeValue(h, c1, a, 2), CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(a[0].ulValueLen, der.size());
    EXPECT_EQ(a[1].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    unsigned char small[2];
    CK_ATTRIBUTE b = {CKA_VALUE, small, sizeof small};
    EXPECT_EQ(f_->C_GetAttributeValue(h, c1, &b, 1), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(b.ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(tp_remove_attribute(c1, CKA_ID), 0);
    CK_ATTRIBUTE id = {CKA_ID, nullptr, 0};
    EXPECT_EQ(f_->C_GetAttributeValue(h, c1, &id, 1), CKR_ATTRIBUTE_TYPE_INVALID);
}

TEST_F(TestProv, ScriptedFailures) {
    tp::Token token(1);
    CK_ULONG n = 0;
    tp_fail_nth("C_GetSlotList", 2, CKR_DEVICE_ERROR);
    EXPECT_EQ(f_->C_GetSlotList(CK_TRUE, nullptr, &n), CKR_OK);
    EXPECT_EQ(f_->C_GetSlotList(CK_TRUE, nullptr, &n), CKR_DEVICE_ERROR);
    EXPECT_EQ(f_->C_GetSlotList(CK_TRUE, nullptr, &n), CKR_OK);

    tp_fail_from("C_GetSlotInfo", 1, CKR_GENERAL_ERROR);
    CK_SLOT_INFO si;
    EXPECT_EQ(f_->C_GetSlotInfo(1, &si), CKR_GENERAL_ERROR);
    EXPECT_EQ(f_->C_GetSlotInfo(1, &si), CKR_GENERAL_ERROR);
    tp_clear_failures();
    EXPECT_EQ(f_->C_GetSlotInfo(1, &si), CKR_OK);

    tp_clear_log();
    tp_fail_any(2, 2, CKR_FUNCTION_FAILED);
    EXPECT_EQ(f_->C_GetSlotInfo(1, &si), CKR_OK);
    EXPECT_EQ(f_->C_GetSlotList(CK_TRUE, nullptr, &n), CKR_FUNCTION_FAILED);
    EXPECT_EQ(f_->C_GetSlotInfo(1, &si), CKR_FUNCTION_FAILED);
    EXPECT_EQ(f_->C_GetSlotInfo(1, &si), CKR_OK);
    EXPECT_EQ(tp_fail_any_fired(), 2);
    EXPECT_EQ(tp::sequence(), "C_GetSlotInfo,C_GetSlotList,C_GetSlotInfo,C_GetSlotInfo");
    EXPECT_EQ(tp_call_count("C_GetSlotInfo"), 3);
    EXPECT_EQ(tp::call("C_GetSlotInfo", 1).rv, CKR_FUNCTION_FAILED);
}

TEST_F(TestProv, Misbehaviour) {
    tp::Token token(1);
    CK_OBJECT_HANDLE d = token.data("d", {1, 2, 3});
    token.data("e", {4});
    CK_SESSION_HANDLE h = open(1);
    tp_misbehave_attr_len(10);
    unsigned char buf[8];
    CK_ATTRIBUTE a = {CKA_VALUE, buf, sizeof buf};
    EXPECT_EQ(f_->C_GetAttributeValue(h, d, &a, 1), CKR_OK);
    EXPECT_EQ(a.ulValueLen, 18u);
    tp_misbehave_find_count(5);
    ASSERT_EQ(f_->C_FindObjectsInit(h, nullptr, 0), CKR_OK);
    CK_OBJECT_HANDLE found[2];
    CK_ULONG n = 0;
    EXPECT_EQ(f_->C_FindObjects(h, found, 1, &n), CKR_OK);
    EXPECT_EQ(n, 6u);
    tp_misbehave_null_functions("C_Login,C_Sign");
    CK_FUNCTION_LIST_PTR broken = nullptr;
    ASSERT_EQ(C_GetFunctionList(&broken), CKR_OK);
    EXPECT_EQ(broken->C_Login, nullptr);
    EXPECT_EQ(broken->C_Sign, nullptr);
    EXPECT_NE(broken->C_Logout, nullptr);
    tp_misbehave_null_functions(nullptr);
    ASSERT_EQ(C_GetFunctionList(&broken), CKR_OK);
    EXPECT_NE(broken->C_Login, nullptr);
}

TEST(TestProvVariants, BrokenLoaders) {
    void* nofl = dlopen(ZORVO_TESTPROV_NOFL_PATH, RTLD_NOW);
    ASSERT_NE(nofl, nullptr);
    EXPECT_EQ(dlsym(nofl, "C_GetFunctionList"), nullptr);
    dlclose(nofl);
    void* flfail = dlopen(ZORVO_TESTPROV_FLFAIL_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(flfail, nullptr);
    auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(flfail, "C_GetFunctionList"));
    ASSERT_NE(get, nullptr);
    CK_FUNCTION_LIST_PTR list = nullptr;
    EXPECT_EQ(get(&list), CKR_GENERAL_ERROR);
    dlclose(flfail);
}

TEST_F(TestProv, RsaSignRoundTrip) {
    EVP_PKEY* key = EVP_RSA_gen(1024);
    ASSERT_NE(key, nullptr);
    BIO* bio = BIO_new(BIO_s_mem());
    ASSERT_EQ(PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr), 1);
    char* pem = nullptr;
    long pemLen = BIO_get_mem_data(bio, &pem);
    tp::Token token(1);
    CK_OBJECT_HANDLE k = token.rsa_key({0x01}, Bytes(pem, pem + pemLen));
    BIO_free(bio);
    CK_SESSION_HANDLE h = open(1);

    // SHA-256 DigestInfo over a fixed hash.
    Bytes tbs = fromHex("3031300d060960864801650304020105000420");
    tbs.resize(tbs.size() + 32, 0xab);
    CK_MECHANISM mech = {CKM_RSA_PKCS, nullptr, 0};
    EXPECT_EQ(f_->C_SignInit(h, &mech, k), CKR_USER_NOT_LOGGED_IN);
    ASSERT_EQ(f_->C_Login(h, CKU_USER, (CK_UTF8CHAR_PTR) "1234", 4), CKR_OK);
    ASSERT_EQ(f_->C_SignInit(h, &mech, k), CKR_OK);
    CK_ULONG len = 0;
    ASSERT_EQ(f_->C_Sign(h, tbs.data(), tbs.size(), nullptr, &len), CKR_OK);
    EXPECT_EQ(len, 128u);
    Bytes sig(len);
    len = 10;
    EXPECT_EQ(f_->C_Sign(h, tbs.data(), tbs.size(), sig.data(), &len), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(len, 128u);
    ASSERT_EQ(f_->C_Sign(h, tbs.data(), tbs.size(), sig.data(), &len), CKR_OK);
    EXPECT_EQ(f_->C_Sign(h, tbs.data(), tbs.size(), sig.data(), &len), CKR_OPERATION_NOT_INITIALIZED);

    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    ASSERT_EQ(EVP_PKEY_verify_init(ctx), 1);
    ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING), 1);
    EXPECT_EQ(EVP_PKEY_verify(ctx, sig.data(), sig.size(), tbs.data(), tbs.size()), 1);
    EVP_PKEY_CTX_free(ctx);
    EVP_PKEY_free(key);

    // A cancelled signature ends the operation, as on a real token.
    ASSERT_EQ(f_->C_SignInit(h, &mech, k), CKR_OK);
    tp_fail_nth("C_Sign", 1, CKR_CANCEL);
    EXPECT_EQ(f_->C_Sign(h, tbs.data(), tbs.size(), sig.data(), &len), CKR_CANCEL);
    EXPECT_EQ(f_->C_Sign(h, tbs.data(), tbs.size(), sig.data(), &len), CKR_OPERATION_NOT_INITIALIZED);
    CK_MECHANISM gost = {CKM_GOSTR3410, nullptr, 0};
    EXPECT_EQ(f_->C_SignInit(h, &gost, k), CKR_KEY_TYPE_INCONSISTENT);
}

struct Curve {
    const char* name;
    CK_KEY_TYPE keyType;
    CK_MECHANISM_TYPE mechanism;
    size_t size;
};

class GostSign : public TestProv, public ::testing::WithParamInterface<Curve> {};

TEST_P(GostSign, SignaturesVerifyOnlyForTheirDigest) {
    const Curve& c = GetParam();
    Bytes d(64), pub(128);
    ASSERT_EQ(tp_gost_generate(c.name, d.data(), pub.data()), int(c.size));
    d.resize(c.size);
    pub.resize(2 * c.size);
    tp::Token token(1);
    CK_OBJECT_HANDLE k = token.gost_key(c.keyType, {0x05}, c.name, d);
    CK_SESSION_HANDLE h = open(1);
    ASSERT_EQ(f_->C_Login(h, CKU_USER, (CK_UTF8CHAR_PTR) "1234", 4), CKR_OK);
    Bytes digest(c.size);
    for (size_t i = 0; i < digest.size(); ++i) digest[i] = static_cast<unsigned char>(i * 7 + 1);

    CK_MECHANISM mech = {c.mechanism, nullptr, 0};
    ASSERT_EQ(f_->C_SignInit(h, &mech, k), CKR_OK);
    Bytes sig(2 * c.size);
    CK_ULONG len = sig.size();
    ASSERT_EQ(f_->C_Sign(h, digest.data(), digest.size(), sig.data(), &len), CKR_OK);
    EXPECT_EQ(len, 2 * c.size);
    EXPECT_EQ(
        tp_gost_verify(c.name, pub.data(), pub.size(), digest.data(), digest.size(), sig.data(), sig.size()),
        1);
    Bytes other = reversed(digest);
    EXPECT_EQ(
        tp_gost_verify(c.name, pub.data(), pub.size(), other.data(), other.size(), sig.data(), sig.size()),
        0);
    Bytes swapped(sig.begin() + c.size, sig.end());
    swapped.insert(swapped.end(), sig.begin(), sig.begin() + c.size);
    EXPECT_EQ(tp_gost_verify(c.name, pub.data(), pub.size(), digest.data(), digest.size(), swapped.data(),
                             swapped.size()),
              0);

    CK_MECHANISM wrong = {c.size == 32 ? TP_CKM_GOSTR3410_512 : CKM_GOSTR3410, nullptr, 0};
    EXPECT_EQ(f_->C_SignInit(h, &wrong, k), CKR_KEY_TYPE_INCONSISTENT);
}

INSTANTIATE_TEST_SUITE_P(Curves, GostSign,
                         ::testing::Values(Curve{"1.2.643.2.2.35.1", CKK_GOSTR3410, CKM_GOSTR3410, 32},
                                           Curve{"1.2.643.7.1.2.1.1.1", CKK_GOSTR3410, CKM_GOSTR3410, 32},
                                           Curve{"1.2.643.7.1.2.1.2.1", TP_CKK_GOSTR3410_512,
                                                 TP_CKM_GOSTR3410_512, 64}));

// The worked example of GOST R 34.10-2001 (test curve): the published r and s verify when the
// digest is handed over little-endian and the signature laid out s || r.
TEST(GostConventions, StandardExampleVerifies) {
    Bytes e = fromHex("2dfbc1b372d89a1188c09c52e0eec61fce52032ab1022e8e67ece6672b043ee5");
    Bytes r = fromHex("41aa28d2f1ab148280cd9ed56feda41974053554a42767b83ad043fd39dc0493");
    Bytes s = fromHex("01456c64ba4642a1653c235a98a60249bcd6d3f746b631df928014f6c5bf9c40");
    Bytes x = fromHex("7f2b49e270db6d90d8595bec458b50c58585ba1d4e9b788f6689dbd8e56fd80b");
    Bytes y = fromHex("26f1b489d6701dd185c8413a977b3cbbaf64d1c593d26627dffb101a87ff77da");
    Bytes pub = reversed(x), ry = reversed(y), sig = s;
    pub.insert(pub.end(), ry.begin(), ry.end());
    sig.insert(sig.end(), r.begin(), r.end());
    Bytes digest = reversed(e);
    EXPECT_EQ(tp_gost_verify("GOST2001-test", pub.data(), pub.size(), digest.data(), digest.size(),
                             sig.data(), sig.size()),
              1);
}

}  // namespace
