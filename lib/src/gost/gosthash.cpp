#include "gost/gosthash.h"

#include <stdlib.h>
#include <string.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "256-bit values are kept as little-endian words");

// The 256-bit values (H, M, S, keys) are handled as four little-endian 64-bit words; word 0
// holds bytes 0..7, the least significant end in the standard's notation.
namespace {

#define GOST_INLINE inline __attribute__((always_inline))

GOST_INLINE uint64_t load64(const byte* p) {
    uint64_t v;
    memcpy(&v, p, 8);
    return v;
}

GOST_INLINE void store64(byte* p, uint64_t v) { memcpy(p, &v, 8); }

struct u256 {
    uint64_t w[4];
};

GOST_INLINE u256 load256(const byte* p) {
    return {{load64(p), load64(p + 8), load64(p + 16), load64(p + 24)}};
}

GOST_INLINE void store256(byte* p, const u256& v) {
    for (int i = 0; i < 4; ++i) store64(p + 8 * i, v.w[i]);
}

// A: Y = y4|y3|y2|y1 (64-bit pieces) becomes (y1 ^ y2)|y4|y3|y2.
GOST_INLINE u256 A(const u256& y) { return {{y.w[1], y.w[2], y.w[3], y.w[0] ^ y.w[1]}}; }

// P, the byte transposition phi(i + 1 + 4(k - 1)) = 8i + k, read as cipher key words: key word k
// collects byte k of each of the four 64-bit words.
GOST_INLINE void P(const u256& y, uint32_t* key) {
#if defined(__SSE2__)
    __m128i a = _mm_unpacklo_epi8(_mm_cvtsi64_si128(int64_t(y.w[0])), _mm_cvtsi64_si128(int64_t(y.w[1])));
    __m128i b = _mm_unpacklo_epi8(_mm_cvtsi64_si128(int64_t(y.w[2])), _mm_cvtsi64_si128(int64_t(y.w[3])));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(key), _mm_unpacklo_epi16(a, b));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(key + 4), _mm_unpackhi_epi16(a, b));
#else
    for (int k = 0; k < 8; ++k)
        key[k] = uint32_t((y.w[0] >> (8 * k)) & 0xff) | uint32_t((y.w[1] >> (8 * k)) & 0xff) << 8 |
                 uint32_t((y.w[2] >> (8 * k)) & 0xff) << 16 | uint32_t((y.w[3] >> (8 * k)) & 0xff) << 24;
#endif
}

// C3 = 0xff00ffff000000ffff0000ff00ffff0000ff00ff00ff00ffff00ff00ff00ff00.
constexpr u256 C3 = {
    {0xff00ff00ff00ff00ULL, 0x00ff00ff00ff00ffULL, 0xff0000ff00ffff00ULL, 0xff00ffff000000ffULL}};

GOST_INLINE uint32_t f(const gost_ctx* c, uint32_t x) {
    return c->sbox[0][x & 0xff] ^ c->sbox[1][(x >> 8) & 0xff] ^ c->sbox[2][(x >> 16) & 0xff] ^
           c->sbox[3][x >> 24];
}

// The four encryptions of a step are independent; running them side by side lets the table
// look-ups of one overlap the dependency chain of another.
GOST_INLINE void round4(const gost_ctx* c, const uint32_t (*k)[8], int i, const uint32_t* x, uint32_t* y) {
    y[0] ^= f(c, x[0] + k[0][i]);
    y[1] ^= f(c, x[1] + k[1][i]);
    y[2] ^= f(c, x[2] + k[2][i]);
    y[3] ^= f(c, x[3] + k[3][i]);
}

GOST_INLINE void eight4(const gost_ctx* c, const uint32_t (*k)[8], bool down, uint32_t* n1, uint32_t* n2) {
    for (int r = 0; r < 8; r += 2) {
        round4(c, k, down ? 7 - r : r, n1, n2);
        round4(c, k, down ? 6 - r : r + 1, n2, n1);
    }
}

GOST_INLINE u256 encrypt4(const gost_ctx* c, const uint32_t (*k)[8], const u256& h) {
    uint32_t n1[4], n2[4];
    for (int l = 0; l < 4; ++l) {
        n1[l] = uint32_t(h.w[l]);
        n2[l] = uint32_t(h.w[l] >> 32);
    }
    eight4(c, k, false, n1, n2);
    eight4(c, k, false, n1, n2);
    eight4(c, k, false, n1, n2);
    eight4(c, k, true, n1, n2);
    // The last round does not swap the halves.
    u256 s;
    for (int l = 0; l < 4; ++l) s.w[l] = uint64_t(n1[l]) << 32 | n2[l];
    return s;
}

// psi shifts the sixteen 16-bit words y16..y1 down by one word and puts
// y1 ^ y2 ^ y3 ^ y4 ^ y13 ^ y16 on top. As a sequence, w[n+16] = w[n] ^ w[n+1] ^ w[n+2] ^ w[n+3]
// ^ w[n+12] ^ w[n+15].
GOST_INLINE void psi1(u256& y) {
    uint64_t top = (y.w[0] ^ y.w[0] >> 16 ^ y.w[0] >> 32 ^ y.w[0] >> 48 ^ y.w[3] ^ y.w[3] >> 48) & 0xffff;
    y.w[0] = y.w[0] >> 16 | y.w[1] << 48;
    y.w[1] = y.w[1] >> 16 | y.w[2] << 48;
    y.w[2] = y.w[2] >> 16 | y.w[3] << 48;
    y.w[3] = y.w[3] >> 16 | top << 48;
}

// Four psi steps at once over 16-bit lanes. All terms but w[n+15] come from the old state; that
// one chains the four new words, which a prefix xor across the lanes resolves.
GOST_INLINE void psi4(u256& y) {
    uint64_t t = y.w[0] ^ (y.w[0] >> 16 | y.w[1] << 48) ^ (y.w[0] >> 32 | y.w[1] << 32) ^
                 (y.w[0] >> 48 | y.w[1] << 16) ^ y.w[3];
    t ^= t << 16;
    t ^= t << 32;
    t ^= (y.w[3] >> 48) * 0x0001000100010001ULL;
    y.w[0] = y.w[1];
    y.w[1] = y.w[2];
    y.w[2] = y.w[3];
    y.w[3] = t;
}

GOST_INLINE void xor_in(u256& y, const u256& x) {
    for (int i = 0; i < 4; ++i) y.w[i] ^= x.w[i];
}

GOST_INLINE u256 step(const gost_ctx* c, const u256& h, const u256& m) {
    uint32_t keys[4][8];
    u256 u = h, v = m, w;
    for (int j = 0; j < 4; ++j) {
        if (j > 0) {
            u = A(u);
            if (j == 2) xor_in(u, C3);
            v = A(A(v));
        }
        for (int i = 0; i < 4; ++i) w.w[i] = u.w[i] ^ v.w[i];
        P(w, keys[j]);
    }
    u256 s = encrypt4(c, keys, h);

    // H' = psi^61(H ^ psi(M ^ psi^12(S)))
    for (int i = 0; i < 3; ++i) psi4(s);
    xor_in(s, m);
    psi1(s);
    xor_in(s, h);
    for (int i = 0; i < 15; ++i) psi4(s);
    psi1(s);
    return s;
}

// Little-endian 256-bit addition, the final carry dropped.
GOST_INLINE void add256(u256& s, const u256& m) {
    unsigned carry = 0;
    for (int i = 0; i < 4; ++i) {
        uint64_t a = s.w[i] + m.w[i];
        unsigned c1 = a < m.w[i];
        uint64_t b = a + carry;
        unsigned c2 = b < a;
        s.w[i] = b;
        carry = c1 | c2;
    }
}

}  // namespace

void hash_step(const gost_ctx* c, byte* H, const byte* M) { store256(H, step(c, load256(H), load256(M))); }

int init_gost_hash_ctx(gost_hash_ctx* ctx, const gost_subst_block* subst_block) {
    memset(ctx, 0, sizeof(*ctx));
    ctx->cipher_ctx = static_cast<gost_ctx*>(malloc(sizeof(gost_ctx)));
    if (!ctx->cipher_ctx) return 0;
    memset(ctx->cipher_ctx, 0, sizeof(gost_ctx));
    gost_init(ctx->cipher_ctx, subst_block);
    return 1;
}

void done_gost_hash_ctx(gost_hash_ctx* ctx) {
    if (ctx->cipher_ctx) {
        gost_destroy(ctx->cipher_ctx);
        free(ctx->cipher_ctx);
        ctx->cipher_ctx = nullptr;
    }
}

int start_hash(gost_hash_ctx* ctx) {
    if (!ctx->cipher_ctx) return 0;
    ctx->len = 0;
    ctx->left = 0;
    memset(ctx->H, 0, sizeof(ctx->H));
    memset(ctx->S, 0, sizeof(ctx->S));
    memset(ctx->remainder, 0, sizeof(ctx->remainder));
    return 1;
}

int hash_block(gost_hash_ctx* ctx, const byte* block, size_t length) {
    if (length == 0) return 1;  // block may then be null
    if (ctx->left > 0) {
        size_t take = 32 - size_t(ctx->left);
        if (take > length) take = length;
        memcpy(ctx->remainder + ctx->left, block, take);
        ctx->left += int(take);
        block += take;
        length -= take;
        if (ctx->left < 32) return 1;
        hash_step(ctx->cipher_ctx, ctx->H, ctx->remainder);
        u256 s = load256(ctx->S);
        add256(s, load256(ctx->remainder));
        store256(ctx->S, s);
        ctx->len += 32;
        ctx->left = 0;
    }
    if (length >= 32) {
        // H and S stay in registers across the whole run of blocks.
        u256 h = load256(ctx->H), s = load256(ctx->S);
        for (; length >= 32; block += 32, length -= 32) {
            u256 m = load256(block);
            h = step(ctx->cipher_ctx, h, m);
            add256(s, m);
            ctx->len += 32;
        }
        store256(ctx->H, h);
        store256(ctx->S, s);
    }
    if (length > 0) {
        memcpy(ctx->remainder, block, length);
        ctx->left = int(length);
    }
    return 1;
}

int finish_hash(gost_hash_ctx* ctx, byte* hashval) {
    u256 h = load256(ctx->H), s = load256(ctx->S);
    uint64_t len = uint64_t(ctx->len);
    // A final partial block only when there is one: the empty message hashes no data block.
    if (ctx->left > 0) {
        byte last[32] = {0};
        memcpy(last, ctx->remainder, size_t(ctx->left));
        u256 m = load256(last);
        h = step(ctx->cipher_ctx, h, m);
        add256(s, m);
        len += uint64_t(ctx->left);
    }
    u256 bits = {{len << 3, len >> 61, 0, 0}};
    h = step(ctx->cipher_ctx, h, bits);
    h = step(ctx->cipher_ctx, h, s);
    store256(hashval, h);
    return 1;
}
