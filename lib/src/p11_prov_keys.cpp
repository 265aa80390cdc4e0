// The provider's key management (RSA and GOST R 34.10 keys whose private half stays on the token)
// and its decoder of GOST public keys, which OpenSSL calls while it parses a certificate.
#include <cstring>
#include <vector>

#include <openssl/core_names.h>
#include <openssl/core_object.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

#include "p11_prov.h"

namespace p11 {

namespace {

constexpr int kPublic = OSSL_KEYMGMT_SELECT_PUBLIC_KEY;
constexpr int kPrivate = OSSL_KEYMGMT_SELECT_PRIVATE_KEY;

prov_key* key_of(void* keydata) { return static_cast<prov_key*>(keydata); }
const prov_key* key_of(const void* keydata) { return static_cast<const prov_key*>(keydata); }

// No exception may reach OpenSSL.
void* key_new(void*) noexcept {
    try {
        return std::make_unique<prov_key>().release();
    } catch (...) {
        return nullptr;
    }
}
void key_free(void* keydata) { std::unique_ptr<prov_key> owned(key_of(keydata)); }

void* key_dup(const void* from, int) noexcept {
    const prov_key* k = key_of(from);
    std::unique_ptr<prov_key> copy(static_cast<prov_key*>(key_new(nullptr)));
    if (!copy) return nullptr;
    copy->nid = k->nid;
    copy->n.reset(k->n ? BN_dup(k->n.get()) : nullptr);
    copy->e.reset(k->e ? BN_dup(k->e.get()) : nullptr);
    copy->spki.reset(k->spki ? X509_PUBKEY_dup(k->spki.get()) : nullptr);
    copy->handle = k->handle;
    copy->slot = k->slot;
    copy->session = k->session;
    return copy.release();
}

// A private half is "there" when the key names a token object; it is never exported.
int key_has(const void* keydata, int selection) {
    const prov_key* k = key_of(keydata);
    if (k == nullptr) return 0;
    const bool publicHalf = k->spki || (k->n && k->e);
    return ((selection & kPublic) == 0 || publicHalf) && ((selection & kPrivate) == 0 || k->handle != 0);
}

// The token reference, when the parameters carry one.
bool take_token(prov_key* k, const OSSL_PARAM params[]) {
    const OSSL_PARAM* p = OSSL_PARAM_locate_const(params, kParamToken);
    if (p == nullptr) return true;
    const void* value = nullptr;
    size_t length = 0;
    if (OSSL_PARAM_get_octet_string_ptr(p, &value, &length) != 1 || length != sizeof(const token_ref*))
        return false;
    const token_ref* ref = nullptr;
    std::memcpy(&ref, value, sizeof ref);
    k->handle = ref->handle;
    k->slot = ref->slot;
    k->session = ref->session;
    return true;
}

// RSA: n and e.
int rsa_import(void* keydata, int selection, const OSSL_PARAM params[]) {
    prov_key* k = key_of(keydata);
    BIGNUM *n = nullptr, *e = nullptr;
    if (k == nullptr || (selection & kPublic) == 0) return 0;
    const OSSL_PARAM* pn = OSSL_PARAM_locate_const(params, OSSL_PKEY_PARAM_RSA_N);
    const OSSL_PARAM* pe = OSSL_PARAM_locate_const(params, OSSL_PKEY_PARAM_RSA_E);
    if (pn == nullptr || pe == nullptr || OSSL_PARAM_get_BN(pn, &n) != 1) return 0;
    k->n.reset(n);
    if (OSSL_PARAM_get_BN(pe, &e) != 1) return 0;
    k->e.reset(e);
    k->nid = NID_rsaEncryption;
    return take_token(k, params) ? 1 : 0;
}

const OSSL_PARAM* rsa_import_types(int) {
    static const OSSL_PARAM types[] = {OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_N, nullptr, 0),
                                       OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_E, nullptr, 0),
                                       OSSL_PARAM_octet_string(kParamToken, nullptr, 0), OSSL_PARAM_END};
    return types;
}

// Only the public half goes out: asked for more, the export fails and OpenSSL keeps the key with us.
int rsa_export(void* keydata, int selection, OSSL_CALLBACK* callback, void* arg) {
    const prov_key* k = key_of(keydata);
    if (k == nullptr || !k->n || (selection & kPrivate) != 0) return 0;
    std::unique_ptr<OSSL_PARAM_BLD, ossl::Deleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>> build(
        OSSL_PARAM_BLD_new());
    if (!build || OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, k->n.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, k->e.get()) != 1)
        return 0;
    std::unique_ptr<OSSL_PARAM, ossl::Deleter<OSSL_PARAM, OSSL_PARAM_free>> params(
        OSSL_PARAM_BLD_to_param(build.get()));
    return params ? callback(params.get(), arg) : 0;
}

const OSSL_PARAM* rsa_export_types(int) {
    static const OSSL_PARAM types[] = {OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_N, nullptr, 0),
                                       OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_E, nullptr, 0), OSSL_PARAM_END};
    return types;
}

int rsa_match(const void* a, const void* b, int selection) {
    const prov_key *x = key_of(a), *y = key_of(b);
    if ((selection & kPublic) == 0) return 1;
    return x->n && y->n && x->e && y->e && BN_cmp(x->n.get(), y->n.get()) == 0 &&
           BN_cmp(x->e.get(), y->e.get()) == 0;
}

// Sizes, and the digest a signature takes unless told otherwise.
int set_key_params(OSSL_PARAM params[], int bits, int securityBits, size_t maxSize, const char* digest,
                   bool mandatory) {
    OSSL_PARAM* p = nullptr;
    if (((p = OSSL_PARAM_locate(params, OSSL_PKEY_PARAM_BITS)) && !OSSL_PARAM_set_int(p, bits)) ||
        ((p = OSSL_PARAM_locate(params, OSSL_PKEY_PARAM_SECURITY_BITS)) &&
         !OSSL_PARAM_set_int(p, securityBits)) ||
        ((p = OSSL_PARAM_locate(params, OSSL_PKEY_PARAM_MAX_SIZE)) && !OSSL_PARAM_set_size_t(p, maxSize)) ||
        ((p = OSSL_PARAM_locate(params, OSSL_PKEY_PARAM_DEFAULT_DIGEST)) &&
         !OSSL_PARAM_set_utf8_string(p, digest)))
        return 0;
    if ((p = OSSL_PARAM_locate(params, OSSL_PKEY_PARAM_MANDATORY_DIGEST)) && mandatory &&
        !OSSL_PARAM_set_utf8_string(p, digest))
        return 0;
    return 1;
}

const OSSL_PARAM* key_gettable_params(void*) {
    static const OSSL_PARAM types[] = {OSSL_PARAM_int(OSSL_PKEY_PARAM_BITS, nullptr),
                                       OSSL_PARAM_int(OSSL_PKEY_PARAM_SECURITY_BITS, nullptr),
                                       OSSL_PARAM_size_t(OSSL_PKEY_PARAM_MAX_SIZE, nullptr),
                                       OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_DEFAULT_DIGEST, nullptr, 0),
                                       OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_MANDATORY_DIGEST, nullptr, 0),
                                       OSSL_PARAM_END};
    return types;
}

int rsa_get_params(void* keydata, OSSL_PARAM params[]) {
    const prov_key* k = key_of(keydata);
    if (k == nullptr || !k->n) return 0;
    const int bits = BN_num_bits(k->n.get());
    const int security = bits >= 15360  ? 256
                         : bits >= 7680 ? 192
                         : bits >= 3072 ? 128
                         : bits >= 2048 ? 112
                                        : 80;
    return set_key_params(params, bits, security, static_cast<size_t>(BN_num_bytes(k->n.get())), "SHA256",
                          false);
}

// GOST R 34.10: the SubjectPublicKeyInfo.
int gost_import(void* keydata, int selection, const OSSL_PARAM params[]) {
    prov_key* k = key_of(keydata);
    const OSSL_PARAM* p = OSSL_PARAM_locate_const(params, kParamSpki);
    const void* der = nullptr;
    size_t length = 0;
    if (k == nullptr || (selection & kPublic) == 0 || p == nullptr ||
        OSSL_PARAM_get_octet_string_ptr(p, &der, &length) != 1)
        return 0;
    auto parsed = gost_key_from_spki(static_cast<const unsigned char*>(der), length);
    if (!parsed) return 0;
    k->nid = parsed->nid;
    k->spki = std::move(parsed->spki);
    return take_token(k, params) ? 1 : 0;
}

const OSSL_PARAM* gost_import_types(int) {
    static const OSSL_PARAM types[] = {OSSL_PARAM_octet_string(kParamSpki, nullptr, 0),
                                       OSSL_PARAM_octet_string(kParamToken, nullptr, 0), OSSL_PARAM_END};
    return types;
}

int gost_export(void* keydata, int selection, OSSL_CALLBACK* callback, void* arg) {
    const prov_key* k = key_of(keydata);
    if (k == nullptr || !k->spki || (selection & kPrivate) != 0) return 0;
    der_buffer der = der_of(static_cast<const X509_PUBKEY*>(k->spki.get()), i2d_X509_PUBKEY);
    if (der.empty()) return 0;
    OSSL_PARAM params[] = {OSSL_PARAM_construct_octet_string(kParamSpki, der.data(), der.size()),
                           OSSL_PARAM_construct_end()};
    return callback(params, arg);
}

const OSSL_PARAM* gost_export_types(int) {
    static const OSSL_PARAM types[] = {OSSL_PARAM_octet_string(kParamSpki, nullptr, 0), OSSL_PARAM_END};
    return types;
}

// Same algorithm and the same point.
int gost_match(const void* a, const void* b, int selection) {
    const prov_key *x = key_of(a), *y = key_of(b);
    if ((selection & kPublic) == 0) return 1;
    if (!x->spki || !y->spki || x->nid != y->nid) return 0;
    const unsigned char *bitsA = nullptr, *bitsB = nullptr;
    int lengthA = 0, lengthB = 0;
    X509_PUBKEY_get0_param(nullptr, &bitsA, &lengthA, nullptr, x->spki.get());
    X509_PUBKEY_get0_param(nullptr, &bitsB, &lengthB, nullptr, y->spki.get());
    return lengthA == lengthB && std::memcmp(bitsA, bitsB, static_cast<size_t>(lengthA)) == 0;
}

int gost_get_params(void* keydata, OSSL_PARAM params[]) {
    const prov_key* k = key_of(keydata);
    const size_t size = k ? gost_signature_size(k->nid) : 0;
    if (size == 0) return 0;
    const int bits = static_cast<int>(size * 4);
    return set_key_params(params, bits, bits / 2, size, OBJ_nid2sn(gost_digest_nid(k->nid)), true);
}

// What the decoder made: the key itself, handed over once.
void* gost_load(const void* reference, size_t size) {
    if (size != sizeof(prov_key*)) return nullptr;
    prov_key* key = nullptr;
    std::memcpy(&key, reference, sizeof key);
    std::memset(const_cast<void*>(reference), 0, sizeof key);
    return key;
}

// The decoder keeps no state: its context only has to exist.
void* decoder_new(void*) {
    static int context;
    return &context;
}
void decoder_free(void*) {}
int decoder_does_selection(void*, int selection) {
    return selection == 0 || (selection & (kPublic | OSSL_KEYMGMT_SELECT_ALL_PARAMETERS)) != 0;
}

// A DER SubjectPublicKeyInfo of a GOST key becomes a key; anything else is left to other decoders.
int decoder_decode(void*, OSSL_CORE_BIO* in, int selection, OSSL_CALLBACK* callback, void* arg,
                   OSSL_PASSPHRASE_CALLBACK*, void*) {
    if (core_bio_read_ex == nullptr ||
        (selection != 0 && (selection & kPrivate) != 0 && (selection & kPublic) == 0))
        return 1;
    std::vector<unsigned char> der;
    unsigned char chunk[1024];
    size_t got = 0;
    while (der.size() <= 4096 && core_bio_read_ex(in, chunk, sizeof chunk, &got) == 1 && got > 0)
        der.insert(der.end(), chunk, chunk + got);
    std::unique_ptr<prov_key> key = gost_key_from_spki(der.data(), der.size());
    if (!key) return 1;
    int type = OSSL_OBJECT_PKEY;
    prov_key* raw = key.get();
    OSSL_PARAM params[] = {OSSL_PARAM_construct_int(OSSL_OBJECT_PARAM_TYPE, &type),
                           OSSL_PARAM_construct_utf8_string(OSSL_OBJECT_PARAM_DATA_TYPE,
                                                            const_cast<char*>(OBJ_nid2sn(key->nid)), 0),
                           OSSL_PARAM_construct_octet_string(OSSL_OBJECT_PARAM_REFERENCE, &raw, sizeof raw),
                           OSSL_PARAM_construct_end()};
    const int ok = callback(params, arg);
    if (raw == nullptr) key.release();  // the key management took it
    return ok;
}

}  // namespace

// The two key managements differ in what the key is made of, not in how it lives and dies.
#define ZORVO_KEYMGMT(kind)                                                                           \
    {OSSL_FUNC_KEYMGMT_NEW, dispatch_fn(key_new)}, {OSSL_FUNC_KEYMGMT_FREE, dispatch_fn(key_free)},   \
        {OSSL_FUNC_KEYMGMT_DUP, dispatch_fn(key_dup)}, {OSSL_FUNC_KEYMGMT_HAS, dispatch_fn(key_has)}, \
        {OSSL_FUNC_KEYMGMT_GETTABLE_PARAMS, dispatch_fn(key_gettable_params)},                        \
        {OSSL_FUNC_KEYMGMT_MATCH, dispatch_fn(kind##_match)},                                         \
        {OSSL_FUNC_KEYMGMT_IMPORT, dispatch_fn(kind##_import)},                                       \
        {OSSL_FUNC_KEYMGMT_IMPORT_TYPES, dispatch_fn(kind##_import_types)},                           \
        {OSSL_FUNC_KEYMGMT_EXPORT, dispatch_fn(kind##_export)},                                       \
        {OSSL_FUNC_KEYMGMT_EXPORT_TYPES, dispatch_fn(kind##_export_types)}, {                         \
        OSSL_FUNC_KEYMGMT_GET_PARAMS, dispatch_fn(kind##_get_params)                                  \
    }

const OSSL_DISPATCH rsa_keymgmt_functions[] = {ZORVO_KEYMGMT(rsa), {0, nullptr}};
// A GOST key is also what the decoder hands over, loaded by reference.
const OSSL_DISPATCH gost_keymgmt_functions[] = {
    ZORVO_KEYMGMT(gost), {OSSL_FUNC_KEYMGMT_LOAD, dispatch_fn(gost_load)}, {0, nullptr}};

const OSSL_DISPATCH gost_spki_decoder_functions[] = {
    {OSSL_FUNC_DECODER_NEWCTX, dispatch_fn(decoder_new)},
    {OSSL_FUNC_DECODER_FREECTX, dispatch_fn(decoder_free)},
    {OSSL_FUNC_DECODER_DOES_SELECTION, dispatch_fn(decoder_does_selection)},
    {OSSL_FUNC_DECODER_DECODE, dispatch_fn(decoder_decode)},
    {0, nullptr}};

}  // namespace p11
