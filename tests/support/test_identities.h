#pragma once
// Signing identities for the test provider: an RSA key made here, and the GOST R 34.10
// identities that OpenSSL's gost engine made (tests/data/gost), each put on a token.
#include <string>
#include <vector>

#include "ossl_ptr.h"
#include "testprov.h"

namespace testid {

struct Identity {
    std::string name;        // "rsa", "gost2001", "gost2012_256", "gost2012_512"
    std::string certPem;     // the certificate as PEM
    std::vector<unsigned char> certDer;
    CK_KEY_TYPE keyType;     // the token's key type
    std::string curve;       // GOST parameter-set OID; empty for RSA
    std::vector<unsigned char> secret;  // RSA: PKCS#8 PEM; GOST: scalar big-endian
    bool gost() const { return !curve.empty(); }
};

/// A 2048-bit RSA identity, made once per process.
const Identity& rsa();
/// "gost2001", "gost2012_256" or "gost2012_512".
const Identity& gost(const std::string& name);
/// The three GOST identities.
std::vector<const Identity*> gosts();

/// Puts the certificate and its private key on the token under the identifier `id`.
void install(tp::Token& token, const Identity& identity, const tp::Bytes& id, const std::string& label = "signer");

}  // namespace testid
