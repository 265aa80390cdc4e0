#pragma once
// Signed CMS messages written and checked by the library itself. OpenSSL's CMS code finds the
// digest of a signature by NID, and a digest that only a provider has has none: with the provider,
// SignedData is encoded here, in the shape OpenSSL gives it, for RSA and GOST keys alike, and a
// signature whose digest OpenSSL does not know is verified here.
#include <memory>
#include <string>
#include <vector>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/x509.h>

#include "p11_prov.h"

namespace p11 {

/// One message signed with one token key: contentType, signingTime, messageDigest and
/// smimeCapabilities as signed attributes, plus any added; the certificate in the message.
class signed_data {
public:
    /// Throws process_error 300 "error while signer adding" (logged) when the key has no digest here.
    signed_data(EVP_PKEY* key, X509* cert, bool attached);
    signed_data(const signed_data&) = delete;
    signed_data& operator=(const signed_data&) = delete;

    /// Another signed attribute: its type and the DER of its one value.
    void add_attribute(int nid, der_buffer value);
    /// Attached, the DER goes to `out` while the data comes in; the first data starts it.
    void stream_to(BIO* out) { out_ = out; }
    /// Digests `length` bytes, and keeps or sends them (attached). False when `out` refused them.
    bool update(const void* data, size_t length);
    /// Signs. False (the reason on OpenSSL's error queue) when the token or `out` failed; else the
    /// whole DER, or, once streaming has started, an empty string and the rest sent to `out`.
    bool finish(std::string& der);
    /// Whether the signature finish() made verifies with the certificate's public key.
    bool verifies() const;

private:
    EVP_PKEY* key_;
    X509* cert_;
    bool attached_;
    der_buffer digestAlgorithm_;  // its AlgorithmIdentifier
    md_ptr md_;
    md_ctx_ptr hashing_;
    std::string content_;  // attached and not streamed
    BIO* out_ = nullptr;
    bool started_ = false;
    std::vector<der_buffer> attributes_;
    der_buffer signedAttributes_, signature_;
    bool send(const der_buffer& bytes);
};

/// A BIO that feeds what is written to it to `message` (and owns it), sending the DER on to `out`
/// (null: kept for finish()), which it owns as the next BIO of its chain.
BIO* signed_data_bio(std::unique_ptr<signed_data> message, BIO* out);
/// The message of such a BIO; null for any other.
signed_data* signed_data_of(BIO* bio);

/// Whether the signer's signature over its signed attributes verifies with `key`: the check of
/// CMS_SignerInfo_verify, whatever context the message was parsed in.
bool attributes_verify(CMS_SignerInfo* si, EVP_PKEY* key);

/// CMS_verify for a signature whose digest OpenSSL's CMS code cannot use (see cms_verify).
int verify_signed_data(CMS_ContentInfo* cms, STACK_OF(X509) * certs, X509_STORE* store, BIO* detached,
                       BIO* out, unsigned int flags);

}  // namespace p11
