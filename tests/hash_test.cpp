// The GOST hashes as a host reaches them (OpenSSL digests by name): published vectors, any
// split of the input, copied contexts, and libgcrypt as a second implementation.
#include <gcrypt.h>

#include <random>

#include "fixture.h"
#include "gost/gosthash.h"
#include "gost/gosthash2012.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Algorithm {
    const char* name;
    const char* digest;  // OpenSSL's name, or null: the primitive alone
    int gcrypt;
};
const Algorithm kAlgorithms[] = {{"gost94-cp", "md_gost94", GCRY_MD_GOSTR3411_CP},
                                 {"gost94-test", nullptr, GCRY_MD_GOSTR3411_94},
                                 {"streebog256", "md_gost12_256", GCRY_MD_STRIBOG256},
                                 {"streebog512", "md_gost12_512", GCRY_MD_STRIBOG512}};

std::string hex(const Bytes& b) {
    std::string s;
    for (unsigned char c : b) s += "0123456789abcdef"[c >> 4], s += "0123456789abcdef"[c & 15];
    return s;
}

// The digest of `data` fed in pieces of the sizes given, in turn; a copy of the context takes
// over halfway and the original is freed.
Bytes digest(const Algorithm& a, const Bytes& data, std::vector<size_t> pieces = {}) {
    if (pieces.empty()) pieces.push_back(data.size() + 1);
    Bytes out(64);
    size_t at = 0, i = 0;
    auto next = [&] { return std::min(pieces[i++ % pieces.size()], data.size() - at); };
    if (!a.digest) {
        gost_hash_ctx ctx;
        init_gost_hash_ctx(&ctx, &GostR3411_94_TestParamSet);
        start_hash(&ctx);
        for (size_t n; (n = next()) > 0; at += n) hash_block(&ctx, data.data() + at, n);
        finish_hash(&ctx, out.data());
        done_gost_hash_ctx(&ctx);
        out.resize(32);
        return out;
    }
    // By name: from OpenSSL's table with the engine, from the library's context with the provider.
    std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)> fetched(
        p11::openssl_libctx() ? EVP_MD_fetch(p11::openssl_libctx(), a.digest, nullptr) : nullptr,
        EVP_MD_free);
    const EVP_MD* md = fetched ? fetched.get() : EVP_get_digestbyname(a.digest);
    if (!md) return {};
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, md, nullptr);
    for (size_t n; (n = next()) > 0; at += n) {
        EVP_DigestUpdate(ctx, data.data() + at, n);
        if (at < data.size() / 2 && at + n >= data.size() / 2) {
            EVP_MD_CTX* copy = EVP_MD_CTX_new();
            EVP_MD_CTX_copy_ex(copy, ctx);
            EVP_MD_CTX_free(ctx);
            ctx = copy;
        }
    }
    unsigned len = 0;
    EVP_DigestFinal_ex(ctx, out.data(), &len);
    EVP_MD_CTX_free(ctx);
    out.resize(len);
    return out;
}

// Each case runs on both compression codes of the 2012 hash where the processor has the vector one.
class Hash : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        p11::reg_pkcs11_engine();
        if (gost2012_use_vector(GetParam()) != GetParam()) GTEST_SKIP() << "no AVX-512 VBMI/GFNI here";
    }
    void TearDown() override { gost2012_use_vector(true); }
};
INSTANTIATE_TEST_SUITE_P(Code, Hash, testing::Bool());

TEST_P(Hash, PublishedVectors) {
    std::ifstream in(ZORVO_SOURCE_DIR "/tests/data/hash-vectors.txt");
    int rows = 0;
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string name, message, expected;
        size_t repeat = 0;
        if (line[0] == '#' || !(fields >> name >> repeat >> message >> expected)) continue;
        Bytes data;
        for (size_t r = 0; r < repeat; ++r)
            for (size_t i = 0; message != "-" && i < message.size(); i += 2)
                data.push_back(static_cast<unsigned char>(std::stoul(message.substr(i, 2), nullptr, 16)));
        for (const auto& a : kAlgorithms)
            if (name == a.name) {
                EXPECT_EQ(hex(digest(a, data)), expected) << line;
                ++rows;
            }
    }
    EXPECT_EQ(rows, 19);
}

TEST_P(Hash, AnySplitAgreesWithLibgcrypt) {
    std::mt19937 random(7);
    const std::vector<std::vector<size_t>> splits = {{1}, {31, 33}, {32}, {63, 1, 65}, {64}, {3, 64, 129}};
    for (size_t size : {0, 1, 63, 64, 65, 1000}) {
        Bytes data(size);
        for (auto& b : data) b = static_cast<unsigned char>(random());
        for (const auto& a : kAlgorithms) {
            Bytes theirs(gcry_md_get_algo_dlen(a.gcrypt));
            gcry_md_hash_buffer(a.gcrypt, theirs.data(), data.data(), data.size());
            for (const auto& split : splits)
                EXPECT_EQ(digest(a, data, split), theirs) << a.name << " " << size;
        }
    }
}

}  // namespace
