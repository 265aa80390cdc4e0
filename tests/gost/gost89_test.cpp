// GOST 28147-89 modes, MAC and key meshing against libgcrypt, for every S-box set carried.
#include <gcrypt.h>
#include <gtest/gtest.h>

#include <cstring>

#include "gost/gost89.h"
#include "gost_test_util.h"

using namespace gost_test;

namespace {

struct sbox_set {
    const char* name;
    const gost_subst_block* sbox;
    const char* oid;  // libgcrypt's name for it
};

const sbox_set sbox_sets[] = {
    {"GostR3411_94_TestParamSet", &GostR3411_94_TestParamSet, "1.2.643.2.2.30.0"},
    {"GostR3411_94_CryptoProParamSet", &GostR3411_94_CryptoProParamSet, "1.2.643.2.2.30.1"},
    {"Gost28147_TestParamSet", &Gost28147_TestParamSet, "1.2.643.2.2.31.0"},
    {"Gost28147_CryptoProParamSetA", &Gost28147_CryptoProParamSetA, "1.2.643.2.2.31.1"},
    {"Gost28147_CryptoProParamSetB", &Gost28147_CryptoProParamSetB, "1.2.643.2.2.31.2"},
    {"Gost28147_CryptoProParamSetC", &Gost28147_CryptoProParamSetC, "1.2.643.2.2.31.3"},
    {"Gost28147_CryptoProParamSetD", &Gost28147_CryptoProParamSetD, "1.2.643.2.2.31.4"},
};

// libgcrypt's cipher defaults to another S-box set, so the set is always named explicitly.
bytes gcrypt_encrypt(int algo, int mode, const char* oid, const bytes& key, const bytes& iv,
                     const bytes& data) {
    init_gcrypt();
    gcry_cipher_hd_t h;
    EXPECT_EQ(gcry_cipher_open(&h, algo, mode, 0), 0u);
    EXPECT_EQ(gcry_cipher_setkey(h, key.data(), key.size()), 0u);
    EXPECT_EQ(gcry_cipher_ctl(h, GCRYCTL_SET_SBOX, const_cast<char*>(oid), 0), 0u);
    if (!iv.empty()) {
        EXPECT_EQ(gcry_cipher_setiv(h, iv.data(), iv.size()), 0u);
    }
    bytes out(data.size());
    EXPECT_EQ(gcry_cipher_encrypt(h, out.data(), out.size(), data.data(), data.size()), 0u);
    gcry_cipher_close(h);
    return out;
}

bytes gcrypt_mac(const char* oid, const bytes& key, const bytes& iv, const bytes& data) {
    init_gcrypt();
    gcry_mac_hd_t h;
    EXPECT_EQ(gcry_mac_open(&h, GCRY_MAC_GOST28147_IMIT, 0, nullptr), 0u);
    EXPECT_EQ(gcry_mac_setkey(h, key.data(), key.size()), 0u);
    EXPECT_EQ(gcry_mac_ctl(h, GCRYCTL_SET_SBOX, const_cast<char*>(oid), 0), 0u);
    if (!iv.empty()) {
        EXPECT_EQ(gcry_mac_setiv(h, iv.data(), iv.size()), 0u);
    }
    EXPECT_EQ(gcry_mac_write(h, data.data(), data.size()), 0u);
    bytes out(4);
    size_t len = out.size();
    EXPECT_EQ(gcry_mac_read(h, out.data(), &len), 0u);
    gcry_mac_close(h);
    return out;
}

class Gost89 : public ::testing::TestWithParam<sbox_set> {
protected:
    void SetUp() override {
        gost_init(&ctx_, GetParam().sbox);
        key_ = random_bytes(rng_, 32);
        gost_key(&ctx_, key_.data());
    }

    std::mt19937_64 rng_{5};
    gost_ctx ctx_;
    bytes key_;
};

INSTANTIATE_TEST_SUITE_P(SBoxes, Gost89, ::testing::ValuesIn(sbox_sets),
                         [](const ::testing::TestParamInfo<sbox_set>& p) {
                             return std::string(p.param.name);
                         });

TEST_P(Gost89, EcbMatchesLibgcryptAndDecrypts) {
    bytes clear = random_bytes(rng_, 64), cipher(64);
    gost_enc(&ctx_, clear.data(), cipher.data(), 8);
    EXPECT_EQ(to_hex(cipher), to_hex(gcrypt_encrypt(GCRY_CIPHER_GOST28147, GCRY_CIPHER_MODE_ECB,
                                                    GetParam().oid, key_, {}, clear)));

    // The single-block entry points agree with ECB.
    gost_ctx fresh;
    gost_init(&fresh, GetParam().sbox);
    uint8_t block[8], back[8];
    gost_enc_with_key(&fresh, key_.data(), clear.data(), block);
    EXPECT_EQ(to_hex(block, 8), to_hex(cipher.data(), 8));
    gostdecrypt(&fresh, block, back);
    EXPECT_EQ(to_hex(back, 8), to_hex(clear.data(), 8));

    gost_dec(&ctx_, cipher.data(), cipher.data(), 8);
    EXPECT_EQ(to_hex(cipher), to_hex(clear));

    bytes key_back(32);
    gost_get_key(&ctx_, key_back.data());
    EXPECT_EQ(to_hex(key_back), to_hex(key_));
}

TEST_P(Gost89, CfbMatchesLibgcryptAndDecryptsInPlace) {
    bytes iv = random_bytes(rng_, 8), clear = random_bytes(rng_, 80), cipher(80);
    gost_enc_cfb(&ctx_, iv.data(), clear.data(), cipher.data(), 10);
    EXPECT_EQ(to_hex(cipher), to_hex(gcrypt_encrypt(GCRY_CIPHER_GOST28147, GCRY_CIPHER_MODE_CFB,
                                                    GetParam().oid, key_, iv, clear)));

    gost_dec_cfb(&ctx_, iv.data(), cipher.data(), cipher.data(), 10);
    EXPECT_EQ(to_hex(cipher), to_hex(clear));
}

// Lengths around the one-block special case and the zero-padded last block.
TEST_P(Gost89, MacMatchesLibgcrypt) {
    bytes iv = random_bytes(rng_, 8);
    for (size_t len : {0u, 1u, 7u, 8u, 9u, 15u, 16u, 17u, 40u, 1001u}) {
        SCOPED_TRACE("length " + std::to_string(len));
        bytes data = random_bytes(rng_, len), mac(4), mac_iv(4);
        ASSERT_EQ(gost_mac(&ctx_, 32, data.data(), data.size(), mac.data()), 1);
        EXPECT_EQ(to_hex(mac), to_hex(gcrypt_mac(GetParam().oid, key_, {}, data)));
        ASSERT_EQ(gost_mac_iv(&ctx_, 32, iv.data(), data.data(), data.size(), mac_iv.data()), 1);
        EXPECT_EQ(to_hex(mac_iv), to_hex(gcrypt_mac(GetParam().oid, key_, iv, data)));
    }
}

// RFC 4357 CFB: after every 1024 bytes the key is meshed and the feedback block re-encrypted.
TEST(Gost89KeyMeshing, CfbWithMeshingMatchesLibgcrypt) {
    std::mt19937_64 rng(6);
    bytes key = random_bytes(rng, 32), iv = random_bytes(rng, 8), clear = random_bytes(rng, 3 * 1024 + 40);
    bytes cipher(clear.size());
    gost_ctx ctx;
    gost_init(&ctx, &Gost28147_CryptoProParamSetA);
    gost_key(&ctx, key.data());
    uint8_t feedback[8];
    memcpy(feedback, iv.data(), 8);
    for (size_t off = 0; off < clear.size(); off += 1024) {
        size_t n = std::min<size_t>(1024, clear.size() - off);
        gost_enc_cfb(&ctx, feedback, clear.data() + off, cipher.data() + off, int(n / 8));
        memcpy(feedback, cipher.data() + off + n - 8, 8);
        if (n == 1024) cryptopro_key_meshing(&ctx, feedback);
    }
    EXPECT_EQ(to_hex(cipher), to_hex(gcrypt_encrypt(GCRY_CIPHER_GOST28147_MESH, GCRY_CIPHER_MODE_CFB,
                                                    "1.2.643.2.2.31.1", key, iv, clear)));
}

TEST(Gost89Mac, ShortLengthsKeepTheLeadingBits) {
    gost_ctx ctx;
    gost_init(&ctx, &Gost28147_CryptoProParamSetA);
    std::mt19937_64 rng(7);
    bytes key = random_bytes(rng, 32), data = random_bytes(rng, 24);
    gost_key(&ctx, key.data());
    uint8_t full[8];
    ASSERT_EQ(gost_mac(&ctx, 64, data.data(), data.size(), full), 1);
    uint8_t part[3] = {0, 0, 0xff};
    ASSERT_EQ(gost_mac(&ctx, 20, data.data(), data.size(), part), 1);
    EXPECT_EQ(part[0], full[0]);
    EXPECT_EQ(part[1], full[1]);
    EXPECT_EQ(part[2], full[2] & 0x0f);
    EXPECT_EQ(gost_mac(&ctx, 0, data.data(), data.size(), part), 0);
    EXPECT_EQ(gost_mac(&ctx, 65, data.data(), data.size(), part), 0);
}

}  // namespace
