#pragma once
// GOST 28147-89 block cipher: ECB, CFB, MAC and CryptoPro key meshing.
// The functions keep a C interface and are exported; inside the library only the 34.11-94
// hash uses this unit, for its S-box tables (it runs its own four-way encryption).
#include <stddef.h>
#include <stdint.h>

#include "zorvo_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned char byte;

/// Eight 4-bit S-boxes. k1 substitutes the lowest nibble of the round word, k8 the highest.
typedef struct {
    byte k1[16];
    byte k2[16];
    byte k3[16];
    byte k4[16];
    byte k5[16];
    byte k6[16];
    byte k7[16];
    byte k8[16];
} gost_subst_block;

/// Cipher state: the key, then the S-boxes expanded into four byte-indexed tables. Table i
/// substitutes byte i of the round word (S-boxes 2i+1 and 2i+2) and already carries the 11-bit
/// rotation, so a round is four look-ups xored together.
typedef struct {
    uint32_t key[8];
    uint32_t sbox[4][256];
} gost_ctx;

/// S-box parameter sets of RFC 4357 (and the test set of GOST R 34.11-94).
extern const gost_subst_block GostR3411_94_TestParamSet;
extern const gost_subst_block GostR3411_94_CryptoProParamSet;
extern const gost_subst_block Gost28147_TestParamSet;
extern const gost_subst_block Gost28147_CryptoProParamSetA;
extern const gost_subst_block Gost28147_CryptoProParamSetB;
extern const gost_subst_block Gost28147_CryptoProParamSetC;
extern const gost_subst_block Gost28147_CryptoProParamSetD;
/// The 32-byte constant that CryptoPro key meshing decrypts to derive the next key.
extern const byte CryptoProKeyMeshingKey[32];

/// Expands the S-boxes into the round tables. The key is left as it was.
ZORVO_API void gost_init(gost_ctx* c, const gost_subst_block* b);
/// Loads a 256-bit key (eight little-endian 32-bit words).
ZORVO_API void gost_key(gost_ctx* c, const byte* k);
/// Writes the loaded key back in the byte order gost_key takes.
ZORVO_API void gost_get_key(const gost_ctx* c, byte* k);
/// Wipes the key and the tables.
ZORVO_API void gost_destroy(gost_ctx* c);

/// One 64-bit block, 32 rounds.
ZORVO_API void gostcrypt(const gost_ctx* c, const byte* in, byte* out);
ZORVO_API void gostdecrypt(const gost_ctx* c, const byte* in, byte* out);
/// gost_key followed by gostcrypt.
ZORVO_API void gost_enc_with_key(gost_ctx* c, const byte* key, const byte* in, byte* out);

/// ECB over `blocks` 8-byte blocks; input and output may be the same buffer.
ZORVO_API void gost_enc(const gost_ctx* c, const byte* clear, byte* cipher, int blocks);
ZORVO_API void gost_dec(const gost_ctx* c, const byte* cipher, byte* clear, int blocks);
/// 64-bit cipher feedback from an 8-byte IV, without key meshing; in-place allowed.
ZORVO_API void gost_enc_cfb(const gost_ctx* c, const byte* iv, const byte* clear, byte* cipher, int blocks);
ZORVO_API void gost_dec_cfb(const gost_ctx* c, const byte* iv, const byte* cipher, byte* clear, int blocks);

/// One MAC step: buffer = E16(buffer ^ block), the 16-round reduced cipher of the MAC mode.
ZORVO_API void mac_block(const gost_ctx* c, byte* buffer, const byte* block);
/// Copies the first `nbits` bits of the 8-byte MAC state to `out` (a trailing partial byte
/// keeps its low bits).
ZORVO_API void get_mac(const byte* buffer, int nbits, byte* out);
/// MAC of `data` with a zero start value; `mac_len` in bits (1 to 64). The last block is
/// zero-padded, and a one-block message gets a zero block appended, since the mode needs two.
/// Returns 1, or 0 for a bad length.
ZORVO_API int gost_mac(const gost_ctx* ctx, int mac_len, const byte* data, size_t data_len, byte* mac);
/// As gost_mac, starting from an 8-byte IV instead of zero.
ZORVO_API int gost_mac_iv(const gost_ctx* ctx, int mac_len, const byte* iv, const byte* data, size_t data_len,
                          byte* mac);
/// CryptoPro key meshing (RFC 4357): the key becomes the decryption of CryptoProKeyMeshingKey
/// under the current key, and the 8-byte `iv` is encrypted under the new key.
ZORVO_API void cryptopro_key_meshing(gost_ctx* ctx, byte* iv);

#ifdef __cplusplus
}
#endif
