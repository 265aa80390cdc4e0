#include <cstdlib>
#include <mutex>
#include <vector>

#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "log.h"
#include "ossl_ptr.h"
#include "p11_ossl.h"
#include "sign_util.h"

namespace p11 {

namespace {

int (*default_finish)(RSA*) = nullptr;

// Frees the key record with the RSA object; the default clean-up follows.
int p11_rsa_finish(RSA* rsa) {
    std::unique_ptr<p11_rsa_key_data> record(static_cast<p11_rsa_key_data*>(RSA_get_ex_data(rsa, 0)));
    RSA_set_ex_data(rsa, 0, nullptr);
    return default_finish != nullptr ? default_finish(rsa) : 1;
}

int p11_rsa_pkey_sign(int type, const unsigned char* m, unsigned int m_len, unsigned char* sigret,
                      unsigned int* siglen, const RSA* rsa) {
    auto* record = static_cast<p11_rsa_key_data*>(RSA_get_ex_data(rsa, 0));
    if (record == nullptr) {
        P11_ERROR("P11_RSA_KEY_APP_DATA failed");
        return 0;
    }
    const BIGNUM* n = nullptr;
    RSA_get0_key(rsa, &n, nullptr, nullptr);
    *siglen = static_cast<unsigned int>((BN_num_bits(n) + 7) / 8);

    const der_buffer der = digest_info(type, m, m_len);
    if (der.empty() || der.size() + 11 > *siglen) return 0;

    size_t len = *siglen;  // the token reports at full size_t width; the caller's is 32-bit
    int ok = p11_pkey_sign(record->slot, record->session, record->key, NID_rsa, sigret, &len, der.data(),
                           der.size());
    if (ok) *siglen = static_cast<unsigned int>(len);
    return ok;
}

}  // namespace

RSA_METHOD* p11_get_rsa_method() {
    static RSA_METHOD* ops = [] {
        RSA_METHOD* m = RSA_meth_dup(RSA_get_default_method());
        default_finish = RSA_meth_get_finish(m);
        RSA_meth_set_sign(m, p11_rsa_pkey_sign);
        RSA_meth_set_finish(m, p11_rsa_finish);
        return m;
    }();
    return ops;
}

EVP_PKEY* token_rsa_key(std::weak_ptr<Slot> slot, std::weak_ptr<Session> session, CK_OBJECT_HANDLE key,
                        X509_PUBKEY* pub) {
    using rsa_ptr = std::unique_ptr<RSA, ossl::Deleter<RSA, RSA_free>>;
    ossl::evp_pkey_ptr certKey(X509_PUBKEY_get(pub));
    const RSA* certRsa = certKey ? EVP_PKEY_get0_RSA(certKey.get()) : nullptr;
    if (certRsa == nullptr) return nullptr;
    const BIGNUM *n = nullptr, *e = nullptr;
    RSA_get0_key(certRsa, &n, &e, nullptr);
    auto record = std::make_unique<p11_rsa_key_data>();
    record->slot = std::move(slot);
    record->session = std::move(session);
    record->key = key;
    rsa_ptr rsa(RSA_new());
    ossl::evp_pkey_ptr pkey(EVP_PKEY_new());
    // Method and record go on before the key is assigned: OpenSSL 3 then keeps the key on the
    // legacy path (a foreign key), and signing reaches our callback.
    RSA_set_method(rsa.get(), p11_get_rsa_method());
    p11_rsa_attach(rsa.get(), std::move(record));
    RSA_set0_key(rsa.get(), BN_dup(n), BN_dup(e), nullptr);
    EVP_PKEY_set1_RSA(pkey.get(), rsa.get());
    return pkey.release();
}

void p11_rsa_attach(RSA* rsa, std::unique_ptr<p11_rsa_key_data> record) {
    RSA_set_ex_data(rsa, 0, record.release());  // owned by the RSA; freed in p11_rsa_finish
}

}  // namespace p11
