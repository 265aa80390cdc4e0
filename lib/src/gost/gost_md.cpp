// GOST R 34.11-94 as an OpenSSL digest.
#include <string.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include "gost/gosthash.h"
#include "p11_ossl_md.h"

namespace {

// OpenSSL's per-context block: the hash state, then the cipher state it points to. Keeping
// both in one block lets OpenSSL copy and free the whole as plain bytes.
struct gost_md_data {
    gost_hash_ctx dctx;
    gost_ctx cctx;
};
static_assert(sizeof(gost_md_data) == 4248, "the digest's context data size is fixed");

EVP_MD* popenssl_digest_gost = nullptr;

gost_md_data* data_of(const EVP_MD_CTX* ctx) { return static_cast<gost_md_data*>(EVP_MD_CTX_md_data(ctx)); }

int gost_digest_init(EVP_MD_CTX* ctx) {
    gost_md_data* c = data_of(ctx);
    memset(&c->dctx, 0, sizeof(c->dctx));
    gost_init(&c->cctx, &GostR3411_94_CryptoProParamSet);
    c->dctx.cipher_ctx = &c->cctx;
    return 1;
}

int gost_digest_update(EVP_MD_CTX* ctx, const void* data, size_t count) {
    return hash_block(&data_of(ctx)->dctx, static_cast<const byte*>(data), count);
}

int gost_digest_final(EVP_MD_CTX* ctx, unsigned char* md) { return finish_hash(&data_of(ctx)->dctx, md); }

int gost_digest_copy(EVP_MD_CTX* to, const EVP_MD_CTX* from) {
    gost_md_data* dst = data_of(to);
    const gost_md_data* src = data_of(from);
    if (dst && src) {
        memcpy(dst, src, sizeof(*dst));
        // The copied pointer still leads into the source's block.
        dst->dctx.cipher_ctx = &dst->cctx;
    }
    return 1;
}

int gost_digest_cleanup(EVP_MD_CTX* ctx) {
    if (void* d = EVP_MD_CTX_md_data(ctx)) OPENSSL_cleanse(d, sizeof(gost_md_data));
    return 1;
}

}  // namespace

extern "C" const EVP_MD* digest_gost2001() {
    if (popenssl_digest_gost) return popenssl_digest_gost;
    EVP_MD* md = EVP_MD_meth_new(NID_id_GostR3411_94, NID_undef);
    if (!md || !EVP_MD_meth_set_result_size(md, 32) || !EVP_MD_meth_set_input_blocksize(md, 32) ||
        !EVP_MD_meth_set_app_datasize(md, sizeof(gost_md_data)) ||
        !EVP_MD_meth_set_init(md, gost_digest_init) || !EVP_MD_meth_set_update(md, gost_digest_update) ||
        !EVP_MD_meth_set_final(md, gost_digest_final) || !EVP_MD_meth_set_copy(md, gost_digest_copy) ||
        !EVP_MD_meth_set_ctrl(md, nullptr) || !EVP_MD_meth_set_cleanup(md, gost_digest_cleanup)) {
        EVP_MD_meth_free(md);
        return nullptr;
    }
    popenssl_digest_gost = md;
    return md;
}
