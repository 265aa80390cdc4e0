#pragma once
// GOST R 34.10-2001 and 34.10-2012 signature verification, on the curves a certificate can name.
#include <cstddef>
#include <string>

#include <openssl/types.h>

namespace p11 {

/// A curve in short Weierstrass form (twisted Edwards curves in their Weierstrass form): the
/// numbers in hexadecimal, the size of a coordinate in bytes.
struct gost_curve {
    const char* p;
    const char* a;
    const char* b;
    const char* q;  // the order of the base point
    const char* x;
    const char* y;
    size_t size;  // 32 or 64
};

/// The curve of a parameter set, by its OID in dotted form (CryptoPro A, B, C, XchA, XchB; TC26
/// 256-A..D and 512-A..C); null for any other.
const gost_curve* gost_curve_by_oid(const std::string& oid);

/// Whether `signature` (s || r, each big-endian, 2 * size bytes) signs `digest` (read as a
/// little-endian number, as tokens and the gost engine do) under the public key `point` (x || y,
/// each little-endian, as certificates and tokens store it).
bool gost_verify(const gost_curve& curve, const unsigned char* point, size_t pointLength,
                 const unsigned char* digest, size_t digestLength, const unsigned char* signature,
                 size_t signatureLength);

/// The same with a certificate's public key: the curve of its parameter set, its point. False for
/// a key of another kind or a parameter set not known here.
bool gost_verify(const X509_PUBKEY* key, const unsigned char* digest, size_t digestLength,
                 const unsigned char* signature, size_t signatureLength);

}  // namespace p11
