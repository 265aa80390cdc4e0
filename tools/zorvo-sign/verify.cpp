// zorvo-sign verify: a CMS signature, ours or anyone's, RSA or GOST, checked and described.
#include <openssl/err.h>
#include <openssl/pem.h>  // before cms.h, which declares its PEM functions only then

#include <openssl/cms.h>
#include <openssl/x509_vfy.h>

#include <iostream>
#include <optional>

#include "commands.h"
#include "files.h"
#include "tokens.h"

namespace zs {
namespace {

using store_ptr = std::unique_ptr<X509_STORE, p11::ossl::Deleter<X509_STORE, X509_STORE_free>>;

// PEM, else DER.
p11::ossl::cms_ptr read_signature(const std::string& path) {
    p11::ossl::bio_ptr in(BIO_new_file(path.c_str(), "rb"));
    if (!in) throw Failure(kFile, "cannot read " + path + ": " + ERR_reason_error_string(ERR_get_error()));
    p11::ossl::cms_ptr cms = p11::read_cms(in.get());
    if (!cms || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed)
        throw Failure(kFile, path + " is no CMS signature");
    return cms;
}

// OpenSSL's verdict: its last error, with its detail ("Verify error: certificate has expired").
std::string openssl_reason() {
    const char* data = nullptr;
    int flags = 0;
    const unsigned long e = ERR_peek_last_error_all(nullptr, nullptr, nullptr, &data, &flags);
    std::string text =
        e ? ERR_reason_error_string(e) ? ERR_reason_error_string(e) : "unknown error" : "no reason given";
    if (e && data && *data && (flags & ERR_TXT_STRING)) text += std::string(": ") + data;
    ERR_clear_error();
    return text;
}

std::string attribute_text(CMS_SignerInfo* si, int nid) {
    X509_ATTRIBUTE* a = CMS_signed_get_attr(si, CMS_signed_get_attr_by_NID(si, nid, -1));
    const ASN1_TYPE* value = a ? X509_ATTRIBUTE_get0_type(a, 0) : nullptr;
    if (!value || (value->type != V_ASN1_UTCTIME && value->type != V_ASN1_GENERALIZEDTIME)) return "";
    p11::ossl::bio_ptr out(BIO_new(BIO_s_mem()));
    ASN1_TIME_print(out.get(), value->value.utctime);
    char* text = nullptr;
    const long length = BIO_get_mem_data(out.get(), &text);
    return std::string(text, static_cast<size_t>(length));
}

// The signing-certificate-v2 attribute against the signer's certificate.
std::string signing_certificate_v2(CMS_SignerInfo* si, X509* signer) {
    switch (p11::signing_certificate_v2_check(si, signer)) {
        case -1:
            return "absent";
        case 1:
            return "matches the certificate";
        default:
            return "DOES NOT MATCH the certificate";
    }
}

}  // namespace

int run_verify(const Options& o) {
    auto cms = read_signature(o.sig);
    Input signature(o.sig);
    std::optional<Input> data;
    if (!o.in.empty()) data.emplace(o.in);
    std::optional<Output> output;
    if (!o.out.empty()) output.emplace(o.out, data ? *data : signature);
    p11::ossl::bio_ptr content(o.in.empty()  ? nullptr
                               : o.in == "-" ? BIO_new_fd(0, BIO_NOCLOSE)
                                             : BIO_new_file(o.in.c_str(), "rb"));
    p11::ossl::bio_ptr out(BIO_new(o.out.empty() ? BIO_s_null() : BIO_s_mem()));
    store_ptr store(X509_STORE_new());
    if (!o.ca.empty()) {
        if (X509_STORE_load_file_ex(store.get(), o.ca.c_str(), p11::openssl_libctx(), nullptr) != 1)
            throw Failure(kFile, "cannot read trust anchors from " + o.ca + ": " + openssl_reason());
        // Any anchor in the file ends the chain, and signing certificates need no particular purpose.
        X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
        X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);
    }
    ERR_clear_error();
    const unsigned flags = CMS_BINARY | (o.noChain ? CMS_NO_SIGNER_CERT_VERIFY : 0);
    const bool valid = p11::cms_verify(cms.get(), nullptr, store.get(), content.get(), out.get(), flags) == 1;
    const std::string why = valid ? "" : openssl_reason();

    CMS_SignerInfo* si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
    X509* signer = nullptr;
    X509_ALGOR* digest = nullptr;
    if (si) CMS_SignerInfo_get0_algs(si, nullptr, &signer, &digest, nullptr);
    std::cout << "signature:  " << (valid ? "verifies" : "DOES NOT VERIFY (" + why + ")") << "\n";
    if (signer)
        std::cout << "signer:     " << printable(rfc4514(X509_get_subject_name(signer))) << "\n"
                  << "issuer:     " << printable(rfc4514(X509_get_issuer_name(signer))) << "\n"
                  << "serial:     " << serial_hex(signer) << "\n";
    if (si) {
        const std::string time = attribute_text(si, NID_pkcs9_signingTime);
        std::cout << "signed at:  " << (time.empty() ? "(not said)" : time) << "\n"
                  << "digest:     " << (digest ? OBJ_nid2ln(OBJ_obj2nid(digest->algorithm)) : "?") << "\n"
                  << "signing-certificate-v2: " << signing_certificate_v2(si, signer) << "\n";
    }
    std::cout << "chain:      "
              << (o.noChain
                      ? "not checked (--no-chain): only the signature against the certificate it carries"
                      : "checked up to the trust anchors in " + o.ca)
              << "\n";
    if (!valid) throw Failure(kInvalid, "the signature does not verify: " + why);
    if (output) {
        char* text = nullptr;
        const long length = BIO_get_mem_data(out.get(), &text);
        output->write(text, static_cast<size_t>(length));
        output->commit();
    }
    return kOk;
}

}  // namespace zs
