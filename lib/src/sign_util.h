#pragma once
// Steps shared by the one-shot and the streaming signer.
#include <string>

#include <openssl/cms.h>
#include <openssl/x509.h>

#include "ossl_ptr.h"

namespace p11 {

struct log_site;

/// Takes the oldest OpenSSL error (even when ERROR is off), logs `message` followed by its
/// text at ERROR, and returns the code.
unsigned long log_openssl_error(const char* message, const log_site& site);
/// log_openssl_error, then process_error(300, message).
[[noreturn]] void fail_openssl(const char* message, const log_site& site);

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
