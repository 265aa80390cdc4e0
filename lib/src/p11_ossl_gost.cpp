#include <cstring>

#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/engine.h>
#include <openssl/obj_mac.h>
#include <openssl/x509.h>

#include "gost_verify.h"
#include "log.h"
#include "ossl_ptr.h"
#include "p11_ossl.h"

namespace p11 {

EVP_PKEY_ASN1_METHOD* ameth_GostR3410_2001 = nullptr;
EVP_PKEY_ASN1_METHOD* ameth_GostR3410_2012_256 = nullptr;
EVP_PKEY_ASN1_METHOD* ameth_GostR3410_2012_512 = nullptr;
EVP_PKEY_METHOD* pmeth_GostR3410_2001 = nullptr;
EVP_PKEY_METHOD* pmeth_GostR3410_2012_256 = nullptr;
EVP_PKEY_METHOD* pmeth_GostR3410_2012_512 = nullptr;

namespace {

using engine_ptr = std::unique_ptr<ENGINE, decltype(&ENGINE_free)>;

int p11_gost_pub_decode(EVP_PKEY* pk, const X509_PUBKEY* pub) {
    auto* record = static_cast<p11_gost_key_data*>(OPENSSL_zalloc(sizeof(p11_gost_key_data)));
    if (record == nullptr) return 0;
    record->pubkey = const_cast<X509_PUBKEY*>(pub);
    ASN1_OBJECT* oid = nullptr;
    X509_PUBKEY_get0_param(&oid, nullptr, nullptr, nullptr, record->pubkey);
    if (EVP_PKEY_assign(pk, OBJ_obj2nid(oid), record) == 1) return 1;
    P11_ERROR("EVP_PKEY_assign failed");
    OPENSSL_free(record);
    return 0;
}

int p11_gost_pub_cmp(const EVP_PKEY* a, const EVP_PKEY* b) {
    const X509_PUBKEY* keys[2] = {};
    const EVP_PKEY* pkeys[2] = {a, b};
    for (int i = 0; i < 2; ++i) {
        auto* record = static_cast<const p11_gost_key_data*>(EVP_PKEY_get0(pkeys[i]));
        if (record == nullptr || record->pubkey == nullptr) {
            P11_ERROR("EVP_PKEY_get0 failed");
            return 0;
        }
        keys[i] = record->pubkey;
    }
    const unsigned char *bits_a = nullptr, *bits_b = nullptr;
    int len_a = 0, len_b = 0;
    X509_PUBKEY_get0_param(nullptr, &bits_a, &len_a, nullptr, const_cast<X509_PUBKEY*>(keys[0]));
    X509_PUBKEY_get0_param(nullptr, &bits_b, &len_b, nullptr, const_cast<X509_PUBKEY*>(keys[1]));
    // Only as many bytes as b holds are compared; a shorter a is never read past its end.
    if (len_b > len_a) return 0;
    return std::memcmp(bits_a, bits_b, static_cast<size_t>(len_b)) == 0 ? 1 : 0;
}

void p11_gost_pkey_free(EVP_PKEY* pk) { OPENSSL_free(EVP_PKEY_get0(pk)); }

int p11_gost_pkey_asn1_ctrl_common(int md_nid, EVP_PKEY* pk, int op, long arg1, void* arg2) {
    switch (op) {
        case ASN1_PKEY_CTRL_DEFAULT_MD_NID:
            *static_cast<int*>(arg2) = md_nid;
            return 2;  // the digest is mandatory
        case ASN1_PKEY_CTRL_CMS_SIGN: {
            if (arg1 != 0) return 1;
            X509_ALGOR *digest_alg = nullptr, *signature_alg = nullptr;
            const int base_id = EVP_PKEY_base_id(pk);
            CMS_SignerInfo_get0_algs(static_cast<CMS_SignerInfo*>(arg2), nullptr, nullptr, &digest_alg,
                                     &signature_alg);
            X509_ALGOR_set0(digest_alg, OBJ_nid2obj(md_nid), V_ASN1_NULL, nullptr);
            if (base_id == 0) return -1;
            X509_ALGOR_set0(signature_alg, OBJ_nid2obj(base_id), V_ASN1_NULL, nullptr);
            return 1;
        }
        default:
            return -2;
    }
}

int p11_gost_pkey_asn1_ctrl(EVP_PKEY* pk, int op, long arg1, void* arg2) {
    return p11_gost_pkey_asn1_ctrl_common(NID_id_GostR3411_94, pk, op, arg1, arg2);
}
int p11_gost_pkey_asn1_ctrl_2012_256(EVP_PKEY* pk, int op, long arg1, void* arg2) {
    return p11_gost_pkey_asn1_ctrl_common(NID_id_GostR3411_2012_256, pk, op, arg1, arg2);
}
int p11_gost_pkey_asn1_ctrl_2012_512(EVP_PKEY* pk, int op, long arg1, void* arg2) {
    return p11_gost_pkey_asn1_ctrl_common(NID_id_GostR3411_2012_512, pk, op, arg1, arg2);
}

int p11_gost_pkey_sign_common(EVP_PKEY_CTX* ctx, unsigned char* sig, size_t* siglen, const unsigned char* tbs,
                              size_t tbslen) {
    EVP_PKEY* pkey = EVP_PKEY_CTX_get0_pkey(ctx);
    if (pkey == nullptr) {
        P11_ERROR("EVP_PKEY_CTX_get0_pkey failed");
        return 0;
    }
    auto* record = static_cast<const p11_gost_key_data*>(EVP_PKEY_get0(pkey));
    if (record == nullptr) {
        P11_ERROR("EVP_PKEY_get0 failed");
        return 0;
    }
    engine_ptr e(ENGINE_by_id("zorvo_pkcs11"), ENGINE_free);  // released after use
    if (!e) {
        P11_ERROR("ENGINE not found");
        return 0;
    }
    auto* ctx_data = static_cast<p11_engine_ctx*>(ENGINE_get_ex_data(e.get(), 0));
    if (ctx_data == nullptr) {
        P11_ERROR("ENGINE_get_ex_data failed");
        return 0;
    }
    auto slot = ctx_data->slot.lock();
    if (!slot) {
        P11_ERROR("failed to get slot");
        return 0;
    }
    auto session = ctx_data->session.lock();
    if (!session) {
        P11_ERROR("failed to get session");
        return 0;
    }
    return p11_pkey_sign(slot, session, record->key, EVP_PKEY_id(pkey), sig, siglen, tbs, tbslen);
}

int p11_gost_pkey_sign(EVP_PKEY_CTX* ctx, unsigned char* sig, size_t* siglen, const unsigned char* tbs,
                       size_t tbslen) {
    if (sig == nullptr) {
        *siglen = 64;
        return 1;
    }
    return p11_gost_pkey_sign_common(ctx, sig, siglen, tbs, tbslen);
}
// The 256-bit 2012 key signs exactly like the 2001 key.
constexpr auto p11_gost_pkey_sign_2012_256 = p11_gost_pkey_sign;

int p11_gost_pkey_sign_2012_512(EVP_PKEY_CTX* ctx, unsigned char* sig, size_t* siglen,
                                const unsigned char* tbs, size_t tbslen) {
    if (sig == nullptr) {
        *siglen = 128;
        return 1;
    }
    return p11_gost_pkey_sign_common(ctx, sig, siglen, tbs, tbslen);
}

// Verification needs no token: the public key is the certificate's.
int p11_gost_pkey_verify(EVP_PKEY_CTX* ctx, const unsigned char* sig, size_t siglen, const unsigned char* tbs,
                         size_t tbslen) {
    EVP_PKEY* pkey = EVP_PKEY_CTX_get0_pkey(ctx);
    auto* record = pkey ? static_cast<const p11_gost_key_data*>(EVP_PKEY_get0(pkey)) : nullptr;
    if (record == nullptr || record->pubkey == nullptr) {
        P11_ERROR("EVP_PKEY_get0 failed");
        return 0;
    }
    return gost_verify(record->pubkey, tbs, tbslen, sig, siglen) ? 1 : 0;
}

int p11_gost_pkey_meth_ctrl_common(int md_nid, EVP_PKEY_CTX*, int type, int, void* p2) {
    switch (type) {
        case EVP_PKEY_CTRL_DIGESTINIT:
        case EVP_PKEY_CTRL_CMS_SIGN:
            return 1;
        case EVP_PKEY_CTRL_MD:
            return p2 != nullptr && EVP_MD_type(static_cast<const EVP_MD*>(p2)) == md_nid ? 1 : 0;
        default:
            return 0;
    }
}

int p11_gost_pkey_meth_ctrl(EVP_PKEY_CTX* ctx, int type, int p1, void* p2) {
    return p11_gost_pkey_meth_ctrl_common(NID_id_GostR3411_94, ctx, type, p1, p2);
}
int p11_gost_pkey_meth_ctrl_2012_256(EVP_PKEY_CTX* ctx, int type, int p1, void* p2) {
    return p11_gost_pkey_meth_ctrl_common(NID_id_GostR3411_2012_256, ctx, type, p1, p2);
}
int p11_gost_pkey_meth_ctrl_2012_512(EVP_PKEY_CTX* ctx, int type, int p1, void* p2) {
    return p11_gost_pkey_meth_ctrl_common(NID_id_GostR3411_2012_512, ctx, type, p1, p2);
}

// The contexts carry no data of their own.
int p11_gost_pkey_copy(EVP_PKEY_CTX*, const EVP_PKEY_CTX*) { return 1; }

struct gost_row {
    int nid;
    const char* pem;
    const char* description;
    int (*asn1_ctrl)(EVP_PKEY*, int, long, void*);
    int (*sign)(EVP_PKEY_CTX*, unsigned char*, size_t*, const unsigned char*, size_t);
    int (*ctrl)(EVP_PKEY_CTX*, int, int, void*);
    EVP_PKEY_ASN1_METHOD** ameth;
    EVP_PKEY_METHOD** pmeth;
};

}  // namespace

EVP_PKEY* token_gost_key(CK_OBJECT_HANDLE key, X509_PUBKEY* pub) {
    ASN1_OBJECT* algorithm = nullptr;
    X509_PUBKEY_get0_param(&algorithm, nullptr, nullptr, nullptr, pub);
    // The record borrows the certificate's public key; the key type's free callback frees it.
    auto* record = static_cast<p11_gost_key_data*>(OPENSSL_zalloc(sizeof(p11_gost_key_data)));
    ossl::evp_pkey_ptr pkey(EVP_PKEY_new());
    if (record != nullptr) *record = {pub, key};
    if (record != nullptr && pkey && EVP_PKEY_assign(pkey.get(), OBJ_obj2nid(algorithm), record) == 1)
        return pkey.release();
    OPENSSL_free(record);
    return nullptr;
}

void p11_gost_init() {
    const gost_row rows[] = {
        {NID_id_GostR3410_2001, "GOST2001", "GOST R 34.10-2001", p11_gost_pkey_asn1_ctrl, p11_gost_pkey_sign,
         p11_gost_pkey_meth_ctrl, &ameth_GostR3410_2001, &pmeth_GostR3410_2001},
        {NID_id_GostR3410_2012_256, "GOST2012_256", "GOST R 34.10-2012_256", p11_gost_pkey_asn1_ctrl_2012_256,
         p11_gost_pkey_sign_2012_256, p11_gost_pkey_meth_ctrl_2012_256, &ameth_GostR3410_2012_256,
         &pmeth_GostR3410_2012_256},
        {NID_id_GostR3410_2012_512, "GOST2012_512", "GOST R 34.10-2012_512", p11_gost_pkey_asn1_ctrl_2012_512,
         p11_gost_pkey_sign_2012_512, p11_gost_pkey_meth_ctrl_2012_512, &ameth_GostR3410_2012_512,
         &pmeth_GostR3410_2012_512},
    };
    for (const gost_row& row : rows) {
        EVP_PKEY_ASN1_METHOD* ameth =
            EVP_PKEY_asn1_new(row.nid, ASN1_PKEY_SIGPARAM_NULL, row.pem, row.description);
        EVP_PKEY_asn1_set_public(ameth, p11_gost_pub_decode, nullptr, p11_gost_pub_cmp, nullptr, nullptr,
                                 nullptr);
        EVP_PKEY_asn1_set_ctrl(ameth, row.asn1_ctrl);
        EVP_PKEY_asn1_set_free(ameth, p11_gost_pkey_free);
        *row.ameth = ameth;
        EVP_PKEY_METHOD* pmeth = EVP_PKEY_meth_new(row.nid, 0);
        EVP_PKEY_meth_set_sign(pmeth, nullptr, row.sign);
        EVP_PKEY_meth_set_verify(pmeth, nullptr, p11_gost_pkey_verify);
        EVP_PKEY_meth_set_ctrl(pmeth, row.ctrl, nullptr);
        EVP_PKEY_meth_set_copy(pmeth, p11_gost_pkey_copy);
        *row.pmeth = pmeth;
    }
}

}  // namespace p11
