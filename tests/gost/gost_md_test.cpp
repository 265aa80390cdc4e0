// The GOST digests as OpenSSL EVP_MD objects and the engine's digest hooks.
#include <gtest/gtest.h>
#include <openssl/engine.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <memory>

#include "gost_test_util.h"
#include "p11_ossl_md.h"

using namespace gost_test;

namespace {

using md_ctx_ptr = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

md_ctx_ptr new_ctx() {
    return md_ctx_ptr(EVP_MD_CTX_new(), EVP_MD_CTX_free);
}

struct digest_case {
    const char* algorithm;  // as in vectors.txt
    const EVP_MD* (*build)();
    int nid;
    int size;
    int block_size;
    int data_size;
};

const digest_case digest_cases[] = {
    {"gost94-cp", digest_gost2001, NID_id_GostR3411_94, 32, 32, 4248},
    {"streebog256", digest_gost2012_256, NID_id_GostR3411_2012_256, 32, 64, 336},
    {"streebog512", digest_gost2012_512, NID_id_GostR3411_2012_512, 64, 64, 336},
};

bytes evp_digest(const EVP_MD* md, const bytes& data, size_t first_piece) {
    auto ctx = new_ctx();
    EXPECT_EQ(EVP_DigestInit_ex(ctx.get(), md, nullptr), 1);
    first_piece = std::min(first_piece, data.size());
    EXPECT_EQ(EVP_DigestUpdate(ctx.get(), data.data(), first_piece), 1);
    EXPECT_EQ(EVP_DigestUpdate(ctx.get(), data.data() + first_piece, data.size() - first_piece), 1);
    bytes out(EVP_MD_get_size(md));
    unsigned len = 0;
    EXPECT_EQ(EVP_DigestFinal_ex(ctx.get(), out.data(), &len), 1);
    EXPECT_EQ(len, out.size());
    return out;
}

TEST(GostDigest, ShapeAsOpenSslSeesIt) {
    for (const auto& c : digest_cases) {
        SCOPED_TRACE(c.algorithm);
        const EVP_MD* md = c.build();
        ASSERT_NE(md, nullptr);
        EXPECT_EQ(c.build(), md);  // cached
        EXPECT_EQ(EVP_MD_get_type(md), c.nid);
        EXPECT_EQ(EVP_MD_get_pkey_type(md), NID_undef);
        EXPECT_EQ(EVP_MD_get_size(md), c.size);
        EXPECT_EQ(EVP_MD_get_block_size(md), c.block_size);
        EXPECT_EQ(EVP_MD_meth_get_app_datasize(md), c.data_size);
    }
}

TEST(GostDigest, HashesThePublishedVectors) {
    for (const auto& row : load_vectors()) {
        for (const auto& c : digest_cases) {
            if (row.algorithm != c.algorithm) continue;
            SCOPED_TRACE("vectors.txt:" + std::to_string(row.line));
            EXPECT_EQ(to_hex(evp_digest(c.build(), row.message, 33)), row.digest);
        }
    }
}

// The 34.11-94 context holds a pointer into itself; a copy must not keep pointing at the source.
TEST(GostDigest, CopyKeepsHashingAfterTheSourceIsGone) {
    std::mt19937_64 rng(8);
    bytes data = random_bytes(rng, 300);
    for (const auto& c : digest_cases) {
        SCOPED_TRACE(c.algorithm);
        auto src = new_ctx();
        ASSERT_EQ(EVP_DigestInit_ex(src.get(), c.build(), nullptr), 1);
        ASSERT_EQ(EVP_DigestUpdate(src.get(), data.data(), 100), 1);
        auto copy = new_ctx();
        ASSERT_EQ(EVP_MD_CTX_copy_ex(copy.get(), src.get()), 1);
        src.reset();  // cleanup wipes the source's data, then OpenSSL frees it

        ASSERT_EQ(EVP_DigestUpdate(copy.get(), data.data() + 100, data.size() - 100), 1);
        bytes out(c.size);
        ASSERT_EQ(EVP_DigestFinal_ex(copy.get(), out.data(), nullptr), 1);
        EXPECT_EQ(to_hex(out), to_hex(our_hash(c.algorithm, data)));
    }
}

TEST(GostDigest, MicAlgorithmControl) {
    struct {
        const EVP_MD* (*build)();
        const char* text;
    } cases[] = {{digest_gost2012_256, "gostr3411-2012-256"}, {digest_gost2012_512, "gostr3411-2012-512"}};
    for (const auto& c : cases) {
        auto ctrl = EVP_MD_meth_get_ctrl(c.build());
        ASSERT_NE(ctrl, nullptr);
        char* text = nullptr;
        ASSERT_EQ(ctrl(nullptr, EVP_MD_CTRL_MICALG, 0, &text), 1);
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, c.text);
        OPENSSL_free(text);
        EXPECT_EQ(ctrl(nullptr, EVP_MD_CTRL_DIGALGID, 0, &text), 0);
    }
    EXPECT_EQ(EVP_MD_meth_get_ctrl(digest_gost2001()), nullptr);
}

TEST(GostDigest, SelectorListsTheEngineNidsAndAnswersTheDigestNids) {
    const int* nids = nullptr;
    ASSERT_EQ(p11::p11_mds(nullptr, nullptr, &nids, 0), 3);
    ASSERT_NE(nids, nullptr);
    EXPECT_EQ(nids[0], 809);
    EXPECT_EQ(nids[1], 979);
    EXPECT_EQ(nids[2], 980);

    const EVP_MD* sentinel = EVP_sha256();
    struct {
        int nid;
        int result;
        const EVP_MD* md;
    } cases[] = {{809, 1, digest_gost2001()},
                 {982, 1, digest_gost2012_256()},
                 {983, 1, digest_gost2012_512()},
                 {979, 0, sentinel},
                 {980, 0, sentinel},
                 {NID_sha256, 0, sentinel}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.nid);
        const EVP_MD* md = sentinel;
        EXPECT_EQ(p11::p11_mds(nullptr, &md, nullptr, c.nid), c.result);
        EXPECT_EQ(md, c.md);
    }
}

TEST(GostDigest, RegistrationMakesTheDigestsFindable) {
    ENGINE* e = ENGINE_new();
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(ENGINE_set_id(e, "gost_md_test"), 1);
    ASSERT_EQ(p11::p11_md_init(e), 1);
    EXPECT_EQ(ENGINE_get_digest(e, NID_id_GostR3411_94), digest_gost2001());

    const EVP_MD* md = EVP_get_digestbynid(NID_id_GostR3411_2012_256);
    ASSERT_NE(md, nullptr);
    EXPECT_EQ(EVP_MD_get_size(md), 32);
    EXPECT_EQ(EVP_MD_get_block_size(md), 64);
    for (const auto& c : digest_cases) {
        EXPECT_EQ(EVP_get_digestbyname(OBJ_nid2sn(c.nid)), c.build()) << c.algorithm;
        EXPECT_EQ(EVP_get_digestbyname(OBJ_nid2ln(c.nid)), c.build()) << c.algorithm;
    }
    ENGINE_free(e);
}

}  // namespace
