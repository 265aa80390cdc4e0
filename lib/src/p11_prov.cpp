// The library context and the provider's entry point; keys for the token's private key objects.
#include "p11_prov.h"

#include <atomic>
#include <cstring>
#include <mutex>

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>
#include <openssl/params.h>
#include <openssl/provider.h>

#include "log.h"
#include "p11_ossl.h"
#include "p11_ossl_eng.h"

namespace p11 {

OSSL_FUNC_BIO_read_ex_fn* core_bio_read_ex = nullptr;

namespace {

// GOST keys exist only once the host asked for them, as with the engine.
std::atomic<bool> gost_registered{false};

// Each key type by its short name, long name and OID, as OpenSSL's objects know it: certificates
// name the type by OID, OpenSSL's CMS and X.509 code by short name.
constexpr char kRsa[] = "RSA:rsaEncryption:1.2.840.113549.1.1.1";
constexpr char kGost2001[] = "gost2001:GOST R 34.10-2001:1.2.643.2.2.19";
constexpr char kGost2012_256[] = "gost2012_256:GOST R 34.10-2012 with 256 bit modulus:1.2.643.7.1.1.1.1";
constexpr char kGost2012_512[] = "gost2012_512:GOST R 34.10-2012 with 512 bit modulus:1.2.643.7.1.1.1.2";

#define ZORVO_ALGORITHM(names, functions, description) \
    { names, "provider=zorvo", functions, description }
// A key type's management and its signature go by the same names: OpenSSL finds one by the other.
#define ZORVO_KEY_TYPES(rsa, gost)                                                                           \
    {                                                                                                        \
        ZORVO_ALGORITHM(kRsa, rsa, "RSA on a token"), ZORVO_ALGORITHM(kGost2001, gost, "GOST R 34.10-2001"), \
            ZORVO_ALGORITHM(kGost2012_256, gost, "GOST R 34.10-2012 256"),                                   \
            ZORVO_ALGORITHM(kGost2012_512, gost, "GOST R 34.10-2012 512"), {                                 \
            nullptr, nullptr, nullptr, nullptr                                                               \
        }                                                                                                    \
    }
const OSSL_ALGORITHM kKeymgmt[] = ZORVO_KEY_TYPES(rsa_keymgmt_functions, gost_keymgmt_functions);
const OSSL_ALGORITHM kSignature[] = ZORVO_KEY_TYPES(rsa_signature_functions, gost_signature_functions);
const OSSL_ALGORITHM kDigest[] = {
    ZORVO_ALGORITHM("md_gost94:GOST R 34.11-94:1.2.643.2.2.9", gost94_digest_functions, "GOST R 34.11-94"),
    ZORVO_ALGORITHM("md_gost12_256:GOST R 34.11-2012 with 256 bit hash:1.2.643.7.1.1.2.2",
                    gost2012_256_digest_functions, "GOST R 34.11-2012 256"),
    ZORVO_ALGORITHM("md_gost12_512:GOST R 34.11-2012 with 512 bit hash:1.2.643.7.1.1.2.3",
                    gost2012_512_digest_functions, "GOST R 34.11-2012 512"),
    {nullptr, nullptr, nullptr, nullptr}};
#define ZORVO_DECODER(names) \
    { names, "provider=zorvo,input=der,structure=SubjectPublicKeyInfo", gost_spki_decoder_functions, nullptr }
const OSSL_ALGORITHM kDecoder[] = {ZORVO_DECODER(kGost2001),
                                   ZORVO_DECODER(kGost2012_256),
                                   ZORVO_DECODER(kGost2012_512),
                                   {nullptr, nullptr, nullptr, nullptr}};

const OSSL_ALGORITHM* query_operation(void*, int operation, int* no_cache) {
    *no_cache = 0;
    switch (operation) {
        case OSSL_OP_KEYMGMT:
            return kKeymgmt;
        case OSSL_OP_SIGNATURE:
            return kSignature;
        case OSSL_OP_DIGEST:
            return kDigest;
        case OSSL_OP_DECODER:
            return kDecoder;
        default:
            return nullptr;
    }
}

const OSSL_DISPATCH kProviderFunctions[] = {
    {OSSL_FUNC_PROVIDER_QUERY_OPERATION, dispatch_fn(query_operation)}, {0, nullptr}};

int provider_init(const OSSL_CORE_HANDLE*, const OSSL_DISPATCH* in, const OSSL_DISPATCH** out,
                  void** provctx) {
    for (; in->function_id != 0; ++in)
        if (in->function_id == OSSL_FUNC_BIO_READ_EX)
            core_bio_read_ex = reinterpret_cast<OSSL_FUNC_BIO_read_ex_fn*>(in->function);
    *out = kProviderFunctions;
    *provctx = nullptr;  // the library context is reached through openssl_libctx()
    return 1;
}

// The provider's key from parameters: the public half and the token reference.
EVP_PKEY* token_key(const char* type, OSSL_PARAM* params) {
    std::unique_ptr<EVP_PKEY_CTX, ossl::Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>> ctx(
        EVP_PKEY_CTX_new_from_name(openssl_libctx(), type, kProviderQuery));
    EVP_PKEY* key = nullptr;
    if (!ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_KEYPAIR, params) != 1)
        return nullptr;
    return key;
}

}  // namespace

OSSL_LIB_CTX* openssl_libctx() {
    static OSSL_LIB_CTX* const context = [] {
        OSSL_LIB_CTX* c = OSSL_LIB_CTX_new();
        // Ours are asked for by name; everything else is the default provider's.
        if (c == nullptr || OSSL_PROVIDER_add_builtin(c, kProviderName, provider_init) != 1 ||
            OSSL_PROVIDER_load(c, "default") == nullptr || OSSL_PROVIDER_load(c, kProviderName) == nullptr ||
            EVP_set_default_properties(c, "?provider=default") != 1) {
            P11_ERROR("failed to prepare the OpenSSL library context");
        }
        // OpenSSL adds a provider's algorithms to a context when something first fetches them. Had
        // the first fetch asked our provider alone, ours would be all there is for a name both
        // providers have, and the preference for the default one would find nothing to prefer.
        EVP_KEYMGMT_free(EVP_KEYMGMT_fetch(c, "RSA", nullptr));
        EVP_SIGNATURE_free(EVP_SIGNATURE_fetch(c, "RSA", nullptr));
        EVP_MD_free(EVP_MD_fetch(c, "SHA256", nullptr));
        return c;
    }();
    return context;
}

void reg_pkcs11_engine() {
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    openssl_libctx();
    gost_registered = true;
}

md_ptr fetch_md(const char* name) {
    ERR_set_mark();  // not finding one is an answer
    md_ptr md(EVP_MD_fetch(openssl_libctx(), name, nullptr));
    ERR_pop_to_mark();
    return md;
}

md_ptr fetch_md(const ASN1_OBJECT* algorithm) {
    char name[80];
    if (algorithm == nullptr || OBJ_obj2txt(name, sizeof name, algorithm, 0) <= 0) return nullptr;
    return fetch_md(name);
}

size_t gost_signature_size(int nid) {
    switch (nid) {
        case NID_id_GostR3410_2001:
        case NID_id_GostR3410_2012_256:
            return 64;
        case NID_id_GostR3410_2012_512:
            return 128;
        default:
            return 0;
    }
}

int gost_digest_nid(int keyNid) {
    switch (keyNid) {
        case NID_id_GostR3410_2001:
            return NID_id_GostR3411_94;
        case NID_id_GostR3410_2012_256:
            return NID_id_GostR3411_2012_256;
        case NID_id_GostR3410_2012_512:
            return NID_id_GostR3411_2012_512;
        default:
            return NID_undef;
    }
}

std::unique_ptr<prov_key> gost_key_from_spki(const unsigned char* der, size_t length) noexcept {
    if (length > 4096) return nullptr;  // a GOST key is a few hundred bytes
    // Parsed in OpenSSL's default context, where this decoder is not: it does not call itself.
    ERR_set_mark();
    x509_pubkey_ptr spki(d2i_X509_PUBKEY(nullptr, &der, static_cast<long>(length)));
    ERR_pop_to_mark();
    ASN1_OBJECT* algorithm = nullptr;
    if (!spki || X509_PUBKEY_get0_param(&algorithm, nullptr, nullptr, nullptr, spki.get()) != 1)
        return nullptr;
    const int nid = OBJ_obj2nid(algorithm);
    if (gost_signature_size(nid) == 0) return nullptr;
    try {
        auto key = std::make_unique<prov_key>();
        key->nid = nid;
        key->spki = std::move(spki);
        return key;
    } catch (...) {
        return nullptr;
    }
}

EVP_PKEY* token_rsa_key(std::weak_ptr<Slot> slot, std::weak_ptr<Session> session, CK_OBJECT_HANDLE key,
                        X509_PUBKEY* pub) {
    ossl::evp_pkey_ptr certKey(X509_PUBKEY_get(pub));
    ossl::bn_ptr n, e;
    BIGNUM *rawN = nullptr, *rawE = nullptr;
    if (!certKey || !EVP_PKEY_is_a(certKey.get(), "RSA") ||
        EVP_PKEY_get_bn_param(certKey.get(), OSSL_PKEY_PARAM_RSA_N, &rawN) != 1)
        return nullptr;
    n.reset(rawN);
    if (EVP_PKEY_get_bn_param(certKey.get(), OSSL_PKEY_PARAM_RSA_E, &rawE) != 1) return nullptr;
    e.reset(rawE);
    const token_ref ref{key, std::move(slot), std::move(session)};
    const token_ref* refPointer = &ref;
    std::vector<unsigned char> nBytes(static_cast<size_t>(BN_num_bytes(n.get()))),
        eBytes(static_cast<size_t>(BN_num_bytes(e.get())));
    BN_bn2nativepad(n.get(), nBytes.data(), static_cast<int>(nBytes.size()));
    BN_bn2nativepad(e.get(), eBytes.data(), static_cast<int>(eBytes.size()));
    OSSL_PARAM params[] = {OSSL_PARAM_construct_BN(OSSL_PKEY_PARAM_RSA_N, nBytes.data(), nBytes.size()),
                           OSSL_PARAM_construct_BN(OSSL_PKEY_PARAM_RSA_E, eBytes.data(), eBytes.size()),
                           OSSL_PARAM_construct_octet_string(kParamToken, &refPointer, sizeof refPointer),
                           OSSL_PARAM_construct_end()};
    return token_key("RSA", params);
}

EVP_PKEY* token_gost_key(CK_OBJECT_HANDLE key, X509_PUBKEY* pub) {
    if (!gost_registered) return nullptr;
    ASN1_OBJECT* algorithm = nullptr;
    X509_PUBKEY_get0_param(&algorithm, nullptr, nullptr, nullptr, pub);
    der_buffer der = der_of(static_cast<const X509_PUBKEY*>(pub), i2d_X509_PUBKEY);
    if (der.empty() || gost_signature_size(OBJ_obj2nid(algorithm)) == 0) return nullptr;
    const token_ref ref{key, {}, {}};
    const token_ref* refPointer = &ref;
    OSSL_PARAM params[] = {OSSL_PARAM_construct_octet_string(kParamSpki, der.data(), der.size()),
                           OSSL_PARAM_construct_octet_string(kParamToken, &refPointer, sizeof refPointer),
                           OSSL_PARAM_construct_end()};
    return token_key(OBJ_nid2sn(OBJ_obj2nid(algorithm)), params);
}

}  // namespace p11
