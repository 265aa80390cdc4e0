#pragma once
// GOST R 34.11-2012 hash (256 and 512 bits).
#include <stddef.h>
#include <stdint.h>

/// A 512-bit value: eight 64-bit words, word 0 the least significant (bytes 0..7 in memory).
typedef struct {
    uint64_t QWORD[8];
} uint512_u;

/// Hash state; OpenSSL keeps it as the 2012 digests' per-context data.
typedef struct gost2012_hash_ctx {
    uint512_u buffer;          ///< pending input
    uint512_u hash;            ///< final chaining value, set by gost2012_finish_hash
    uint512_u h;               ///< chaining value
    uint512_u N;               ///< bits processed
    uint512_u Sigma;           ///< sum of the message blocks modulo 2^512
    size_t bufsize;            ///< bytes in buffer
    unsigned int digest_size;  ///< 256 or 512
} gost2012_hash_ctx;

static_assert(sizeof(gost2012_hash_ctx) == 336, "the digest's context data size is fixed");

/// Starts a hash of `digest_size` bits (256 or 512).
void init_gost2012_hash_ctx(gost2012_hash_ctx* ctx, unsigned int digest_size);
/// Absorbs `len` bytes.
void gost2012_hash_block(gost2012_hash_ctx* ctx, const unsigned char* data, size_t len);
/// Writes digest_size / 8 bytes. The state is consumed: start again before reuse.
void gost2012_finish_hash(gost2012_hash_ctx* ctx, unsigned char* digest);
/// The compression function: h = g_N(h, m) for one 64-byte block `m`.
void g(uint512_u* h, const uint512_u* N, const unsigned char* m);

/// Chooses the compression code: the AVX-512 (VBMI, GFNI) path when `enable` is true and the
/// processor has it, else the plain table path. The vector path is picked by default where
/// available; this switch is for tests and benchmarks. Returns whether the vector path is on.
bool gost2012_use_vector(bool enable);
/// "avx512-gfni" or "plain": the code now in use.
const char* gost2012_implementation();
