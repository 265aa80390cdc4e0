#pragma once
// The provider backend: a library context of our own holding OpenSSL's default provider and ours,
// "zorvo", which has the token's RSA and GOST R 34.10 keys, their signatures, the GOST R 34.11
// digests and a decoder for GOST public keys. Keys never leave the token: a key object holds the
// public half and the token's handle, and its private operations are C_SignInit/C_Sign.
#include <memory>
#include <string>
#include <vector>

#include <openssl/core.h>
#include <openssl/core_dispatch.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <p11-kit/pkcs11.h>

#include "ossl_ptr.h"
#include "sign_util.h"

namespace p11 {

class Slot;
class Session;

using x509_pubkey_ptr = std::unique_ptr<X509_PUBKEY, ossl::Deleter<X509_PUBKEY, X509_PUBKEY_free>>;

/// The provider's name and the property that selects its algorithms.
constexpr const char* kProviderName = "zorvo";
constexpr const char* kProviderQuery = "provider=zorvo";

/// Key data of the provider's keys: RSA (n, e) or GOST R 34.10 (the SubjectPublicKeyInfo), and
/// for a token key the handle of the private key object. An RSA key signs through its own slot and
/// session; a GOST key through the session that holds the signing claim, as the engine's did.
struct prov_key {
    int nid = NID_undef;  // rsaEncryption or the GOST R 34.10 algorithm
    ossl::bn_ptr n, e;
    x509_pubkey_ptr spki;
    CK_OBJECT_HANDLE handle = 0;  // 0: a public key only
    std::weak_ptr<Slot> slot;
    std::weak_ptr<Session> session;
};

/// What token_rsa_key and token_gost_key hand to the key management through an import parameter.
struct token_ref {
    CK_OBJECT_HANDLE handle;
    std::weak_ptr<Slot> slot;
    std::weak_ptr<Session> session;
};
constexpr const char* kParamToken = "zorvo-token";  // octet string: the bytes of a const token_ref*
constexpr const char* kParamSpki = "zorvo-spki";    // octet string: DER SubjectPublicKeyInfo

/// The GOST R 34.10 key of a DER SubjectPublicKeyInfo; null for anything else.
std::unique_ptr<prov_key> gost_key_from_spki(const unsigned char* der, size_t length) noexcept;
/// 64 or 128: the size of a signature of a GOST key, 0 for another key.
size_t gost_signature_size(int nid);
/// The GOST R 34.11 digest a GOST R 34.10 key signs with (its NID), NID_undef for another key.
int gost_digest_nid(int keyNid);

/// A digest by name or OID text, from the library context; null when nothing offers it.
md_ptr fetch_md(const char* name);
/// The same for an algorithm identifier's OID.
md_ptr fetch_md(const ASN1_OBJECT* algorithm);

/// The dispatch tables of the provider's algorithms.
extern const OSSL_DISPATCH rsa_keymgmt_functions[];
extern const OSSL_DISPATCH gost_keymgmt_functions[];
extern const OSSL_DISPATCH gost_spki_decoder_functions[];
extern const OSSL_DISPATCH rsa_signature_functions[];
extern const OSSL_DISPATCH gost_signature_functions[];
extern const OSSL_DISPATCH gost94_digest_functions[];
extern const OSSL_DISPATCH gost2012_256_digest_functions[];
extern const OSSL_DISPATCH gost2012_512_digest_functions[];

/// A function as a dispatch table takes it.
template <typename F>
void (*dispatch_fn(F f))() {
    return reinterpret_cast<void (*)()>(f);
}

/// The core's BIO reader, for the decoder.
extern OSSL_FUNC_BIO_read_ex_fn* core_bio_read_ex;

}  // namespace p11
