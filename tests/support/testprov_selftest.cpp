// The test provider's premises that the library's tests rely on without checking: one shared
// instance through dlopen, and GOST signatures in the conventions of real tokens.
#include <dlfcn.h>
#include <gtest/gtest.h>

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
                                                 TP_CKM_GOSTR3410_512, 64}),
                         [](const auto& info) { return "curve" + std::to_string(info.index); });

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
