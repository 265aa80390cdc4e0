#pragma once
// One owning pointer type per OpenSSL object, each with its own free function.
#include <memory>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

namespace p11 {
namespace ossl {

template <typename T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const noexcept { Free(p); }
};

inline void bio_free(BIO* b) { BIO_free_all(b); }

using bio_ptr = std::unique_ptr<BIO, Deleter<BIO, bio_free>>;
using bn_ptr = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;
using cms_ptr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo, CMS_ContentInfo_free>>;
using evp_pkey_ptr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using x509_ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;

}  // namespace ossl
}  // namespace p11
