#pragma once
// Independent checks through the openssl command in a separate process (the gost engine is
// never loaded into a test process), and in-process reads of a CMS structure.
#include <string>
#include <vector>

#include <openssl/pem.h>  // before cms.h, which declares its PEM functions only then
#include <openssl/cms.h>

#include "ossl_ptr.h"

namespace testssl {

/// A file in a fresh scratch directory that lives as long as the process.
std::string write_temp(const std::string& name, const std::string& content);
std::string read_file(const std::string& path);

struct Verified {
    bool ok = false;
    std::string content;  // what openssl extracted (attached) or checked (detached)
    std::string log;      // openssl's messages when it failed
};

/// `openssl cms -verify` of a PEM signature; `trusted` is the PEM of the signer's certificate
/// or its issuer. `detached` non-null: the content for a detached signature.
Verified cms_verify(const std::string& pem, const std::string& trusted, const std::string* detached,
                    bool gost = false);

/// Runs a shell command; its exit status, standard output in `out`.
int run(const std::string& command, std::string* out = nullptr);

/// The CMS structure of one PEM block; null when it does not parse.
using cms_ptr = p11::ossl::cms_ptr;
cms_ptr parse_pem(const std::string& pem);

/// The PEM of a certificate, and of a private key (PKCS#8).
std::string cert_pem(X509* cert);
std::string key_pem(EVP_PKEY* key);

}  // namespace testssl
