#include <openssl/err.h>

#include "Session.h"
#include "Slot.h"
#include "log.h"
#include "p11_ossl.h"

namespace p11 {

namespace {
thread_local CK_RV lastSignRv = CKR_OK;
}  // namespace

CK_RV last_sign_rv() noexcept { return lastSignRv; }

int p11_pkey_sign(std::weak_ptr<Slot> slot, std::weak_ptr<Session> session, CK_OBJECT_HANDLE key, int nid,
                  unsigned char* sig, size_t* siglen, const unsigned char* tbs, size_t tbslen) {
    auto s = slot.lock();
    if (!s) {
        P11_ERROR("failed to get slot");
        return 0;
    }
    auto ses = session.lock();
    if (!ses) {
        P11_ERROR("failed to get session");
        return 0;
    }
    try {
        CK_MECHANISM mechanism{};
        mechanism.mechanism = nid_to_p11_mechanism_type(nid);
        const CK_FUNCTION_LIST* f = s->operator->();
        CK_RV rv = lastSignRv = f->C_SignInit(ses->getHandle(), &mechanism, key);
        if (rv != CKR_OK) {
            log_p11_error("C_SignInit()", rv);
            return 0;
        }
        CK_ULONG len = *siglen;
        rv = lastSignRv = f->C_Sign(ses->getHandle(), const_cast<CK_BYTE_PTR>(tbs), tbslen, sig, &len);
        if (rv == CKR_OK) {
            *siglen = len;
            return 1;
        }
        log_p11_error("C_Sign()", rv);
        // The reason carries the PKCS#11 value: the streaming signer tells a cancellation by it.
#ifdef ZORVO_ENGINE
        ERR_put_error(ERR_LIB_RSA, 0, static_cast<int>(rv), "p11_ossl_sign", 35);
#else
        ERR_new();
        ERR_set_debug("p11_ossl_sign", 35, nullptr);
        ERR_set_error(ERR_LIB_RSA, static_cast<int>(rv), nullptr);
#endif
        return 0;
    } catch (const process_error&) {
        // The module went away under the slot (already logged); a callback never throws.
        return 0;
    }
}

}  // namespace p11
