#include "gost/gosthash2012.h"

#include <string.h>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define GOST2012_VECTOR 1
#endif

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "512-bit values are kept as little-endian words");

// All tables are computed by the compiler from the standard's constants: the S-box Pi, the
// rows of the linear map l and the iteration constants, the latter kept in the standard's own
// hexadecimal notation (most significant byte first).
namespace {

#define GOST_INLINE inline __attribute__((always_inline))

// clang-format off
constexpr unsigned char Pi[256] = {
    252, 238, 221,  17, 207, 110,  49,  22, 251, 196, 250, 218,  35, 197,   4,  77,
    233, 119, 240, 219, 147,  46, 153, 186,  23,  54, 241, 187,  20, 205,  95, 193,
    249,  24, 101,  90, 226,  92, 239,  33, 129,  28,  60,  66, 139,   1, 142,  79,
      5, 132,   2, 174, 227, 106, 143, 160,   6,  11, 237, 152, 127, 212, 211,  31,
    235,  52,  44,  81, 234, 200,  72, 171, 242,  42, 104, 162, 253,  58, 206, 204,
    181, 112,  14,  86,   8,  12, 118,  18, 191, 114,  19,  71, 156, 183,  93, 135,
     21, 161, 150,  41,  16, 123, 154, 199, 243, 145, 120, 111, 157, 158, 178, 177,
     50, 117,  25,  61, 255,  53, 138, 126, 109,  84, 198, 128, 195, 189,  13,  87,
    223, 245,  36, 169,  62, 168,  67, 201, 215, 121, 214, 246, 124,  34, 185,   3,
    224,  15, 236, 222, 122, 148, 176, 188, 220, 232,  40,  80,  78,  51,  10,  74,
    167, 151,  96, 115,  30,   0,  98,  68,  26, 184,  56, 130, 100, 159,  38,  65,
    173,  69,  70, 146,  39,  94,  85,  47, 140, 163, 165, 125, 105, 213, 149,  59,
      7,  88, 179,  64, 134, 172,  29, 247,  48,  55, 107, 228, 136, 217, 231, 137,
    225,  27, 131,  73,  76,  63, 248, 254, 141,  83, 170, 144, 202, 216, 133,  97,
     32, 113, 103, 164,  45,  43,   9,  91, 203, 155,  37, 208, 190, 229, 108,  82,
     89, 166, 116, 210, 230, 244, 180, 192, 209, 102, 175, 194,  57,  75,  99, 182,
};
// clang-format on

// Row i of l is taken for bit 63 - i of the input word.
constexpr uint64_t L_rows[64] = {
    0x8e20faa72ba0b470, 0x47107ddd9b505a38, 0xad08b0e0c3282d1c, 0xd8045870ef14980e, 0x6c022c38f90a4c07,
    0x3601161cf205268d, 0x1b8e0b0e798c13c8, 0x83478b07b2468764, 0xa011d380818e8f40, 0x5086e740ce47c920,
    0x2843fd2067adea10, 0x14aff010bdd87508, 0x0ad97808d06cb404, 0x05e23c0468365a02, 0x8c711e02341b2d01,
    0x46b60f011a83988e, 0x90dab52a387ae76f, 0x486dd4151c3dfdb9, 0x24b86a840e90f0d2, 0x125c354207487869,
    0x092e94218d243cba, 0x8a174a9ec8121e5d, 0x4585254f64090fa0, 0xaccc9ca9328a8950, 0x9d4df05d5f661451,
    0xc0a878a0a1330aa6, 0x60543c50de970553, 0x302a1e286fc58ca7, 0x18150f14b9ec46dd, 0x0c84890ad27623e0,
    0x0642ca05693b9f70, 0x0321658cba93c138, 0x86275df09ce8aaa8, 0x439da0784e745554, 0xafc0503c273aa42a,
    0xd960281e9d1d5215, 0xe230140fc0802984, 0x71180a8960409a42, 0xb60c05ca30204d21, 0x5b068c651810a89e,
    0x456c34887a3805b9, 0xac361a443d1c8cd2, 0x561b0d22900e4669, 0x2b838811480723ba, 0x9bcf4486248d9f5d,
    0xc3e9224312c8c1a0, 0xeffa11af0964ee50, 0xf97d86d98a327728, 0xe4fa2054a80b329c, 0x727d102a548b194e,
    0x39b008152acb8227, 0x9258048415eb419d, 0x492c024284fbaec0, 0xaa16012142f35760, 0x550b8e9e21f7a530,
    0xa48b474f9ef5dc18, 0x70a6a56e2440598e, 0x3853dc371220a247, 0x1ca76e95091051ad, 0x0edd37c48a08a6d8,
    0x07e095624504536c, 0x8d70c431ac02a736, 0xc83862965601dd1b, 0x641c314b2b8ee083,
};

constexpr const char* C_hex[12] = {
    "b1085bda1ecadae9ebcb2f81c0657c1f2f6a76432e45d016714eb88d7585c4fc"
    "4b7ce09192676901a2422a08a460d31505767436cc744d23dd806559f2a64507",
    "6fa3b58aa99d2f1a4fe39d460f70b5d7f3feea720a232b9861d55e0f16b50131"
    "9ab5176b12d699585cb561c2db0aa7ca55dda21bd7cbcd56e679047021b19bb7",
    "f574dcac2bce2fc70a39fc286a3d843506f15e5f529c1f8bf2ea7514b1297b7b"
    "d3e20fe490359eb1c1c93a376062db09c2b6f443867adb31991e96f50aba0ab2",
    "ef1fdfb3e81566d2f948e1a05d71e4dd488e857e335c3c7d9d721cad685e353f"
    "a9d72c82ed03d675d8b71333935203be3453eaa193e837f1220cbebc84e3d12e",
    "4bea6bacad4747999a3f410c6ca923637f151c1f1686104a359e35d7800fffbd"
    "bfcd1747253af5a3dfff00b723271a167a56a27ea9ea63f5601758fd7c6cfe57",
    "ae4faeae1d3ad3d96fa4c33b7a3039c02d66c4f95142a46c187f9ab49af08ec6"
    "cffaa6b71c9ab7b40af21f66c2bec6b6bf71c57236904f35fa68407a46647d6e",
    "f4c70e16eeaac5ec51ac86febf240954399ec6c7e6bf87c9d3473e33197a93c9"
    "0992abc52d822c3706476983284a05043517454ca23c4af38886564d3a14d493",
    "9b1f5b424d93c9a703e7aa020c6e41414eb7f8719c36de1e89b4443b4ddbc49a"
    "f4892bcb929b069069d18d2bd1a5c42f36acc2355951a8d9a47f0dd4bf02e71e",
    "378f5a541631229b944c9ad8ec165fde3a7d3a1b258942243cd955b7e00d0984"
    "800a440bdbb2ceb17b2b8a9aa6079c540e38dc92cb1f2a607261445183235adb",
    "abbedea680056f52382ae548b2e4f3f38941e71cff8a78db1fffe18a1b336103"
    "9fe76702af69334b7a1e6c303b7652f43698fad1153bb6c374b4c7fb98459ced",
    "7bcd9ed0efc889fb3002c6cd635afe94d8fa6bbbebab076120018021148466798"
    "a1d71efea48b9caefbacd1d7d476e98dea2594ac06fd85d6bcaa4cd81f32d1b",
    "378ee767f11631bad21380b00449b17acda43c32bcdf1d77f82012d430219f9b"
    "5d80ef9d1891cc86e71da4aa88e12852faf417d5d9b21b9948bc924af11bd720",
};

constexpr unsigned hex_digit(char c) {
    return c <= '9' ? unsigned(c - '0') : c <= 'F' ? unsigned(c - 'A' + 10) : unsigned(c - 'a' + 10);
}

constexpr uint512_u from_hex(const char* s) {
    uint512_u v{};
    for (int i = 0; i < 128; ++i)  // digit i has weight 16^(127 - i)
        v.QWORD[(127 - i) / 16] |= uint64_t(hex_digit(s[i])) << (4 * ((127 - i) % 16));
    return v;
}

struct round_constants {
    uint512_u c[12];
};

constexpr round_constants make_C() {
    round_constants r{};
    for (int i = 0; i < 12; ++i) r.c[i] = from_hex(C_hex[i]);
    return r;
}

constexpr uint64_t l(uint64_t x) {
    uint64_t r = 0;
    for (int i = 0; i < 64; ++i)
        if (x >> (63 - i) & 1) r ^= L_rows[i];
    return r;
}

// Ax[k][b]: the contribution of byte value b at byte k of an input word to every output word
// of LPS. The transposition P sends byte j of input word k to byte k of output word j, so
// output word j is the xor over k of Ax[k][byte j of word k].
struct lps_tables {
    uint64_t t[8][256];
};

constexpr lps_tables make_Ax() {
    lps_tables r{};
    for (int k = 0; k < 8; ++k)
        for (int b = 0; b < 256; ++b) r.t[k][b] = l(uint64_t(Pi[b]) << (8 * k));
    return r;
}

constexpr round_constants C = make_C();
alignas(64) constexpr lps_tables Ax = make_Ax();
constexpr uint512_u buffer512 = {{512, 0, 0, 0, 0, 0, 0, 0}};
constexpr uint512_u buffer0 = {{0, 0, 0, 0, 0, 0, 0, 0}};

GOST_INLINE uint64_t load64(const unsigned char* p) {
    uint64_t v;
    memcpy(&v, p, 8);
    return v;
}

GOST_INLINE void load_block(const unsigned char* p, uint64_t* m) {
    for (int i = 0; i < 8; ++i) m[i] = load64(p + 8 * i);
}

GOST_INLINE void add512(uint512_u* x, const uint64_t* y) {
    unsigned carry = 0;
    for (int i = 0; i < 8; ++i) {
        uint64_t a = x->QWORD[i] + y[i];
        unsigned c1 = a < y[i];
        uint64_t b = a + carry;
        unsigned c2 = b < a;
        x->QWORD[i] = b;
        carry = c1 | c2;
    }
}

// ---- Plain path: table look-ups, any x86-64 ----

// Keeps a byte-extraction source in a register with an addressable second byte (a, b, c or
// d), so that two indices come out per 16-bit shift instead of one shift per byte.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define GOST_BYTE_SOURCE(v) __asm__("" : "+Q"(v))
#else
#define GOST_BYTE_SOURCE(v) (void)0
#endif

// Input word k feeds byte k of every output word, through table k.
#define LPS_WORD(k, OP)              \
    do {                             \
        const uint64_t* T = Ax.t[k]; \
        uint64_t v = a[k] ^ b[k];    \
        GOST_BYTE_SOURCE(v);         \
        r0 OP T[v & 0xff];           \
        r1 OP T[(v >> 8) & 0xff];    \
        v >>= 16;                    \
        GOST_BYTE_SOURCE(v);         \
        r2 OP T[v & 0xff];           \
        r3 OP T[(v >> 8) & 0xff];    \
        v >>= 16;                    \
        GOST_BYTE_SOURCE(v);         \
        r4 OP T[v & 0xff];           \
        r5 OP T[(v >> 8) & 0xff];    \
        v >>= 16;                    \
        GOST_BYTE_SOURCE(v);         \
        r6 OP T[v & 0xff];           \
        r7 OP T[v >> 8];             \
    } while (0)

// out = LPS(a ^ b); out may alias a or b.
GOST_INLINE void lpsx(const uint64_t* a, const uint64_t* b, uint64_t* out) {
    uint64_t r0, r1, r2, r3, r4, r5, r6, r7;
    LPS_WORD(0, =);
    LPS_WORD(1, ^=);
    LPS_WORD(2, ^=);
    LPS_WORD(3, ^=);
    LPS_WORD(4, ^=);
    LPS_WORD(5, ^=);
    LPS_WORD(6, ^=);
    LPS_WORD(7, ^=);
    out[0] = r0;
    out[1] = r1;
    out[2] = r2;
    out[3] = r3;
    out[4] = r4;
    out[5] = r5;
    out[6] = r6;
    out[7] = r7;
}

void g_plain(uint512_u* h, const uint512_u* N, const uint64_t* m) {
    uint64_t K[8], S[8];
    lpsx(h->QWORD, N->QWORD, K);
    memcpy(S, m, sizeof(S));
    // E(K, m): the state and the key schedule advance side by side.
    for (int r = 0; r < 12; ++r) {
        lpsx(S, K, S);
        lpsx(K, C.c[r].QWORD, K);
    }
    for (int i = 0; i < 8; ++i) h->QWORD[i] ^= S[i] ^ K[i] ^ m[i];
}

void compress_plain(gost2012_hash_ctx* ctx, const unsigned char* data, size_t blocks) {
    for (; blocks > 0; --blocks, data += 64) {
        uint64_t m[8];
        load_block(data, m);
        g_plain(&ctx->h, &ctx->N, m);
        add512(&ctx->N, buffer512.QWORD);
        add512(&ctx->Sigma, m);
    }
}

#if GOST2012_VECTOR
// ---- Vector path: AVX-512 VBMI byte permutes for Pi, GFNI affine products for l ----
//
// No table is indexed by data here. Values are kept transposed: logical byte c of word j sits
// at byte 8c + j of the register. In that layout the bytes that l combines into output byte r
// of every word are one broadcastable column, and the result of l comes out transposed again,
// so P costs nothing.

#define GOST_VECTOR_TARGET __attribute__((target("avx512f,avx512bw,avx512vbmi,gfni")))

// GCC 12 flags the deliberately undefined pass-through operand inside its own permute
// intrinsics once they are inlined here.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// GF2P8AFFINEQB matrix taking byte c of an input word to byte r of l's output: byte 7 - b of
// the qword selects the input bits that feed output bit b.
struct gf_matrices {
    uint64_t m[8][8];  // [c][r]
};

constexpr gf_matrices make_matrices() {
    gf_matrices g{};
    for (int c = 0; c < 8; ++c)
        for (int r = 0; r < 8; ++r) {
            uint64_t q = 0;
            for (int b = 0; b < 8; ++b)
                for (int t = 0; t < 8; ++t)
                    if (L_rows[63 - 8 * c - t] >> (8 * r + b) & 1) q |= uint64_t(1) << (8 * (7 - b) + t);
            g.m[c][r] = q;
        }
    return g;
}

struct byte_permutations {
    unsigned char transpose[64];
    unsigned char column[8][64];  // column[c]: byte c of every word, repeated in every lane
};

constexpr byte_permutations make_permutations() {
    byte_permutations p{};
    for (int j = 0; j < 8; ++j)
        for (int c = 0; c < 8; ++c) p.transpose[8 * j + c] = static_cast<unsigned char>(8 * c + j);
    for (int c = 0; c < 8; ++c)
        for (int r = 0; r < 8; ++r)
            for (int j = 0; j < 8; ++j) p.column[c][8 * r + j] = static_cast<unsigned char>(8 * j + c);
    return p;
}

// The iteration constants, already transposed.
struct transposed_constants {
    unsigned char b[12][64];
};

constexpr transposed_constants make_transposed_C() {
    transposed_constants t{};
    for (int r = 0; r < 12; ++r)
        for (int j = 0; j < 8; ++j)
            for (int c = 0; c < 8; ++c)
                t.b[r][8 * c + j] = static_cast<unsigned char>(C.c[r].QWORD[j] >> (8 * c));
    return t;
}

struct pi_table {
    unsigned char b[256];
};

constexpr pi_table make_pi() {
    pi_table t{};
    for (int i = 0; i < 256; ++i) t.b[i] = Pi[i];
    return t;
}

alignas(64) constexpr gf_matrices Matrices = make_matrices();
alignas(64) constexpr byte_permutations Perm = make_permutations();
alignas(64) constexpr pi_table PiVec = make_pi();
alignas(64) constexpr transposed_constants CT = make_transposed_C();

struct vector_constants {
    __m512i pi[4], matrix[8], column[8], transpose;
};

GOST_VECTOR_TARGET GOST_INLINE void load_constants(vector_constants& k) {
    for (int i = 0; i < 4; ++i) k.pi[i] = _mm512_load_si512(PiVec.b + 64 * i);
    for (int c = 0; c < 8; ++c) {
        k.matrix[c] = _mm512_load_si512(Matrices.m[c]);
        k.column[c] = _mm512_load_si512(Perm.column[c]);
    }
    k.transpose = _mm512_load_si512(Perm.transpose);
}

GOST_VECTOR_TARGET GOST_INLINE __m512i lps_vec(__m512i x, const vector_constants& k) {
    __m512i lo = _mm512_permutex2var_epi8(k.pi[0], x, k.pi[1]);
    __m512i hi = _mm512_permutex2var_epi8(k.pi[2], x, k.pi[3]);
    __m512i s = _mm512_mask_blend_epi8(_mm512_movepi8_mask(x), lo, hi);
#define GOST_L_TERM(c) _mm512_gf2p8affine_epi64_epi8(_mm512_permutexvar_epi8(k.column[c], s), k.matrix[c], 0)
    // A shallow xor tree: the chain of dependent rounds is what limits speed.
    __m512i a = _mm512_ternarylogic_epi64(GOST_L_TERM(0), GOST_L_TERM(1), GOST_L_TERM(2), 0x96);
    __m512i b = _mm512_ternarylogic_epi64(GOST_L_TERM(3), GOST_L_TERM(4), GOST_L_TERM(5), 0x96);
    __m512i c = _mm512_xor_si512(GOST_L_TERM(6), GOST_L_TERM(7));
#undef GOST_L_TERM
    return _mm512_ternarylogic_epi64(a, b, c, 0x96);
}

// h and m in natural layout.
GOST_VECTOR_TARGET GOST_INLINE __m512i g_vec_core(__m512i h, __m512i N, __m512i m,
                                                  const vector_constants& k) {
    __m512i K = lps_vec(_mm512_permutexvar_epi8(k.transpose, _mm512_xor_si512(h, N)), k);
    __m512i S = _mm512_permutexvar_epi8(k.transpose, m);
    for (int r = 0; r < 12; ++r) {
        __m512i c = _mm512_load_si512(CT.b[r]);
        S = lps_vec(_mm512_xor_si512(S, K), k);
        K = lps_vec(_mm512_xor_si512(K, c), k);
    }
    return _mm512_ternarylogic_epi64(h, _mm512_permutexvar_epi8(k.transpose, _mm512_xor_si512(S, K)), m,
                                     0x96);
}

GOST_VECTOR_TARGET void g_vector(uint512_u* h, const uint512_u* N, const uint64_t* m) {
    vector_constants k;
    load_constants(k);
    __m512i r =
        g_vec_core(_mm512_loadu_si512(h->QWORD), _mm512_loadu_si512(N->QWORD), _mm512_loadu_si512(m), k);
    _mm512_storeu_si512(h->QWORD, r);
}

GOST_VECTOR_TARGET void compress_vector(gost2012_hash_ctx* ctx, const unsigned char* data, size_t blocks) {
    vector_constants k;
    load_constants(k);
    __m512i h = _mm512_loadu_si512(ctx->h.QWORD);
    for (; blocks > 0; --blocks, data += 64) {
        uint64_t m[8];
        load_block(data, m);
        h = g_vec_core(h, _mm512_loadu_si512(ctx->N.QWORD), _mm512_loadu_si512(m), k);
        add512(&ctx->N, buffer512.QWORD);
        add512(&ctx->Sigma, m);
    }
    _mm512_storeu_si512(ctx->h.QWORD, h);
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

struct implementation {
    void (*g)(uint512_u*, const uint512_u*, const uint64_t*);
    void (*compress)(gost2012_hash_ctx*, const unsigned char*, size_t);
    const char* name;
};

constexpr implementation plain_code = {g_plain, compress_plain, "plain"};
#if GOST2012_VECTOR
constexpr implementation vector_code = {g_vector, compress_vector, "avx512-gfni"};
#endif

bool vector_supported() {
#if GOST2012_VECTOR
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("gfni");
#else
    return false;
#endif
}

// Picked once; only tests and benchmarks switch it, never while hashing.
const implementation*& active() {
#if GOST2012_VECTOR
    static const implementation* impl = vector_supported() ? &vector_code : &plain_code;
#else
    static const implementation* impl = &plain_code;
#endif
    return impl;
}

}  // namespace

bool gost2012_use_vector(bool enable) {
#if GOST2012_VECTOR
    active() = enable && vector_supported() ? &vector_code : &plain_code;
#else
    (void)enable;
#endif
    return active() != &plain_code;
}

const char* gost2012_implementation() { return active()->name; }

void g(uint512_u* h, const uint512_u* N, const unsigned char* m) {
    uint64_t w[8];
    load_block(m, w);
    active()->g(h, N, w);
}

void init_gost2012_hash_ctx(gost2012_hash_ctx* ctx, unsigned int digest_size) {
    memset(ctx, 0, sizeof(*ctx));
    ctx->digest_size = digest_size;
    if (digest_size == 256) memset(&ctx->h, 0x01, sizeof(ctx->h));
}

void gost2012_hash_block(gost2012_hash_ctx* ctx, const unsigned char* data, size_t len) {
    if (len == 0) return;  // data may then be null
    const implementation* impl = active();
    unsigned char* buf = reinterpret_cast<unsigned char*>(ctx->buffer.QWORD);
    if (ctx->bufsize > 0) {
        size_t take = 64 - ctx->bufsize;
        if (take > len) take = len;
        memcpy(buf + ctx->bufsize, data, take);
        ctx->bufsize += take;
        data += take;
        len -= take;
        if (ctx->bufsize < 64) return;
        impl->compress(ctx, buf, 1);
        ctx->bufsize = 0;
    }
    if (len >= 64) {
        // Whole blocks straight from the input.
        impl->compress(ctx, data, len / 64);
        data += len / 64 * 64;
        len %= 64;
    }
    if (len > 0) {
        memcpy(buf, data, len);
        ctx->bufsize = len;
    }
}

void gost2012_finish_hash(gost2012_hash_ctx* ctx, unsigned char* digest) {
    const implementation* impl = active();
    unsigned char last[64] = {0};
    memcpy(last, ctx->buffer.QWORD, ctx->bufsize);
    last[ctx->bufsize] = 0x01;
    uint64_t m[8];
    load_block(last, m);
    impl->g(&ctx->h, &ctx->N, m);
    uint64_t bits[8] = {uint64_t(ctx->bufsize) * 8, 0, 0, 0, 0, 0, 0, 0};
    add512(&ctx->N, bits);
    add512(&ctx->Sigma, m);
    impl->g(&ctx->h, &buffer0, ctx->N.QWORD);
    impl->g(&ctx->h, &buffer0, ctx->Sigma.QWORD);
    ctx->hash = ctx->h;
    ctx->bufsize = 0;
    const unsigned char* out = reinterpret_cast<const unsigned char*>(ctx->hash.QWORD);
    if (ctx->digest_size == 256)
        memcpy(digest, out + 32, 32);  // the upper half
    else
        memcpy(digest, out, 64);
}
