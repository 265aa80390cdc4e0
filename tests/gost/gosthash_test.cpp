// GOST R 34.11-94 and 34.11-2012 hashes: published vectors, input splitting, libgcrypt.
#include <gtest/gtest.h>

#include <cstring>

#include "gost/gosthash.h"
#include "gost/gosthash2012.h"
#include "gost_test_util.h"

using namespace gost_test;

namespace {

bool is_2012(const std::string& algorithm) {
    return algorithm.rfind("streebog", 0) == 0;
}

// Runs each test with the plain 2012 code and again with the vector code, where the processor
// has it. The vector run repeats only the 2012 cases.
class GostHash : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (gost2012_use_vector(GetParam()) != GetParam())
            GTEST_SKIP() << "no AVX-512 VBMI/GFNI on this processor";
    }
    void TearDown() override { gost2012_use_vector(true); }

    bool covers(const std::string& algorithm) const { return !GetParam() || is_2012(algorithm); }
};

INSTANTIATE_TEST_SUITE_P(Path, GostHash, ::testing::Bool(), [](const ::testing::TestParamInfo<bool>& p) {
    return p.param ? "vector" : "plain";
});

TEST_P(GostHash, PublishedVectors) {
    auto rows = load_vectors();
    ASSERT_GE(rows.size(), 19u);
    for (const auto& row : rows) {
        if (!covers(row.algorithm)) continue;
        SCOPED_TRACE("vectors.txt:" + std::to_string(row.line));
        EXPECT_EQ(to_hex(our_hash(row.algorithm, row.message)), row.digest);
    }
}

// Buffered tails, block-sized pieces and whole blocks taken straight from the input must all
// give the same state.
TEST_P(GostHash, PiecesGiveTheSameDigestAsOneCall) {
    std::mt19937_64 rng(1);
    std::vector<std::vector<size_t>> splits = {{1},  {31}, {32}, {33},
                                               {63}, {64}, {65}, {3, 64, 31, 129, 1, 32}};
    for (int i = 0; i < 20; ++i) {
        std::vector<size_t> s;
        for (int j = 0; j < 6; ++j) s.push_back(1 + rng() % 200);
        splits.push_back(s);
    }
    for (size_t len : {64u, 65u, 1000u}) {
        bytes data = random_bytes(rng, len);
        for (const auto& alg : hash_algorithms) {
            if (!covers(alg.name)) continue;
            bytes whole = our_hash(alg.name, data);
            for (const auto& pieces : splits) {
                SCOPED_TRACE(std::string(alg.name) + " length " + std::to_string(len) + " first piece " +
                             std::to_string(pieces[0]));
                EXPECT_EQ(to_hex(our_hash(alg.name, data, pieces)), to_hex(whole));
            }
        }
    }
}

TEST_P(GostHash, MatchesLibgcryptOnRandomInput) {
    std::mt19937_64 rng(GetParam() ? 2 : 3);
    for (const auto& alg : hash_algorithms) {
        if (!covers(alg.name)) continue;
        for (int i = 0; i < 700; ++i) {
            bytes data = random_bytes(rng, rng() % 5001);
            size_t cut = data.empty() ? 0 : rng() % (data.size() + 1);
            bytes ours = our_hash(alg.name, data, {cut ? cut : data.size() + 1});
            bytes theirs = gcrypt_hash(alg.gcrypt_id, data, alg.size);
            ASSERT_EQ(to_hex(ours), to_hex(theirs))
                << alg.name << " length " << data.size() << " cut " << cut;
        }
    }
}

// finish_hash works on copies: it can be called again, and hashing can go on after it.
TEST(GostHash94, FinishLeavesTheStateUsable) {
    std::mt19937_64 rng(4);
    bytes a = random_bytes(rng, 45), b = random_bytes(rng, 70);
    bytes ab = a;
    ab.insert(ab.end(), b.begin(), b.end());

    gost_hash_ctx ctx;
    ASSERT_EQ(init_gost_hash_ctx(&ctx, &GostR3411_94_CryptoProParamSet), 1);
    ASSERT_EQ(start_hash(&ctx), 1);
    hash_block(&ctx, a.data(), a.size());
    bytes first(32), second(32), after(32);
    finish_hash(&ctx, first.data());
    finish_hash(&ctx, second.data());
    hash_block(&ctx, b.data(), b.size());
    finish_hash(&ctx, after.data());
    done_gost_hash_ctx(&ctx);

    EXPECT_EQ(to_hex(first), to_hex(second));
    EXPECT_EQ(to_hex(first), to_hex(our_hash("gost94-cp", a)));
    EXPECT_EQ(to_hex(after), to_hex(our_hash("gost94-cp", ab)));
}

}  // namespace
