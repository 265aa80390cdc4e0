// The GOST R 34.11 digests as provider algorithms, and the C functions that hand them to hosts.
#include <atomic>
#include <cstring>
#include <memory>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/params.h>

#include "gost/gosthash.h"
#include "gost/gosthash2012.h"
#include "gost_digests.h"
#include "p11_ossl_eng.h"
#include "p11_prov.h"

namespace p11 {

namespace {

// The hash state and the cipher state it points to, in one block so that a copy is a plain copy
// and a pointer fix.
struct gost94 {
    gost_hash_ctx hash;
    gost_ctx cipher;
    static constexpr size_t kSize = 32, kBlock = 32;
    static constexpr const char* kMicalg = "gostr3411-94";
    void init() {
        std::memset(&hash, 0, sizeof hash);
        gost_init(&cipher, &GostR3411_94_CryptoProParamSet);
        hash.cipher_ctx = &cipher;
    }
    void update(const unsigned char* data, size_t length) { hash_block(&hash, data, length); }
    void final(unsigned char* out) { finish_hash(&hash, out); }
    void copied() { hash.cipher_ctx = &cipher; }
};

template <unsigned Bits>
struct streebog {
    gost2012_hash_ctx hash;
    static constexpr size_t kSize = Bits / 8, kBlock = 64;
    static constexpr const char* kMicalg = Bits == 256 ? "gostr3411-2012-256" : "gostr3411-2012-512";
    void init() { init_gost2012_hash_ctx(&hash, Bits); }
    void update(const unsigned char* data, size_t length) { gost2012_hash_block(&hash, data, length); }
    void final(unsigned char* out) { gost2012_finish_hash(&hash, out); }
    void copied() {}
};

template <typename State>
struct digest {
    static void* create(void*) noexcept {
        try {
            return std::make_unique<State>().release();
        } catch (...) {
            return nullptr;
        }
    }
    static void destroy(void* state) {
        OPENSSL_cleanse(state, sizeof(State));
        std::unique_ptr<State> owned(static_cast<State*>(state));
    }
    static void* dup(void* state) noexcept {
        auto* copy = static_cast<State*>(create(nullptr));
        if (copy == nullptr) return nullptr;
        std::memcpy(static_cast<void*>(copy), state, sizeof(State));
        copy->copied();
        return copy;
    }
    static int init(void* state, const OSSL_PARAM*) {
        static_cast<State*>(state)->init();
        return 1;
    }
    static int update(void* state, const unsigned char* data, size_t length) {
        static_cast<State*>(state)->update(data, length);
        return 1;
    }
    static int final(void* state, unsigned char* out, size_t* length, size_t room) {
        if (room < State::kSize) return 0;
        static_cast<State*>(state)->final(out);
        *length = State::kSize;
        return 1;
    }
    static int get_params(OSSL_PARAM params[]) {
        OSSL_PARAM* p = nullptr;
        return !(
            ((p = OSSL_PARAM_locate(params, OSSL_DIGEST_PARAM_BLOCK_SIZE)) &&
             !OSSL_PARAM_set_size_t(p, State::kBlock)) ||
            ((p = OSSL_PARAM_locate(params, OSSL_DIGEST_PARAM_SIZE)) &&
             !OSSL_PARAM_set_size_t(p, State::kSize)) ||
            ((p = OSSL_PARAM_locate(params, OSSL_DIGEST_PARAM_XOF)) && !OSSL_PARAM_set_int(p, 0)) ||
            ((p = OSSL_PARAM_locate(params, OSSL_DIGEST_PARAM_ALGID_ABSENT)) && !OSSL_PARAM_set_int(p, 0)) ||
            ((p = OSSL_PARAM_locate(params, OSSL_DIGEST_PARAM_MICALG)) &&
             !OSSL_PARAM_set_utf8_string(p, State::kMicalg)));
    }
    static const OSSL_PARAM* gettable(void*) {
        static const OSSL_PARAM types[] = {OSSL_PARAM_size_t(OSSL_DIGEST_PARAM_BLOCK_SIZE, nullptr),
                                           OSSL_PARAM_size_t(OSSL_DIGEST_PARAM_SIZE, nullptr),
                                           OSSL_PARAM_int(OSSL_DIGEST_PARAM_XOF, nullptr),
                                           OSSL_PARAM_int(OSSL_DIGEST_PARAM_ALGID_ABSENT, nullptr),
                                           OSSL_PARAM_utf8_string(OSSL_DIGEST_PARAM_MICALG, nullptr, 0),
                                           OSSL_PARAM_END};
        return types;
    }
};

#define ZORVO_DIGEST(State)                                                             \
    {                                                                                   \
        {OSSL_FUNC_DIGEST_NEWCTX, dispatch_fn(digest<State>::create)},                  \
            {OSSL_FUNC_DIGEST_FREECTX, dispatch_fn(digest<State>::destroy)},            \
            {OSSL_FUNC_DIGEST_DUPCTX, dispatch_fn(digest<State>::dup)},                 \
            {OSSL_FUNC_DIGEST_INIT, dispatch_fn(digest<State>::init)},                  \
            {OSSL_FUNC_DIGEST_UPDATE, dispatch_fn(digest<State>::update)},              \
            {OSSL_FUNC_DIGEST_FINAL, dispatch_fn(digest<State>::final)},                \
            {OSSL_FUNC_DIGEST_GET_PARAMS, dispatch_fn(digest<State>::get_params)},      \
            {OSSL_FUNC_DIGEST_GETTABLE_PARAMS, dispatch_fn(digest<State>::gettable)}, { \
            0, nullptr                                                                  \
        }                                                                               \
    }

// A host's handle on a digest: fetched once, kept until destroyed.
struct cached_md {
    const char* name;
    std::atomic<EVP_MD*> md{nullptr};
    const EVP_MD* get() {
        if (EVP_MD* known = md.load()) return known;
        EVP_MD* fresh = fetch_md(name).release();
        EVP_MD* expected = nullptr;
        if (fresh != nullptr && !md.compare_exchange_strong(expected, fresh)) {
            EVP_MD_free(fresh);
            return expected;
        }
        return fresh;
    }
    void destroy() { EVP_MD_free(md.exchange(nullptr)); }
};
cached_md md94{"md_gost94"}, md256{"md_gost12_256"}, md512{"md_gost12_512"};

}  // namespace

const OSSL_DISPATCH gost94_digest_functions[] = ZORVO_DIGEST(gost94);
const OSSL_DISPATCH gost2012_256_digest_functions[] = ZORVO_DIGEST(streebog<256>);
const OSSL_DISPATCH gost2012_512_digest_functions[] = ZORVO_DIGEST(streebog<512>);

}  // namespace p11

extern "C" {
const EVP_MD* digest_gost2001() { return p11::md94.get(); }
const EVP_MD* digest_gost2012_256() { return p11::md256.get(); }
const EVP_MD* digest_gost2012_512() { return p11::md512.get(); }
void digest_gost2012_256_destroy() { p11::md256.destroy(); }
void digest_gost2012_512_destroy() { p11::md512.destroy(); }
}
