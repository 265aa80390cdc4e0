// The GOST hashes against libgcrypt's: R 34.11-94 with the CryptoPro and the test S-boxes,
// R 34.11-2012 with 256 and 512 bits, and for 2012 both compression codes. The input is fed in
// pieces whose sizes its first byte chooses; the 94 hash is also read midway (reading it
// leaves the state as it was).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gcrypt.h>

#include "gost/gosthash.h"
#include "gost/gosthash2012.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

std::vector<unsigned char> reference(int algorithm, const uint8_t* data, size_t size) {
    std::vector<unsigned char> out(gcry_md_get_algo_dlen(algorithm));
    gcry_md_hash_buffer(algorithm, out.data(), data, size);
    return out;
}

// Piece sizes from a small generator seeded by the input: 0 to 130 bytes, around the block sizes.
struct Pieces {
    explicit Pieces(uint8_t seed) : state(seed * 2654435761u + 1) {}
    size_t next() {
        state = state * 1103515245u + 12345u;
        return (state >> 16) % 131;
    }
    uint32_t state;
};

void gost94(const gost_subst_block* sbox, int algorithm, const uint8_t* data, size_t size, uint8_t seed) {
    gost_hash_ctx ctx;
    check(init_gost_hash_ctx(&ctx, sbox) == 1);
    check(start_hash(&ctx) == 1);
    Pieces pieces(seed);
    const size_t middle = size / 2;
    bool read = false;
    unsigned char out[32];
    for (size_t at = 0; at < size;) {
        size_t n = pieces.next();
        if (n > size - at) n = size - at;
        if (!read && at + n > middle) n = middle - at;
        hash_block(&ctx, data + at, n);
        at += n;
        if (!read && at == middle) {
            read = true;
            finish_hash(&ctx, out);
            check(std::memcmp(out, reference(algorithm, data, middle).data(), 32) == 0);
        }
    }
    finish_hash(&ctx, out);
    check(std::memcmp(out, reference(algorithm, data, size).data(), 32) == 0);
    done_gost_hash_ctx(&ctx);
}

void gost2012(unsigned bits, int algorithm, const uint8_t* data, size_t size, uint8_t seed) {
    gost2012_hash_ctx ctx;
    init_gost2012_hash_ctx(&ctx, bits);
    Pieces pieces(seed);
    for (size_t at = 0; at < size;) {
        size_t n = pieces.next();
        if (n > size - at) n = size - at;
        gost2012_hash_block(&ctx, data + at, n);
        at += n;
    }
    unsigned char out[64];
    gost2012_finish_hash(&ctx, out);
    check(std::memcmp(out, reference(algorithm, data, size).data(), bits / 8) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = gcry_check_version(nullptr) != nullptr;
    check(ready);
    const uint8_t seed = size > 0 ? data[0] : 0;
    gost94(&GostR3411_94_CryptoProParamSet, GCRY_MD_GOSTR3411_CP, data, size, seed);
    gost94(&GostR3411_94_TestParamSet, GCRY_MD_GOSTR3411_94, data, size, seed);
    for (bool vector : {false, true}) {
        gost2012_use_vector(vector);
        gost2012(256, GCRY_MD_STRIBOG256, data, size, seed);
        gost2012(512, GCRY_MD_STRIBOG512, data, size, seed);
    }
    return 0;
}
