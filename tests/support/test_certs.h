#pragma once
// Certificates built in memory for tests, with name entries of chosen ASN.1 string types.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "ossl_ptr.h"

namespace testcert {

/// One name entry: `field` is a short name ("CN", "OU") or a dotted number ("1.2.3.4.5");
/// `value` holds the raw bytes, stored under `type` (V_ASN1_UTF8STRING, V_ASN1_BMPSTRING...).
struct Entry {
    std::string field;
    int type;
    std::string value;
};

struct Options {
    std::vector<Entry> subject{{"CN", V_ASN1_UTF8STRING, "Test certificate"}};
    /// Empty: the subject is copied (self-issued).
    std::vector<Entry> issuer;
    int64_t serial = 1;
    /// KeyUsage in OpenSSL's config form, e.g. "critical,digitalSignature,nonRepudiation";
    /// empty: no extension.
    std::string keyUsage;
    /// Validity in the form "YYYYMMDDHHMMSSZ".
    std::string notBefore = "20200101000000Z";
    std::string notAfter = "20300101000000Z";
    /// Key certified and used to sign; null: a fresh P-256 key.
    EVP_PKEY* key = nullptr;
};

using name_ptr = std::unique_ptr<X509_NAME, p11::ossl::Deleter<X509_NAME, X509_NAME_free>>;

/// A distinguished name holding the entries in order; no encoding checks on the values.
name_ptr makeName(const std::vector<Entry>& entries);
/// A signed certificate as the options describe; throws std::runtime_error on failure.
p11::ossl::x509_ptr make(const Options& options = Options());
/// The DER encoding of a certificate.
std::vector<unsigned char> der(const X509* cert);
/// make() then der().
std::vector<unsigned char> makeDer(const Options& options = Options());
/// A fresh P-256 key pair.
p11::ossl::evp_pkey_ptr newKey();

}  // namespace testcert
