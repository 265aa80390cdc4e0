#include "p11_ossl_eng.h"

#include <cstring>
#include <mutex>

#include <openssl/crypto.h>
#include <openssl/obj_mac.h>

#include "Session.h"
#include "log.h"
#include "p11_ossl.h"
#ifdef ZORVO_ENGINE
#include "p11_ossl_md.h"
#endif

namespace p11 {

p11_engine_ctx engine_ctx;
std::atomic<bool> engine_in_use{false};

const p11_mechanism_nid p11MechanismNids[] = {
    {NID_sha256, CKM_SHA256, "SHA256"},
    {NID_sha384, CKM_SHA384, "SHA384"},
    {NID_sha512, CKM_SHA512, "SHA512"},
    {NID_rsaEncryption, CKM_RSA_PKCS, "RSA-PKCS"},
    {NID_rsa, CKM_RSA_PKCS, "RSA-PKCS"},
    {NID_id_GostR3411_94, CKM_GOSTR3411, "GOSTR3411"},
    {NID_id_GostR3411_2012_256, CKM_GOSTR3411_12_256, "GOSTR3411_12_256"},
    {NID_id_GostR3411_2012_512, CKM_GOSTR3411_12_512, "GOSTR3411_12_512"},
    {NID_id_GostR3410_2001, CKM_GOSTR3410, "GOSTR3410"},
    {NID_id_GostR3410_2012_256, CKM_GOSTR3410, "GOSTR3410_2012_256"},
    {NID_id_GostR3410_2012_512, CKM_GOSTR3410_512, "GOSTR3410_2012_512"},
    {NID_id_GostR3411_94_with_GostR3410_2001, CKM_GOSTR3410_WITH_GOSTR3411, "GOSTR3410-WITH-GOSTR3411"},
    {NID_id_tc26_signwithdigest_gost3410_2012_256, CKM_GOSTR3410_WITH_GOSTR3411_12_256,
     "GOSTR3410-WITH-GOSTR3411_12_256"},
    {NID_id_tc26_signwithdigest_gost3410_2012_512, CKM_GOSTR3410_WITH_GOSTR3411_12_512,
     "GOSTR3410-WITH-GOSTR3411_12_512"},
    {0, 0, nullptr},
};

CK_MECHANISM_TYPE nid_to_p11_mechanism_type(int nid) {
    for (const p11_mechanism_nid* row = p11MechanismNids; row->name != nullptr; ++row)
        if (row->nid == nid) return row->mechanism;
    return 0;
}

int nid_to_p11_key_type(int nid) {
    return nid == NID_id_GostR3410_2012_512 ? static_cast<int>(CKK_GOSTR3410_512)
                                            : static_cast<int>(CKK_GOSTR3410);
}

void claim_engine(const std::shared_ptr<Session>& session, const log_site& site) {
    if (engine_in_use.exchange(true, std::memory_order_seq_cst)) {
        if (logger.isEnabledFor(log4cplus::ERROR_LOG_LEVEL))
            log_forced(log4cplus::ERROR_LOG_LEVEL, L"error while locking OPENSSL P11 engine", site);
        throw process_error(300, "error while locking OPENSSL P11 engine");
    }
    engine_ctx.slot = session->getSlot();
    engine_ctx.session = session;
}

void release_engine() noexcept {
    engine_in_use.store(false, std::memory_order_seq_cst);
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

#ifdef ZORVO_ENGINE
ENGINE* p11_engine = nullptr;
const int p11_pkey_nids[3] = {NID_id_GostR3410_2001, NID_id_GostR3410_2012_256, NID_id_GostR3410_2012_512};

namespace {

// The engine's method selector contract, shared by both method kinds.
template <typename Method>
int select_method(Method** method, const int** nids, int nid, Method* gost2001, Method* gost2012_256,
                  Method* gost2012_512) {
    if (method == nullptr) {
        *nids = p11_pkey_nids;
        return 3;
    }
    switch (nid) {
        case NID_id_GostR3410_2012_256:
            *method = gost2012_256;
            return 1;
        case NID_id_GostR3410_2012_512:
            *method = gost2012_512;
            return 1;
        case NID_id_GostR3410_2001:
            *method = gost2001;
            return 1;
        default:
            *method = nullptr;
            return 0;
    }
}

}  // namespace

int p11_pkey_meths(ENGINE*, EVP_PKEY_METHOD** pmeth, const int** nids, int nid) {
    return select_method(pmeth, nids, nid, pmeth_GostR3410_2001, pmeth_GostR3410_2012_256,
                         pmeth_GostR3410_2012_512);
}

int p11_pkey_asn1_meths(ENGINE*, EVP_PKEY_ASN1_METHOD** ameth, const int** nids, int nid) {
    return select_method(ameth, nids, nid, ameth_GostR3410_2001, ameth_GostR3410_2012_256,
                         ameth_GostR3410_2012_512);
}

namespace {
// The engine keeps the id and name pointers for the life of the process.
const char kEngineId[] = "zorvo_pkcs11";
}  // namespace

void reg_pkcs11_engine() {
    // A second engine with the same id would be refused by ENGINE_add and leak.
    static std::once_flag once;
    std::call_once(once, [] {
        OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
        OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
        ENGINE* e = ENGINE_new();
        ENGINE_set_id(e, kEngineId);
        ENGINE_set_name(e, kEngineId);
        p11_gost_init();
        ENGINE_set_pkey_meths(e, p11_pkey_meths);
        ENGINE_register_pkey_meths(e);
        ENGINE_set_pkey_asn1_meths(e, p11_pkey_asn1_meths);
        ENGINE_register_pkey_asn1_meths(e);
        p11_md_init(e);
        ENGINE_set_ex_data(e, 0, &engine_ctx);
        ENGINE_add(e);
        p11_engine = e;
    });
}

OSSL_LIB_CTX* openssl_libctx() { return nullptr; }
#endif

}  // namespace p11
