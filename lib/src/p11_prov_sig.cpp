// The provider's signatures: RSA PKCS#1 v1.5 and GOST R 34.10 signed on the token, GOST R 34.10
// verified here with the certificate's public key.
#include <cstring>
#include <vector>

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>
#include <openssl/params.h>
#include <openssl/proverr.h>
#include <openssl/rsa.h>

#include "Session.h"
#include "gost_verify.h"
#include "log.h"
#include "p11_ossl.h"
#include "p11_prov.h"

namespace p11 {

namespace {

struct sig_ctx {
    const prov_key* key = nullptr;  // held by OpenSSL's key object for the operation
    md_ptr md;                      // the digest of a digest-sign, or the one named for sign()
    md_ctx_ptr hashing;
};

sig_ctx* ctx_of(void* c) { return static_cast<sig_ctx*>(c); }

void* sig_new(void*, const char*) noexcept {
    try {
        return std::make_unique<sig_ctx>().release();
    } catch (...) {
        return nullptr;
    }
}

void sig_free(void* c) { std::unique_ptr<sig_ctx> owned(ctx_of(c)); }

void* sig_dup(void* c) noexcept {
    const sig_ctx* from = ctx_of(c);
    std::unique_ptr<sig_ctx> copy(static_cast<sig_ctx*>(sig_new(nullptr, nullptr)));
    if (!copy) return nullptr;
    copy->key = from->key;
    if (from->md && EVP_MD_up_ref(from->md.get()) == 1) copy->md.reset(from->md.get());
    if (from->hashing) {
        copy->hashing.reset(EVP_MD_CTX_new());
        if (!copy->hashing || EVP_MD_CTX_copy_ex(copy->hashing.get(), from->hashing.get()) != 1)
            return nullptr;
    }
    return copy.release();
}

bool is_gost(const sig_ctx* c) { return c->key != nullptr && gost_signature_size(c->key->nid) != 0; }

// The digest a GOST key signs with is fixed; an RSA signature takes any that OpenSSL has.
int set_digest(sig_ctx* c, const char* name) {
    md_ptr md = fetch_md(name != nullptr ? name
                         : is_gost(c)    ? OBJ_nid2sn(gost_digest_nid(c->key->nid))
                                         : "SHA256");
    if (!md || (is_gost(c) && !EVP_MD_is_a(md.get(), OBJ_nid2sn(gost_digest_nid(c->key->nid))))) {
        ERR_raise(ERR_LIB_PROV, PROV_R_INVALID_DIGEST);
        return 0;
    }
    c->md = std::move(md);
    return 1;
}

int sig_set_params(void* c, const OSSL_PARAM params[]) {
    sig_ctx* ctx = ctx_of(c);
    if (params == nullptr) return 1;
    if (const OSSL_PARAM* p = OSSL_PARAM_locate_const(params, OSSL_SIGNATURE_PARAM_DIGEST)) {
        const char* name = nullptr;
        if (OSSL_PARAM_get_utf8_string_ptr(p, &name) != 1 || set_digest(ctx, name) != 1) return 0;
    }
    // PKCS#1 v1.5 is all the token is asked for.
    if (const OSSL_PARAM* p = OSSL_PARAM_locate_const(params, OSSL_SIGNATURE_PARAM_PAD_MODE)) {
        int mode = 0;
        const char* name = nullptr;
        const bool pkcs1 = (p->data_type == OSSL_PARAM_INTEGER && OSSL_PARAM_get_int(p, &mode) == 1 &&
                            mode == RSA_PKCS1_PADDING) ||
                           (OSSL_PARAM_get_utf8_string_ptr(p, &name) == 1 && std::strcmp(name, "pkcs1") == 0);
        if (is_gost(ctx) || !pkcs1) return 0;
    }
    return 1;
}

const OSSL_PARAM* sig_settable_params(void*, void*) {
    static const OSSL_PARAM types[] = {OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_DIGEST, nullptr, 0),
                                       OSSL_PARAM_int(OSSL_SIGNATURE_PARAM_PAD_MODE, nullptr),
                                       OSSL_PARAM_END};
    return types;
}

// The digest, the padding, and the signature's algorithm identifier (for certificates and requests).
int sig_get_params(void* c, OSSL_PARAM params[]) {
    const sig_ctx* ctx = ctx_of(c);
    OSSL_PARAM* p = nullptr;
    if ((p = OSSL_PARAM_locate(params, OSSL_SIGNATURE_PARAM_DIGEST)) && ctx->md &&
        OSSL_PARAM_set_utf8_string(p, EVP_MD_get0_name(ctx->md.get())) != 1)
        return 0;
    if ((p = OSSL_PARAM_locate(params, OSSL_SIGNATURE_PARAM_PAD_MODE)) && !is_gost(ctx) &&
        (p->data_type == OSSL_PARAM_INTEGER ? OSSL_PARAM_set_int(p, RSA_PKCS1_PADDING)
                                            : OSSL_PARAM_set_utf8_string(p, "pkcs1")) != 1)
        return 0;
    int signatureNid = NID_undef;
    if ((p = OSSL_PARAM_locate(params, OSSL_SIGNATURE_PARAM_ALGORITHM_ID)) && ctx->md && ctx->key &&
        OBJ_find_sigid_by_algs(&signatureNid,
                               EVP_MD_get_type(ctx->md.get()) > 0
                                   ? EVP_MD_get_type(ctx->md.get())
                                   : OBJ_txt2nid(EVP_MD_get0_name(ctx->md.get())),
                               ctx->key->nid) == 1) {
        std::unique_ptr<X509_ALGOR, ossl::Deleter<X509_ALGOR, X509_ALGOR_free>> algorithm(X509_ALGOR_new());
        if (!algorithm || X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(signatureNid),
                                          is_gost(ctx) ? V_ASN1_UNDEF : V_ASN1_NULL, nullptr) != 1)
            return 0;
        const der_buffer der = der_of(static_cast<const X509_ALGOR*>(algorithm.get()), i2d_X509_ALGOR);
        if (der.empty() || OSSL_PARAM_set_octet_string(p, der.data(), der.size()) != 1) return 0;
    }
    return 1;
}

const OSSL_PARAM* sig_gettable_params(void*, void*) {
    static const OSSL_PARAM types[] = {OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_DIGEST, nullptr, 0),
                                       OSSL_PARAM_int(OSSL_SIGNATURE_PARAM_PAD_MODE, nullptr),
                                       OSSL_PARAM_octet_string(OSSL_SIGNATURE_PARAM_ALGORITHM_ID, nullptr, 0),
                                       OSSL_PARAM_END};
    return types;
}

int sig_init(void* c, void* key, const OSSL_PARAM params[]) {
    sig_ctx* ctx = ctx_of(c);
    if (key != nullptr) ctx->key = static_cast<const prov_key*>(key);
    if (ctx->key == nullptr) return 0;
    return sig_set_params(c, params);
}

size_t signature_size(const sig_ctx* c) {
    return is_gost(c) ? gost_signature_size(c->key->nid) : static_cast<size_t>(BN_num_bytes(c->key->n.get()));
}

// The token signs: the key's own slot and session for RSA, the claimed ones for GOST.
int sig_sign(void* c, unsigned char* sig, size_t* siglen, size_t sigsize, const unsigned char* tbs,
             size_t tbslen) {
    const sig_ctx* ctx = ctx_of(c);
    if (ctx->key == nullptr) return 0;
    const size_t size = signature_size(ctx);
    if (sig == nullptr) {
        *siglen = size;
        return 1;
    }
    if (ctx->key->handle == 0) {
        ERR_raise(ERR_LIB_PROV, PROV_R_NOT_A_PRIVATE_KEY);
        return 0;
    }
    *siglen = sigsize;
    try {
        if (is_gost(ctx)) {
            auto slot = engine_ctx.slot.lock();
            if (!slot) {
                P11_ERROR("failed to get slot");
                return 0;
            }
            auto session = engine_ctx.session.lock();
            if (!session) {
                P11_ERROR("failed to get session");
                return 0;
            }
            return p11_pkey_sign(slot, session, ctx->key->handle, ctx->key->nid, sig, siglen, tbs, tbslen);
        }
        if (sigsize < size) return 0;
        const der_buffer info = !ctx->md ? der_buffer(tbs, tbs + tbslen)
                                : static_cast<int>(tbslen) == EVP_MD_get_size(ctx->md.get())
                                    ? digest_info(EVP_MD_get_type(ctx->md.get()), tbs, tbslen)
                                    : der_buffer();
        if (info.empty() || info.size() + 11 > size) return 0;
        return p11_pkey_sign(ctx->key->slot, ctx->key->session, ctx->key->handle, NID_rsa, sig, siglen,
                             info.data(), info.size());
    } catch (...) {
        return 0;
    }
}

int sig_verify(void* c, const unsigned char* sig, size_t siglen, const unsigned char* tbs, size_t tbslen) {
    const sig_ctx* ctx = ctx_of(c);
    return is_gost(ctx) && gost_verify(ctx->key->spki.get(), tbs, tbslen, sig, siglen) ? 1 : 0;
}

int digest_init(void* c, const char* mdname, void* key, const OSSL_PARAM params[]) {
    sig_ctx* ctx = ctx_of(c);
    if (sig_init(c, key, params) != 1 ||
        (mdname != nullptr && *mdname != '\0' ? set_digest(ctx, mdname) : set_digest(ctx, nullptr)) != 1)
        return 0;
    if (!ctx->hashing) ctx->hashing.reset(EVP_MD_CTX_new());
    return ctx->hashing && EVP_DigestInit_ex(ctx->hashing.get(), ctx->md.get(), nullptr) == 1 ? 1 : 0;
}

int digest_update(void* c, const unsigned char* data, size_t length) {
    sig_ctx* ctx = ctx_of(c);
    return ctx->hashing && EVP_DigestUpdate(ctx->hashing.get(), data, length) == 1 ? 1 : 0;
}

// The digest of what was fed, into `out`; false without a digest under way.
bool finish_digest(sig_ctx* ctx, unsigned char* out, unsigned int* length) {
    return ctx->hashing && EVP_DigestFinal_ex(ctx->hashing.get(), out, length) == 1;
}

int digest_sign_final(void* c, unsigned char* sig, size_t* siglen, size_t sigsize) {
    sig_ctx* ctx = ctx_of(c);
    if (sig == nullptr) return sig_sign(c, nullptr, siglen, sigsize, nullptr, 0);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    return finish_digest(ctx, digest, &length) ? sig_sign(c, sig, siglen, sigsize, digest, length) : 0;
}

int digest_verify_final(void* c, const unsigned char* sig, size_t siglen) {
    sig_ctx* ctx = ctx_of(c);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    return finish_digest(ctx, digest, &length) ? sig_verify(c, sig, siglen, digest, length) : 0;
}

}  // namespace

#define ZORVO_SIGNATURE_COMMON                                                       \
    {OSSL_FUNC_SIGNATURE_NEWCTX, dispatch_fn(sig_new)},                              \
        {OSSL_FUNC_SIGNATURE_FREECTX, dispatch_fn(sig_free)},                        \
        {OSSL_FUNC_SIGNATURE_DUPCTX, dispatch_fn(sig_dup)},                          \
        {OSSL_FUNC_SIGNATURE_SIGN_INIT, dispatch_fn(sig_init)},                      \
        {OSSL_FUNC_SIGNATURE_SIGN, dispatch_fn(sig_sign)},                           \
        {OSSL_FUNC_SIGNATURE_DIGEST_SIGN_INIT, dispatch_fn(digest_init)},            \
        {OSSL_FUNC_SIGNATURE_DIGEST_SIGN_UPDATE, dispatch_fn(digest_update)},        \
        {OSSL_FUNC_SIGNATURE_DIGEST_SIGN_FINAL, dispatch_fn(digest_sign_final)},     \
        {OSSL_FUNC_SIGNATURE_GET_CTX_PARAMS, dispatch_fn(sig_get_params)},           \
        {OSSL_FUNC_SIGNATURE_GETTABLE_CTX_PARAMS, dispatch_fn(sig_gettable_params)}, \
        {OSSL_FUNC_SIGNATURE_SET_CTX_PARAMS, dispatch_fn(sig_set_params)}, {         \
        OSSL_FUNC_SIGNATURE_SETTABLE_CTX_PARAMS, dispatch_fn(sig_settable_params)    \
    }

const OSSL_DISPATCH rsa_signature_functions[] = {ZORVO_SIGNATURE_COMMON, {0, nullptr}};

const OSSL_DISPATCH gost_signature_functions[] = {
    ZORVO_SIGNATURE_COMMON,
    {OSSL_FUNC_SIGNATURE_VERIFY_INIT, dispatch_fn(sig_init)},
    {OSSL_FUNC_SIGNATURE_VERIFY, dispatch_fn(sig_verify)},
    {OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_INIT, dispatch_fn(digest_init)},
    {OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_UPDATE, dispatch_fn(digest_update)},
    {OSSL_FUNC_SIGNATURE_DIGEST_VERIFY_FINAL, dispatch_fn(digest_verify_final)},
    {0, nullptr}};

}  // namespace p11
