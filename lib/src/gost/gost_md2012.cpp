// GOST R 34.11-2012 (256 and 512 bits) as OpenSSL digests.
#include <string.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include "gost/gosthash2012.h"
#include "p11_ossl_md.h"

namespace {

const char micalg_256[] = "gostr3411-2012-256";
const char micalg_512[] = "gostr3411-2012-512";
static_assert(sizeof(micalg_256) == 19 && sizeof(micalg_512) == 19, "MIC texts with their terminator");

EVP_MD* _hidden_GostR3411_2012_256_md = nullptr;
EVP_MD* _hidden_GostR3411_2012_512_md = nullptr;

gost2012_hash_ctx* data_of(const EVP_MD_CTX* ctx) {
    return static_cast<gost2012_hash_ctx*>(EVP_MD_CTX_md_data(ctx));
}

int gost_digest_init256(EVP_MD_CTX* ctx) {
    init_gost2012_hash_ctx(data_of(ctx), 256);
    return 1;
}

int gost_digest_init512(EVP_MD_CTX* ctx) {
    init_gost2012_hash_ctx(data_of(ctx), 512);
    return 1;
}

int gost_digest_update(EVP_MD_CTX* ctx, const void* data, size_t count) {
    gost2012_hash_block(data_of(ctx), static_cast<const unsigned char*>(data), count);
    return 1;
}

int gost_digest_final(EVP_MD_CTX* ctx, unsigned char* md) {
    gost2012_finish_hash(data_of(ctx), md);
    return 1;
}

int gost_digest_copy(EVP_MD_CTX* to, const EVP_MD_CTX* from) {
    gost2012_hash_ctx* dst = data_of(to);
    const gost2012_hash_ctx* src = data_of(from);
    if (dst && src) memcpy(dst, src, sizeof(*dst));
    return 1;
}

int gost_digest_cleanup(EVP_MD_CTX* ctx) {
    if (void* d = EVP_MD_CTX_md_data(ctx)) OPENSSL_cleanse(d, sizeof(gost2012_hash_ctx));
    return 1;
}

// The S/MIME micalg parameter, handed out in memory that the caller frees with OPENSSL_free.
int micalg_ctrl(int type, void* ptr, const char (&text)[19]) {
    if (type != EVP_MD_CTRL_MICALG) return 0;
    char* copy = static_cast<char*>(OPENSSL_malloc(sizeof(text)));
    if (!copy) return 0;
    memcpy(copy, text, sizeof(text));
    *static_cast<char**>(ptr) = copy;
    return 1;
}

int gost_digest_ctrl_256(EVP_MD_CTX*, int type, int, void* ptr) { return micalg_ctrl(type, ptr, micalg_256); }

int gost_digest_ctrl_512(EVP_MD_CTX*, int type, int, void* ptr) { return micalg_ctrl(type, ptr, micalg_512); }

EVP_MD* build(EVP_MD*& cache, int nid, int result_size, int (*init)(EVP_MD_CTX*),
              int (*ctrl)(EVP_MD_CTX*, int, int, void*)) {
    if (cache) return cache;
    EVP_MD* md = EVP_MD_meth_new(nid, NID_undef);
    if (!md || !EVP_MD_meth_set_result_size(md, result_size) || !EVP_MD_meth_set_input_blocksize(md, 64) ||
        !EVP_MD_meth_set_app_datasize(md, sizeof(gost2012_hash_ctx)) || !EVP_MD_meth_set_init(md, init) ||
        !EVP_MD_meth_set_update(md, gost_digest_update) || !EVP_MD_meth_set_final(md, gost_digest_final) ||
        !EVP_MD_meth_set_copy(md, gost_digest_copy) || !EVP_MD_meth_set_ctrl(md, ctrl) ||
        !EVP_MD_meth_set_cleanup(md, gost_digest_cleanup)) {
        EVP_MD_meth_free(md);
        return nullptr;
    }
    cache = md;
    return md;
}

void destroy(EVP_MD*& cache) {
    EVP_MD_meth_free(cache);
    cache = nullptr;
}

}  // namespace

extern "C" {

const EVP_MD* digest_gost2012_256() {
    return build(_hidden_GostR3411_2012_256_md, NID_id_GostR3411_2012_256, 32, gost_digest_init256,
                 gost_digest_ctrl_256);
}

const EVP_MD* digest_gost2012_512() {
    return build(_hidden_GostR3411_2012_512_md, NID_id_GostR3411_2012_512, 64, gost_digest_init512,
                 gost_digest_ctrl_512);
}

void digest_gost2012_256_destroy() { destroy(_hidden_GostR3411_2012_256_md); }

void digest_gost2012_512_destroy() { destroy(_hidden_GostR3411_2012_512_md); }

}  // extern "C"
