#pragma once
// The GOST R 34.11 digests as OpenSSL EVP_MD objects, on either backend.
#include <openssl/evp.h>

// Built or fetched on first use and cached for the life of the process; null if OpenSSL refused
// one, in which case the next call tries again.
extern "C" {
/// GOST R 34.11-94 with the CryptoPro S-boxes (NID 809).
const EVP_MD* digest_gost2001();
/// GOST R 34.11-2012, 256-bit (NID 982) and 512-bit (NID 983) results.
const EVP_MD* digest_gost2012_256();
const EVP_MD* digest_gost2012_512();
/// Free the 2012 digests and clear their caches. Nothing in the library calls them: the
/// objects stay registered with OpenSSL for the life of the process.
void digest_gost2012_256_destroy();
void digest_gost2012_512_destroy();
}
