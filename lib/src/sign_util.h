#pragma once
// Steps shared by the one-shot and the streaming signer.
#include <string>
#include <vector>

#include <openssl/cms.h>
#include <openssl/x509.h>

#include "ossl_ptr.h"

namespace p11 {

struct log_site;

using md_ptr = std::unique_ptr<EVP_MD, ossl::Deleter<EVP_MD, EVP_MD_free>>;
using md_ctx_ptr = std::unique_ptr<EVP_MD_CTX, ossl::Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;

/// The digest of `nid` as the library has it: OpenSSL's, or the library's GOST R 34.11 ones (its
/// engine's, or its provider's, looked up by name); null when there is none.
md_ptr digest_by_nid(int nid);

/// Takes the oldest OpenSSL error (even when ERROR is off), logs `message` followed by its
/// text at ERROR, and returns the code.
unsigned long log_openssl_error(const char* message, const log_site& site);
/// log_openssl_error, then process_error(300, message).
[[noreturn]] void fail_openssl(const char* message, const log_site& site);

/// A certificate from its DER, parsed in the library's OpenSSL context (see openssl_libctx); null
/// when it is no certificate.
X509* x509_from_der(const unsigned char* der, long length);

using der_buffer = std::vector<unsigned char>;

/// Appends a DER tag byte and the definite length of `length` content bytes.
void put_header(der_buffer& out, unsigned char tag, size_t length);
/// `content` under one DER tag (0x30 a SEQUENCE, 0x31 a SET, 0xA0 [0] constructed...).
der_buffer tlv(unsigned char tag, const der_buffer& content);
/// A DER SEQUENCE around `content`.
inline der_buffer sequence_of(const der_buffer& content) { return tlv(0x30, content); }
/// Appends the DER of `object`.
template <typename T>
void append_der(der_buffer& out, const T* object, int (*encode)(const T*, unsigned char**)) {
    const int length = encode(object, nullptr);
    if (length <= 0) return;
    const size_t at = out.size();
    out.resize(at + static_cast<size_t>(length));
    unsigned char* p = out.data() + at;
    encode(object, &p);
}
/// The DER of `object`; empty when it has none.
template <typename T>
der_buffer der_of(const T* object, int (*encode)(const T*, unsigned char**)) {
    der_buffer out;
    append_der(out, object, encode);
    return out;
}
/// DigestInfo { AlgorithmIdentifier (the digest's OID, NULL), OCTET STRING digest }, what a token
/// signs with RSA PKCS#1 v1.5; empty for a digest without an OID or longer than 64 bytes.
der_buffer digest_info(int digestNid, const unsigned char* digest, size_t length);
/// The key's algorithm as a NID, for a provider's keys too (whose EVP_PKEY_get_id says nothing).
int key_nid(const EVP_PKEY* key);
/// The ESS IssuerSerial of a certificate: its issuer as the one directoryName, its serial number.
der_buffer issuer_serial(X509* cert);
/// The NID of the signing-certificate-v2 attribute (ESS_OBJ_SN), made known to OpenSSL if need be.
int signing_certificate_nid();

/// DER as one PEM block of type "CMS".
std::string pem_of_der(const std::string& der);

/// The CMS structure as one PEM block; throws process_error(300) on failure.
std::string write_pem(CMS_ContentInfo* cms);

/// The certificate to hand to CMS. A GOST key is decoded while the certificate is parsed,
/// and only if the engine was registered by then; a certificate parsed earlier is parsed
/// again so that CMS can compare its key with the token's.
class signer_certificate {
public:
    explicit signer_certificate(X509* cert);
    X509* get() const { return fresh_ ? fresh_.get() : cert_; }

private:
    X509* cert_;
    ossl::x509_ptr fresh_;
};

}  // namespace p11
