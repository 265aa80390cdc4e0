#pragma once
// GOST R 34.11-94 hash over the GOST 28147-89 cipher.
#include <stddef.h>
#include <stdint.h>

#include "gost/gost89.h"

/// Hash state. The cipher state it points to supplies the S-box tables; the OpenSSL digest
/// embeds one right after this structure, init_gost_hash_ctx allocates one of its own.
typedef struct gost_hash_ctx {
    int64_t len;           ///< bytes hashed in whole 32-byte blocks
    gost_ctx* cipher_ctx;  ///< S-box tables for the step function
    int left;              ///< bytes waiting in remainder (0 to 31)
    byte H[32];            ///< chaining value
    byte S[32];            ///< control sum: all blocks added as little-endian 256-bit numbers
    byte remainder[32];    ///< buffered tail of the input
} gost_hash_ctx;

/// Zeroes the state and gives it a freshly allocated cipher state with the given S-boxes.
/// Returns 0 if the allocation fails, else 1.
int init_gost_hash_ctx(gost_hash_ctx* ctx, const gost_subst_block* subst_block);
/// Wipes and frees the cipher state allocated by init_gost_hash_ctx.
void done_gost_hash_ctx(gost_hash_ctx* ctx);
/// Starts a new message. Returns 0 if the state has no cipher state, else 1.
int start_hash(gost_hash_ctx* ctx);
/// Absorbs `length` bytes. Returns 1.
int hash_block(gost_hash_ctx* ctx, const byte* block, size_t length);
/// Writes the 32-byte hash of what was absorbed so far; the state is left unchanged, so more
/// data may follow. Returns 1.
int finish_hash(gost_hash_ctx* ctx, byte* hashval);
/// The compression function: H = f(H, M) for one 32-byte block. Only the S-box tables of `c`
/// are used; its key is not touched.
void hash_step(const gost_ctx* c, byte* H, const byte* M);
