// Reading and checking CMS signatures on either backend: what hosts and zorvo-sign verify with.
#include <cstring>

#include <openssl/err.h>
#include <openssl/pem.h>  // before cms.h, which declares its PEM functions only then

#include <openssl/cms.h>

#include "Signer.h"
#include "p11.h"
#include "p11_ossl_eng.h"
#include "sign_util.h"
#ifndef ZORVO_ENGINE
#include "p11_prov_cms.h"
#endif

namespace p11 {

namespace {

using sequence_ptr = std::unique_ptr<ASN1_SEQUENCE_ANY, void (*)(ASN1_SEQUENCE_ANY*)>;

// The members of the DER SEQUENCE in `type`; null when it is none.
sequence_ptr members_of(const ASN1_TYPE* type) {
    const auto free = [](ASN1_SEQUENCE_ANY* s) { sk_ASN1_TYPE_pop_free(s, ASN1_TYPE_free); };
    if (type == nullptr || type->type != V_ASN1_SEQUENCE) return sequence_ptr(nullptr, free);
    const unsigned char* p = ASN1_STRING_get0_data(type->value.sequence);
    return sequence_ptr(d2i_ASN1_SEQUENCE_ANY(nullptr, &p, ASN1_STRING_length(type->value.sequence)), free);
}

const ASN1_TYPE* member(const sequence_ptr& s, int i) {
    return s && i < sk_ASN1_TYPE_num(s.get()) ? sk_ASN1_TYPE_value(s.get(), i) : nullptr;
}

}  // namespace

ossl::cms_ptr read_cms(BIO* in) {
    CMS_ContentInfo* cms = CMS_ContentInfo_new_ex(openssl_libctx(), nullptr);
    if (cms != nullptr && PEM_read_bio_CMS(in, &cms, nullptr, nullptr) != nullptr) return ossl::cms_ptr(cms);
    CMS_ContentInfo_free(cms);  // whatever the failed reader left of it
    ERR_clear_error();
    (void)BIO_reset(in);  // a pipe cannot go back: DER then fails
    cms = CMS_ContentInfo_new_ex(openssl_libctx(), nullptr);
    if (cms != nullptr && d2i_CMS_bio(in, &cms) != nullptr) return ossl::cms_ptr(cms);
    CMS_ContentInfo_free(cms);
    ERR_clear_error();
    return nullptr;
}

int cms_verify(CMS_ContentInfo* cms, STACK_OF(X509) * certs, X509_STORE* store, BIO* detached, BIO* out,
               unsigned int flags) {
#ifndef ZORVO_ENGINE
    // OpenSSL's CMS code finds digests by NID; the provider's have none.
    STACK_OF(CMS_SignerInfo)* infos = cms ? CMS_get0_SignerInfos(cms) : nullptr;
    for (int i = 0; i < sk_CMS_SignerInfo_num(infos); ++i) {
        X509_ALGOR* digest = nullptr;
        CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(infos, i), nullptr, nullptr, &digest, nullptr);
        const ASN1_OBJECT* oid = nullptr;
        X509_ALGOR_get0(&oid, nullptr, nullptr, digest);
        if (EVP_get_digestbyobj(oid) == nullptr)
            return verify_signed_data(cms, certs, store, detached, out, flags);
    }
#endif
    return CMS_verify(cms, certs, store, detached, out, flags);
}

int x509_verify(X509* cert, EVP_PKEY* key) {
#ifndef ZORVO_ENGINE
    // OpenSSL looks the certificate's digest up by NID, which the provider's digests lack.
    int digestNid = NID_undef, keyNid = NID_undef;
    if (cert != nullptr && key != nullptr &&
        OBJ_find_sigid_algs(X509_get_signature_nid(cert), &digestNid, &keyNid) == 1 &&
        EVP_get_digestbynid(digestNid) == nullptr) {
        const md_ptr md = digest_by_nid(digestNid);
        const ASN1_BIT_STRING* signature = nullptr;
        X509_get0_signature(&signature, nullptr, cert);
        unsigned char* tbs = nullptr;
        const int length = i2d_re_X509_tbs(cert, &tbs);
        std::unique_ptr<unsigned char, void (*)(void*)> owned(tbs, OPENSSL_freeFunc);
        md_ctx_ptr checking(EVP_MD_CTX_new());
        if (md && checking && length > 0 &&
            EVP_DigestVerifyInit_ex(checking.get(), nullptr, EVP_MD_get0_name(md.get()), openssl_libctx(),
                                    nullptr, key, nullptr) == 1 &&
            EVP_DigestVerify(checking.get(), ASN1_STRING_get0_data(signature),
                             static_cast<size_t>(ASN1_STRING_length(signature)), tbs,
                             static_cast<size_t>(length)) == 1)
            return 1;
        ERR_raise(ERR_LIB_X509, X509_R_CERTIFICATE_VERIFICATION_FAILED);
        return 0;
    }
#endif
    return X509_verify(cert, key);
}

int signing_certificate_v2_check(CMS_SignerInfo* si, X509* cert) {
    X509_ATTRIBUTE* a =
        CMS_signed_get_attr(si, CMS_signed_get_attr_by_NID(si, signing_certificate_nid(), -1));
    const ASN1_TYPE* value = a ? X509_ATTRIBUTE_get0_type(a, 0) : nullptr;
    if (value == nullptr) return -1;
    // SigningCertificateV2 { certs SEQUENCE OF ESSCertIDv2 { hashAlgorithm DEFAULT sha256,
    // certHash, issuerSerial OPTIONAL }, ... }: the first entry names the signer.
    const sequence_ptr outer = members_of(value), list = members_of(member(outer, 0)),
                       id = members_of(member(list, 0));
    int at = 0, hashNid = NID_sha256;
    if (const ASN1_TYPE* first = member(id, 0); first && first->type == V_ASN1_SEQUENCE) {
        const unsigned char* p = ASN1_STRING_get0_data(first->value.sequence);
        std::unique_ptr<X509_ALGOR, ossl::Deleter<X509_ALGOR, X509_ALGOR_free>> algorithm(
            d2i_X509_ALGOR(nullptr, &p, ASN1_STRING_length(first->value.sequence)));
        const ASN1_OBJECT* oid = nullptr;
        if (algorithm) X509_ALGOR_get0(&oid, nullptr, nullptr, algorithm.get());
        hashNid = oid ? OBJ_obj2nid(oid) : NID_undef;
        ++at;
    }
    const ASN1_TYPE* hash = member(id, at);
    const ASN1_TYPE* issuer = member(id, at + 1);
    const md_ptr md = digest_by_nid(hashNid);
    const der_buffer der = cert ? der_of(static_cast<const X509*>(cert), i2d_X509) : der_buffer();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (!md || !hash || hash->type != V_ASN1_OCTET_STRING || der.empty() ||
        EVP_Digest(der.data(), der.size(), digest, &digestLength, md.get(), nullptr) != 1 ||
        ASN1_STRING_length(hash->value.octet_string) != static_cast<int>(digestLength) ||
        std::memcmp(ASN1_STRING_get0_data(hash->value.octet_string), digest, digestLength) != 0)
        return 0;
    if (issuer == nullptr) return 1;
    const der_buffer expected = issuer_serial(cert);
    return issuer->type == V_ASN1_SEQUENCE &&
                   ASN1_STRING_length(issuer->value.sequence) == static_cast<int>(expected.size()) &&
                   std::memcmp(ASN1_STRING_get0_data(issuer->value.sequence), expected.data(),
                               expected.size()) == 0
               ? 1
               : 0;
}

}  // namespace p11
