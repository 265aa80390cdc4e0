// Signing for the test provider: RSA through OpenSSL, GOST R 34.10 through libgcrypt.
#include "testprov_keys.h"

#include <gcrypt.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "testprov.h"

namespace testprov {
namespace {

using Bytes = std::vector<unsigned char>;

bool knownMechanism(CK_MECHANISM_TYPE m) {
    return m == CKM_RSA_PKCS || m == CKM_GOSTR3410 || m == TP_CKM_GOSTR3410_512;
}

// Our OpenSSL errors must not reach the caller's queue, which the library under test reads.
class ErrorMark {
public:
    ErrorMark() { ERR_set_mark(); }
    ~ErrorMark() { ERR_pop_to_mark(); }
};

class RsaKey : public SignKey {
public:
    explicit RsaKey(EVP_PKEY* key) : key_(key) {}
    ~RsaKey() override { EVP_PKEY_free(key_); }

    CK_RV accepts(CK_MECHANISM_TYPE m) const override {
        return m == CKM_RSA_PKCS   ? CKR_OK
               : knownMechanism(m) ? CKR_KEY_TYPE_INCONSISTENT
                                   : CKR_MECHANISM_INVALID;
    }
    CK_ULONG signatureLength() const override { return CK_ULONG(EVP_PKEY_get_size(key_)); }

    CK_RV sign(const unsigned char* data, CK_ULONG len, unsigned char* out) const override {
        if (len + 11 > signatureLength()) return CKR_DATA_LEN_RANGE;
        ErrorMark mark;
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key_, nullptr);
        size_t outLen = signatureLength();
        // No digest set: the bytes (a DigestInfo) are padded and signed as they are.
        bool ok = ctx && EVP_PKEY_sign_init(ctx) == 1 &&
                  EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1 &&
                  EVP_PKEY_sign(ctx, out, &outLen, data, len) == 1;
        EVP_PKEY_CTX_free(ctx);
        return ok ? CKR_OK : CKR_FUNCTION_FAILED;
    }

private:
    EVP_PKEY* key_;
};

void initGcrypt() {
    static std::once_flag once;
    std::call_once(once, [] {
        gcry_check_version(nullptr);
        if (!gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P)) {
            gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
            gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
        }
    });
}

struct Sexp {
    gcry_sexp_t p = nullptr;
    ~Sexp() { gcry_sexp_release(p); }
};

// libgcrypt 1.10 knows tc26 256 A under its own name only.
std::string gcryCurve(const std::string& curve) {
    return curve == "1.2.643.7.1.2.1.1.1" ? "GOST2012-256-A" : curve;
}

// Coordinate size in bytes of a curve libgcrypt knows, else 0.
size_t curveSize(const std::string& curve) {
    initGcrypt();
    Sexp s;
    unsigned nbits = 0;
    if (gcry_sexp_build(&s.p, nullptr, "(public-key (ecc (curve %s)))", curve.c_str()) != 0) return 0;
    return gcry_pk_get_curve(s.p, 0, &nbits) ? nbits / 8 : 0;
}

Bytes reversed(const unsigned char* p, size_t n) {
    return Bytes(std::reverse_iterator<const unsigned char*>(p + n),
                 std::reverse_iterator<const unsigned char*>(p));
}

// Writes the unsigned value of element `name` of `s`, big-endian, right-aligned in `size` bytes.
bool mpiBytes(gcry_sexp_t s, const char* name, unsigned char* out, size_t size) {
    Sexp token;
    token.p = gcry_sexp_find_token(s, name, 0);
    gcry_mpi_t m = token.p ? gcry_sexp_nth_mpi(token.p, 1, GCRYMPI_FMT_USG) : nullptr;
    size_t n = 0;
    bool ok = m && (gcry_mpi_get_nbits(m) + 7) / 8 <= size &&
              gcry_mpi_print(GCRYMPI_FMT_USG, out, size, &n, m) == 0;
    if (ok) {
        std::copy_backward(out, out + n, out + size);
        std::fill(out, out + size - n, 0);
    }
    gcry_mpi_release(m);
    return ok;
}

class GostKey : public SignKey {
public:
    GostKey(std::string curve, Bytes d, size_t size)
        : curve_(std::move(curve)), d_(std::move(d)), size_(size) {}

    CK_RV accepts(CK_MECHANISM_TYPE m) const override {
        CK_MECHANISM_TYPE mine = size_ == 64 ? TP_CKM_GOSTR3410_512 : CKM_GOSTR3410;
        return m == mine ? CKR_OK : knownMechanism(m) ? CKR_KEY_TYPE_INCONSISTENT : CKR_MECHANISM_INVALID;
    }
    CK_ULONG signatureLength() const override { return 2 * size_; }

    CK_RV sign(const unsigned char* data, CK_ULONG len, unsigned char* out) const override {
        if (len != size_) return CKR_DATA_LEN_RANGE;
        // The token reads the digest as a little-endian number.
        Bytes e = reversed(data, len);
        Sexp key, input, sig;
        bool ok = gcry_sexp_build(&key.p, nullptr, "(private-key (ecc (curve %s) (d %b)))", curve_.c_str(),
                                  int(d_.size()), d_.data()) == 0 &&
                  gcry_sexp_build(&input.p, nullptr, "(data (flags gost) (value %b))", int(e.size()),
                                  e.data()) == 0 &&
                  gcry_pk_sign(&sig.p, input.p, key.p) == 0 && mpiBytes(sig.p, "s", out, size_) &&
                  mpiBytes(sig.p, "r", out + size_, size_);
        return ok ? CKR_OK : CKR_FUNCTION_FAILED;
    }

private:
    std::string curve_;
    Bytes d_;
    size_t size_;
};

}  // namespace

std::shared_ptr<SignKey> rsaKey(const void* key, size_t len) {
    if (!key || len == 0 || len > INT32_MAX) return nullptr;
    ErrorMark mark;
    BIO* bio = BIO_new_mem_buf(key, int(len));
    EVP_PKEY* pkey = bio ? PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr) : nullptr;
    BIO_free(bio);
    if (!pkey) {
        auto* p = static_cast<const unsigned char*>(key);
        pkey = d2i_AutoPrivateKey(nullptr, &p, long(len));
    }
    if (pkey && EVP_PKEY_get_base_id(pkey) == EVP_PKEY_RSA) return std::make_shared<RsaKey>(pkey);
    EVP_PKEY_free(pkey);
    return nullptr;
}

std::shared_ptr<SignKey> gostKey(const char* curve, const void* d, size_t len) {
    if (!curve || !d) return nullptr;
    std::string name = gcryCurve(curve);
    size_t size = curveSize(name);
    if (size == 0 || len == 0 || len > size) return nullptr;
    auto* p = static_cast<const unsigned char*>(d);
    return std::make_shared<GostKey>(name, Bytes(p, p + len), size);
}

}  // namespace testprov

using testprov::Bytes;

TP_EXPORT int tp_gost_generate(const char* curve, unsigned char* d, unsigned char* pub) {
    if (!curve || !d || !pub) return -1;
    std::string name = testprov::gcryCurve(curve);
    size_t size = testprov::curveSize(name);
    testprov::Sexp params, key, q;
    if (size == 0 || gcry_sexp_build(&params.p, nullptr, "(genkey (ecc (curve %s)))", name.c_str()) != 0 ||
        gcry_pk_genkey(&key.p, params.p) != 0 || !testprov::mpiBytes(key.p, "d", d, size))
        return -1;
    q.p = gcry_sexp_find_token(key.p, "q", 0);
    size_t n = 0;
    const char* point = q.p ? gcry_sexp_nth_data(q.p, 1, &n) : nullptr;
    if (!point || n != 2 * size + 1 || point[0] != 0x04) return -1;
    // Uncompressed point 04 || X || Y, big-endian; tokens store each coordinate little-endian.
    auto* xy = reinterpret_cast<const unsigned char*>(point) + 1;
    Bytes x = testprov::reversed(xy, size), y = testprov::reversed(xy + size, size);
    std::copy(x.begin(), x.end(), pub);
    std::copy(y.begin(), y.end(), pub + size);
    return int(size);
}

TP_EXPORT int tp_gost_verify(const char* curve, const unsigned char* pub, size_t pub_len,
                             const unsigned char* digest, size_t digest_len, const unsigned char* sig,
                             size_t sig_len) {
    if (!curve || !pub || !digest || !sig) return 0;
    std::string name = testprov::gcryCurve(curve);
    size_t size = testprov::curveSize(name);
    if (size == 0 || pub_len != 2 * size || digest_len != size || sig_len != 2 * size) return 0;
    Bytes q{0x04};
    Bytes x = testprov::reversed(pub, size), y = testprov::reversed(pub + size, size);
    q.insert(q.end(), x.begin(), x.end());
    q.insert(q.end(), y.begin(), y.end());
    Bytes e = testprov::reversed(digest, size);
    testprov::Sexp key, input, signature;
    return gcry_sexp_build(&key.p, nullptr, "(public-key (ecc (curve %s) (q %b)))", name.c_str(),
                           int(q.size()), q.data()) == 0 &&
           gcry_sexp_build(&input.p, nullptr, "(data (flags gost) (value %b))", int(e.size()), e.data()) ==
               0 &&
           gcry_sexp_build(&signature.p, nullptr, "(sig-val (gost (r %b) (s %b)))", int(size), sig + size,
                           int(size), sig) == 0 &&
           gcry_pk_verify(signature.p, input.p, key.p) == 0;
}
