#include "sign_util.h"

#include <algorithm>
#include <cstring>

#include <openssl/buffer.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "Signer.h"
#include "log.h"
#include "p11_ossl_eng.h"
#ifndef ZORVO_ENGINE
#include "p11_prov.h"
#endif

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

X509* x509_from_der(const unsigned char* der, long length) {
    X509* cert = X509_new_ex(openssl_libctx(), nullptr);
    if (cert == nullptr) return nullptr;
    // On failure d2i frees the object it was given.
    return d2i_X509(&cert, &der, length);
}

md_ptr digest_by_nid(int nid) {
#ifdef ZORVO_ENGINE
    // Static digests and the engine's: EVP_MD_free leaves them alone.
    return md_ptr(const_cast<EVP_MD*>(EVP_get_digestbyname(OBJ_nid2sn(nid))));
#else
    return fetch_md(OBJ_nid2sn(nid));
#endif
}

void put_header(der_buffer& out, unsigned char tag, size_t length) {
    out.push_back(tag);
    if (length < 0x80) {
        out.push_back(static_cast<unsigned char>(length));
        return;
    }
    unsigned char digits[sizeof length];
    int count = 0;
    for (size_t rest = length; rest != 0; rest >>= 8) digits[count++] = static_cast<unsigned char>(rest);
    out.push_back(static_cast<unsigned char>(0x80 | count));
    while (count > 0) out.push_back(digits[--count]);
}

der_buffer tlv(unsigned char tag, const der_buffer& content) {
    der_buffer out;
    put_header(out, tag, content.size());
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

der_buffer digest_info(int digestNid, const unsigned char* digest, size_t length) {
    std::unique_ptr<X509_ALGOR, ossl::Deleter<X509_ALGOR, X509_ALGOR_free>> algorithm(X509_ALGOR_new());
    const ASN1_OBJECT* oid = OBJ_nid2obj(digestNid);
    if (!algorithm || oid == nullptr || OBJ_length(oid) == 0 || length > 64 ||
        X509_ALGOR_set0(algorithm.get(), OBJ_dup(oid), V_ASN1_NULL, nullptr) != 1)
        return {};
    der_buffer content = der_of(algorithm.get(), i2d_X509_ALGOR);
    put_header(content, V_ASN1_OCTET_STRING, length);
    content.insert(content.end(), digest, digest + length);
    return sequence_of(content);
}

int key_nid(const EVP_PKEY* key) {
    const int id = EVP_PKEY_get_id(key);
    if (id > 0) return id;
    const char* name = EVP_PKEY_get0_type_name(key);
    return name != nullptr ? OBJ_txt2nid(name) : NID_undef;
}

der_buffer issuer_serial(X509* cert) {
    using general_names_ptr =
        std::unique_ptr<GENERAL_NAMES, ossl::Deleter<GENERAL_NAMES, GENERAL_NAMES_free>>;
    general_names_ptr issuer(GENERAL_NAMES_new());
    GENERAL_NAME* name = GENERAL_NAME_new();
    GENERAL_NAME_set0_value(name, GEN_DIRNAME, X509_NAME_dup(X509_get_issuer_name(cert)));
    sk_GENERAL_NAME_push(issuer.get(), name);
    der_buffer content;
    append_der(content, issuer.get(), i2d_GENERAL_NAMES);
    append_der(content, X509_get0_serialNumber(cert), i2d_ASN1_INTEGER);
    return sequence_of(content);
}

// OpenSSL 3 already knows the identifier under another name, so creating it fails: the
// existing object is the same on the wire.
int signing_certificate_nid() {
    static const char kOid[] = "1.2.840.113549.1.9.16.2.47";
    int nid = OBJ_sn2nid(ESS_OBJ_SN);
    if (nid != NID_undef) return nid;
    ERR_set_mark();
    nid = OBJ_create(kOid, ESS_OBJ_SN, "id-aa-signingCertificateV2");
    ERR_pop_to_mark();
    return nid != NID_undef ? nid : OBJ_txt2nid(kOid);
}

std::string pem_of_der(const std::string& der) {
    ossl::bio_ptr out(BIO_new(BIO_s_mem()));
    if (!out) fail_openssl("error while allocating BIO memory buffer", P11_SITE);
    P11_DEBUG("writing PEM");
    if (PEM_write_bio(out.get(), "CMS", "", reinterpret_cast<const unsigned char*>(der.data()),
                      static_cast<long>(der.size())) <= 0)
        fail_openssl("error while writing PEM", P11_SITE);
    BUF_MEM* buffer = nullptr;
    BIO_get_mem_ptr(out.get(), &buffer);
    return std::string(buffer->data, buffer->length);
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
    const der_buffer der = der_of(static_cast<const X509*>(cert), i2d_X509);
    if (der.empty()) return;
    fresh_.reset(x509_from_der(der.data(), static_cast<long>(der.size())));
    ERR_clear_error();
}

}  // namespace p11
