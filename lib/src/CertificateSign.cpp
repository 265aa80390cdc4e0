// Signing with a certificate's key: the one-shot CMS signature and the start of a streaming one.
#include <openssl/buffer.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include "Certificate.h"
#include "Signer.h"
#include "log.h"
#include "ossl_ptr.h"
#include "p11_ossl.h"
#include "sign_util.h"
#ifndef ZORVO_ENGINE
#include <cstring>

#include "p11_prov_cms.h"
#endif

namespace p11 {

std::string Certificate::signOnIt(std::unique_ptr<Session::LoginToken> token, const char* data,
                                  bool attached) {
    (void)token;  // held until the signature is made; its end logs the user out
    P11_DEBUG("try to sign on a certificate");
    auto s = lock_or_throw(session, 12, "failed to get session", P11_SITE);
    claim_engine(s, P11_SITE);  // deliberately never given back by this path
    P11_DEBUG("prepare private key structure");
    auto self = shared_from_this();
    Session::evp_pkey_handle key = s->get_private_key_by_x509(self);

    ERR_clear_error();
#ifndef ZORVO_ENGINE
    P11_DEBUG("signing initialization");
    P11_DEBUG("signer adding");
    signed_data message(key.get(), x509.get(), attached);
    P11_DEBUG("signing finalization");
    std::string der;
    if (!message.update(data, std::strlen(data)) || !message.finish(der))
        fail_openssl("error while signing finalization", P11_SITE);
    return pem_of_der(der);
#else
    const unsigned int flags = CMS_BINARY | CMS_PARTIAL | (attached ? 0 : CMS_DETACHED);
    ossl::bio_ptr in(BIO_new_mem_buf(data, -1));
    if (!in) fail_openssl("error while allocating BIO memory buffer", P11_SITE);
    P11_DEBUG("signing initialization");
    ossl::cms_ptr cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    if (!cms) fail_openssl("error while signing initialization", P11_SITE);
    P11_DEBUG("signer adding");
    signer_certificate signer(x509.get());
    if (CMS_add1_signer(cms.get(), signer.get(), key.get(), nullptr, flags) == nullptr)
        fail_openssl("error while signer adding", P11_SITE);
    P11_DEBUG("signing finalization");
    if (CMS_final(cms.get(), in.get(), nullptr, flags) != 1)
        fail_openssl("error while signing finalization", P11_SITE);
    return write_pem(cms.get());
#endif
}

std::shared_ptr<Signer> Certificate::startSigning(std::unique_ptr<Session::LoginToken> token, bool attached) {
    return startSigning(std::move(token), attached, nullptr);
}

std::shared_ptr<Signer> Certificate::startSigning(std::unique_ptr<Session::LoginToken> token, bool attached,
                                                  pem_sink sink) {
    P11_DEBUG("start signing on a certificate");
    auto s = lock_or_throw(session, 12, "failed to get session", P11_SITE);
    auto self = shared_from_this();
    return std::make_shared<Signer>(s, std::move(token), self, attached, std::move(sink));
}

}  // namespace p11
