#pragma once
// One RSA key and certificate per test process, put on test-provider tokens.
#include <string>

#include "ossl_ptr.h"
#include "test_certs.h"
#include "test_openssl.h"
#include "testprov.h"

namespace reliability {

struct RsaIdentity {
    p11::ossl::evp_pkey_ptr key;
    p11::ossl::x509_ptr cert;
    tp::Bytes certDer;
    std::string certPem;
    tp::Bytes keyPem;
};

// Made once: key generation is the slow part of every set-up.
inline const RsaIdentity& rsaIdentity() {
    static const RsaIdentity id = [] {
        RsaIdentity i;
        i.key.reset(EVP_RSA_gen(2048));
        testcert::Options o;
        o.subject = {{"CN", V_ASN1_UTF8STRING, "Reliability signer"}};
        o.key = i.key.get();
        i.cert = testcert::make(o);
        i.certDer = testcert::der(i.cert.get());
        i.certPem = testssl::cert_pem(i.cert.get());
        i.keyPem = tp::bytes(testssl::key_pem(i.key.get()));
        return i;
    }();
    return id;
}

// The certificate under `label` and its signing key, both with the identifier `id`.
// Returns the key's handle.
inline CK_OBJECT_HANDLE installRsa(tp::Token& token, const tp::Bytes& id,
                                   const std::string& label = "signer") {
    token.certificate(rsaIdentity().certDer, label, id);
    return token.rsa_key(id, rsaIdentity().keyPem);
}

}  // namespace reliability
