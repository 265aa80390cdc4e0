#include "sign_util.h"

#include <cstring>

#include <openssl/buffer.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include "log.h"

namespace p11 {

unsigned long log_openssl_error(const char* message, const log_site& site) {
    const unsigned long code = ERR_get_error();
    if (logger.isEnabledFor(log4cplus::ERROR_LOG_LEVEL)) {
        char text[256];
        ERR_error_string_n(code, text, sizeof text);
        log_forced(log4cplus::ERROR_LOG_LEVEL, widen_bytes(std::string(message) + text), site);
    }
    return code;
}

void fail_openssl(const char* message, const log_site& site) {
    log_openssl_error(message, site);
    throw process_error(300, message);
}

std::string write_pem(CMS_ContentInfo* cms) {
    ossl::bio_ptr out(BIO_new(BIO_s_mem()));
    if (!out) fail_openssl("error while allocating BIO memory buffer", P11_SITE);
    P11_DEBUG("writing PEM");
    if (PEM_write_bio_CMS_stream(out.get(), cms, nullptr, 0) != 1)
        fail_openssl("error while writing PEM", P11_SITE);
    BUF_MEM* buffer = nullptr;
    BIO_get_mem_ptr(out.get(), &buffer);
    return std::string(buffer->data, strnlen(buffer->data, buffer->length));
}

signer_certificate::signer_certificate(X509* cert) : cert_(cert) {
    if (X509_get0_pubkey(cert) != nullptr) return;
    ERR_clear_error();  // the failed decode's errors are not this signature's
    unsigned char* encoded = nullptr;
    const int len = i2d_X509(cert, &encoded);
    std::unique_ptr<unsigned char, void (*)(void*)> der(encoded, OPENSSL_freeFunc);
    if (len <= 0) return;
    const unsigned char* p = der.get();
    fresh_.reset(d2i_X509(nullptr, &p, len));
    ERR_clear_error();
}

}  // namespace p11
