#include "p11_prov_cms.h"

#include <algorithm>
#include <ctime>

#include <openssl/err.h>
#include <openssl/obj_mac.h>
#include <openssl/x509_vfy.h>

#include "Signer.h"
#include "log.h"
#include "p11_ossl_eng.h"
#include "sign_util.h"

namespace p11 {

namespace {

using algor_ptr = std::unique_ptr<X509_ALGOR, ossl::Deleter<X509_ALGOR, X509_ALGOR_free>>;
using pkey_ctx_ptr = std::unique_ptr<EVP_PKEY_CTX, ossl::Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;

constexpr unsigned char kSequence = 0x30, kSet = 0x31, kContext0 = 0xA0, kOctets = 0x04,
                        kConstructedOctets = 0x24;

der_buffer join(std::initializer_list<der_buffer> parts) {
    der_buffer out;
    for (const der_buffer& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

der_buffer oid(int nid) { return der_of(OBJ_nid2obj(nid), i2d_ASN1_OBJECT); }

// AlgorithmIdentifier with NULL parameters, or none.
der_buffer algorithm(int nid, bool nullParameter) {
    return tlv(kSequence, nullParameter ? join({oid(nid), {0x05, 0x00}}) : oid(nid));
}

der_buffer attribute(int nid, const der_buffer& value) {
    return tlv(kSequence, join({oid(nid), tlv(kSet, value)}));
}

// What OpenSSL announces by default, the GOST R 34.11 digests included.
// The attribute's value, encoded once.
const der_buffer& capabilities() {
    static const der_buffer value = [] {
        const struct {
            int nid;
            int bits;
        } rows[] = {{NID_aes_256_cbc, -1},
                    {NID_id_GostR3411_2012_256, -1},
                    {NID_id_GostR3411_2012_512, -1},
                    {NID_id_GostR3411_94, -1},
                    {NID_aes_192_cbc, -1},
                    {NID_aes_128_cbc, -1},
                    {NID_des_ede3_cbc, -1},
                    {NID_rc2_cbc, 128},
                    {NID_rc2_cbc, 64},
                    {NID_des_cbc, -1},
                    {NID_rc2_cbc, 40}};
        STACK_OF(X509_ALGOR)* list = nullptr;
        for (const auto& row : rows) CMS_add_simple_smimecap(&list, row.nid, row.bits);
        der_buffer out = der_of(list, i2d_X509_ALGORS);
        sk_X509_ALGOR_pop_free(list, X509_ALGOR_free);
        return out;
    }();
    return value;
}

// DER orders a SET OF by the encodings of its members.
der_buffer set_of(std::vector<der_buffer> members) {
    std::sort(members.begin(), members.end());
    der_buffer content;
    for (const der_buffer& m : members) content.insert(content.end(), m.begin(), m.end());
    return tlv(kSet, content);
}

}  // namespace

signed_data::signed_data(EVP_PKEY* key, X509* cert, bool attached)
    : key_(key), cert_(cert), attached_(attached), hashing_(EVP_MD_CTX_new()) {
    const int keyNid = key_nid(key);
    const int digestNid = gost_digest_nid(keyNid) != NID_undef ? gost_digest_nid(keyNid) : NID_sha256;
    md_ = fetch_md(OBJ_nid2sn(digestNid));
    if (!md_ || !hashing_ || EVP_DigestInit_ex(hashing_.get(), md_.get(), nullptr) != 1) {
        ERR_raise(ERR_LIB_CMS, CMS_R_UNKNOWN_DIGEST_ALGORITHM);
        fail_openssl("error while signer adding", P11_SITE);
    }
    // Parameters NULL unless the digest says they are absent, as OpenSSL writes them.
    digestAlgorithm_ = algorithm(digestNid, !(EVP_MD_get_flags(md_.get()) & EVP_MD_FLAG_DIGALGID_ABSENT));
}

void signed_data::add_attribute(int nid, der_buffer value) { attributes_.push_back(attribute(nid, value)); }

bool signed_data::send(const der_buffer& bytes) {
    return BIO_write(out_, bytes.data(), static_cast<int>(bytes.size())) == static_cast<int>(bytes.size());
}

bool signed_data::update(const void* data, size_t length) {
    if (length == 0) return true;
    if (EVP_DigestUpdate(hashing_.get(), data, length) != 1) return false;
    if (!attached_) return true;
    if (out_ == nullptr) {
        content_.append(static_cast<const char*>(data), length);
        return true;
    }
    der_buffer head;
    if (!started_) {
        // The content is the only part of unknown length: everything around it is open-ended.
        head = {kSequence, 0x80};
        const der_buffer start = join({oid(NID_pkcs7_signed),
                                       {kContext0, 0x80, kSequence, 0x80, 0x02, 0x01, 0x01},
                                       tlv(kSet, digestAlgorithm_),
                                       {kSequence, 0x80},
                                       oid(NID_pkcs7_data),
                                       {kContext0, 0x80, kConstructedOctets, 0x80}});
        head.insert(head.end(), start.begin(), start.end());
        started_ = true;
    }
    put_header(head, kOctets, length);
    return send(head) && BIO_write(out_, data, static_cast<int>(length)) == static_cast<int>(length);
}

bool signed_data::finish(std::string& der) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (EVP_DigestFinal_ex(hashing_.get(), digest, &digestLength) != 1) return false;

    std::unique_ptr<ASN1_TIME, ossl::Deleter<ASN1_TIME, ASN1_TIME_free>> now(X509_gmtime_adj(nullptr, 0));
    std::vector<der_buffer> attributes = attributes_;
    attributes.push_back(attribute(NID_pkcs9_contentType, oid(NID_pkcs7_data)));
    attributes.push_back(attribute(NID_pkcs9_signingTime, der_of(now.get(), i2d_ASN1_TIME)));
    attributes.push_back(
        attribute(NID_pkcs9_messageDigest, tlv(kOctets, der_buffer(digest, digest + digestLength))));
    attributes.push_back(attribute(NID_SMIMECapabilities, capabilities()));
    signedAttributes_ = set_of(attributes);

    md_ctx_ptr signing(EVP_MD_CTX_new());
    size_t length = 0;
    if (!signing ||
        EVP_DigestSignInit_ex(signing.get(), nullptr, EVP_MD_get0_name(md_.get()), openssl_libctx(), nullptr,
                              key_, nullptr) != 1 ||
        EVP_DigestSignUpdate(signing.get(), signedAttributes_.data(), signedAttributes_.size()) != 1 ||
        EVP_DigestSignFinal(signing.get(), nullptr, &length) != 1)
        return false;
    signature_.resize(length);
    if (EVP_DigestSignFinal(signing.get(), signature_.data(), &length) != 1) return false;
    signature_.resize(length);

    // The signed attributes are the SET signed, under an implicit [0] in the SignerInfo.
    der_buffer implicitAttributes = signedAttributes_;
    implicitAttributes[0] = kContext0;
    ASN1_OBJECT* keyAlgorithm = nullptr;
    X509_PUBKEY_get0_param(&keyAlgorithm, nullptr, nullptr, nullptr, X509_get_X509_PUBKEY(cert_));
    const der_buffer signerInfo =
        tlv(kSequence, join({{0x02, 0x01, 0x01},
                             tlv(kSequence, join({der_of(X509_get_issuer_name(cert_), i2d_X509_NAME),
                                                  der_of(X509_get0_serialNumber(cert_), i2d_ASN1_INTEGER)})),
                             digestAlgorithm_,
                             implicitAttributes,
                             algorithm(OBJ_obj2nid(keyAlgorithm), true),
                             tlv(kOctets, signature_)}));
    const der_buffer tail =
        join({tlv(kContext0, der_of(static_cast<const X509*>(cert_), i2d_X509)), tlv(kSet, signerInfo)});

    if (started_) {
        der.clear();
        return send(join({{0, 0, 0, 0, 0, 0}, tail, {0, 0, 0, 0, 0, 0}}));
    }
    der_buffer encapsulated = oid(NID_pkcs7_data);
    if (attached_) {
        const der_buffer octets = tlv(kOctets, der_buffer(content_.begin(), content_.end()));
        encapsulated = join({encapsulated, tlv(kContext0, octets)});
    }
    const der_buffer signedData =
        tlv(kSequence,
            join({{0x02, 0x01, 0x01}, tlv(kSet, digestAlgorithm_), tlv(kSequence, encapsulated), tail}));
    const der_buffer whole = tlv(kSequence, join({oid(NID_pkcs7_signed), tlv(kContext0, signedData)}));
    der.assign(whole.begin(), whole.end());
    return true;
}

bool signed_data::verifies() const {
    EVP_PKEY* pub = X509_get0_pubkey(cert_);
    md_ctx_ptr checking(EVP_MD_CTX_new());
    ERR_set_mark();  // a failed check is an answer
    const bool ok = pub != nullptr && checking && !signature_.empty() &&
                    EVP_DigestVerifyInit_ex(checking.get(), nullptr, EVP_MD_get0_name(md_.get()),
                                            openssl_libctx(), nullptr, pub, nullptr) == 1 &&
                    EVP_DigestVerify(checking.get(), signature_.data(), signature_.size(),
                                     signedAttributes_.data(), signedAttributes_.size()) == 1;
    ERR_pop_to_mark();
    return ok;
}

namespace {

int message_type() {
    static const int type = BIO_get_new_index() | BIO_TYPE_FILTER;
    return type;
}

BIO_METHOD* message_method() {
    static BIO_METHOD* method = [] {
        BIO_METHOD* m = BIO_meth_new(message_type(), "zorvo signed data");
        BIO_meth_set_write(m, [](BIO* b, const char* data, int length) -> int {
            return static_cast<signed_data*>(BIO_get_data(b))->update(data, static_cast<size_t>(length))
                       ? length
                       : -1;
        });
        BIO_meth_set_ctrl(m, [](BIO* b, int cmd, long number, void* pointer) -> long {
            BIO* next = BIO_next(b);
            return next != nullptr ? BIO_ctrl(next, cmd, number, pointer) : cmd == BIO_CTRL_FLUSH ? 1 : 0;
        });
        BIO_meth_set_create(m, [](BIO* b) -> int { return BIO_set_init(b, 1), 1; });
        BIO_meth_set_destroy(m, [](BIO* b) -> int {
            std::unique_ptr<signed_data> owned(static_cast<signed_data*>(BIO_get_data(b)));
            BIO_set_data(b, nullptr);
            return 1;
        });
        return m;
    }();
    return method;
}

}  // namespace

BIO* signed_data_bio(std::unique_ptr<signed_data> message, BIO* out) {
    BIO* b = BIO_new(message_method());
    if (b == nullptr) {
        BIO_free_all(out);
        return nullptr;
    }
    message->stream_to(out);
    BIO_set_data(b, message.release());
    return out != nullptr ? BIO_push(b, out) : b;
}

signed_data* signed_data_of(BIO* bio) {
    return bio != nullptr && BIO_method_type(bio) == message_type()
               ? static_cast<signed_data*>(BIO_get_data(bio))
               : nullptr;
}

bool attributes_verify(CMS_SignerInfo* si, EVP_PKEY* key) {
    // The signed attributes as they were signed: the DER SET OF them.
    std::vector<der_buffer> attributes;
    for (int i = 0; i < CMS_signed_get_attr_count(si); ++i)
        attributes.push_back(
            der_of(static_cast<const X509_ATTRIBUTE*>(CMS_signed_get_attr(si, i)), i2d_X509_ATTRIBUTE));
    X509_ALGOR* digestAlgorithm = nullptr;
    CMS_SignerInfo_get0_algs(si, nullptr, nullptr, &digestAlgorithm, nullptr);
    const ASN1_OBJECT* digestOid = nullptr;
    X509_ALGOR_get0(&digestOid, nullptr, nullptr, digestAlgorithm);
    const md_ptr md = fetch_md(digestOid);
    const ASN1_OCTET_STRING* signature = CMS_SignerInfo_get0_signature(si);
    const der_buffer signed_ = set_of(attributes);
    md_ctx_ptr checking(EVP_MD_CTX_new());
    const bool ok = key != nullptr && md && checking && !attributes.empty() &&
                    EVP_DigestVerifyInit_ex(checking.get(), nullptr, EVP_MD_get0_name(md.get()),
                                            openssl_libctx(), nullptr, key, nullptr) == 1 &&
                    EVP_DigestVerify(checking.get(), ASN1_STRING_get0_data(signature),
                                     static_cast<size_t>(ASN1_STRING_length(signature)), signed_.data(),
                                     signed_.size()) == 1;
    if (!ok) ERR_raise(ERR_LIB_CMS, CMS_R_VERIFICATION_FAILURE);
    return ok;
}

namespace {

// The signer's certificate up to an anchor in `store`, as OpenSSL's CMS_verify checks it.
bool chain_verifies(X509* signer, X509_STORE* store, STACK_OF(X509) * untrusted) {
    std::unique_ptr<X509_STORE_CTX, ossl::Deleter<X509_STORE_CTX, X509_STORE_CTX_free>> ctx(
        X509_STORE_CTX_new_ex(openssl_libctx(), nullptr));
    if (!ctx || X509_STORE_CTX_init(ctx.get(), store, signer, untrusted) != 1 ||
        X509_STORE_CTX_set_default(ctx.get(), "smime_sign") != 1)
        return false;
    // OpenSSL cannot check a certificate signed with a digest only the provider has: the library does.
    X509_STORE_CTX_set_verify_cb(ctx.get(), [](int ok, X509_STORE_CTX* c) -> int {
        X509* issuer = X509_STORE_CTX_get0_current_issuer(c);
        if (ok || X509_STORE_CTX_get_error(c) != X509_V_ERR_CERT_SIGNATURE_FAILURE || issuer == nullptr)
            return ok;
        ERR_set_mark();
        const bool signedByIssuer =
            x509_verify(X509_STORE_CTX_get_current_cert(c), X509_get0_pubkey(issuer)) == 1;
        ERR_pop_to_mark();
        if (signedByIssuer) X509_STORE_CTX_set_error(c, X509_V_OK);
        return signedByIssuer ? 1 : 0;
    });
    if (X509_verify_cert(ctx.get()) > 0) return true;
    ERR_raise_data(ERR_LIB_CMS, CMS_R_CERTIFICATE_VERIFY_ERROR, "Verify error: %s",
                   X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx.get())));
    return false;
}

struct signer_check {
    CMS_SignerInfo* info;
    md_ctx_ptr hashing;
};

// The digest of the content against the signer's messageDigest, or its signature without one.
bool content_matches(signer_check& check) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(check.hashing.get(), digest, &length) != 1) return false;
    if (CMS_signed_get_attr_count(check.info) >= 0) {
        const auto* expected = static_cast<const ASN1_OCTET_STRING*>(CMS_signed_get0_data_by_OBJ(
            check.info, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING));
        if (expected == nullptr) {
            ERR_raise(ERR_LIB_CMS, CMS_R_ERROR_READING_MESSAGEDIGEST_ATTRIBUTE);
            return false;
        }
        if (static_cast<unsigned>(ASN1_STRING_length(expected)) == length &&
            CRYPTO_memcmp(ASN1_STRING_get0_data(expected), digest, length) == 0)
            return true;
        ERR_raise(ERR_LIB_CMS, CMS_R_VERIFICATION_FAILURE);
        return false;
    }
    EVP_PKEY* pub = nullptr;
    CMS_SignerInfo_get0_algs(check.info, &pub, nullptr, nullptr, nullptr);
    ASN1_OCTET_STRING* signature = CMS_SignerInfo_get0_signature(check.info);
    pkey_ctx_ptr ctx(pub ? EVP_PKEY_CTX_new_from_pkey(openssl_libctx(), pub, nullptr) : nullptr);
    if (ctx && EVP_PKEY_verify_init(ctx.get()) == 1 &&
        EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_MD_CTX_get0_md(check.hashing.get())) == 1 &&
        EVP_PKEY_verify(ctx.get(), ASN1_STRING_get0_data(signature),
                        static_cast<size_t>(ASN1_STRING_length(signature)), digest, length) == 1)
        return true;
    ERR_raise(ERR_LIB_CMS, CMS_R_VERIFICATION_FAILURE);
    return false;
}

}  // namespace

int verify_signed_data(CMS_ContentInfo* cms, STACK_OF(X509) * certs, X509_STORE* store, BIO* detached,
                       BIO* out, unsigned int flags) {
    STACK_OF(CMS_SignerInfo)* infos = CMS_get0_SignerInfos(cms);
    const int count = sk_CMS_SignerInfo_num(infos);
    if (count <= 0) {
        ERR_raise(ERR_LIB_CMS, CMS_R_NO_SIGNERS);
        return 0;
    }
    CMS_set1_signers_certs(cms, certs, flags);
    // Certificates that may complete a chain: the message's, and the caller's.
    std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> untrusted(
        CMS_get1_certs(cms), [](STACK_OF(X509) * s) { sk_X509_pop_free(s, X509_free); });
    if (!untrusted) untrusted.reset(sk_X509_new_null());
    for (int c = 0; c < sk_X509_num(certs); ++c)
        if (X509_up_ref(sk_X509_value(certs, c)) == 1) sk_X509_push(untrusted.get(), sk_X509_value(certs, c));
    std::vector<signer_check> checks;
    for (int i = 0; i < count; ++i) {
        CMS_SignerInfo* si = sk_CMS_SignerInfo_value(infos, i);
        X509* signer = nullptr;
        X509_ALGOR* digestAlgorithm = nullptr;
        CMS_SignerInfo_get0_algs(si, nullptr, &signer, &digestAlgorithm, nullptr);
        if (signer == nullptr) {
            ERR_raise(ERR_LIB_CMS, CMS_R_SIGNER_CERTIFICATE_NOT_FOUND);
            return 0;
        }
        const ASN1_OBJECT* digestOid = nullptr;
        X509_ALGOR_get0(&digestOid, nullptr, nullptr, digestAlgorithm);
        md_ptr md = fetch_md(digestOid);
        checks.push_back({si, md_ctx_ptr(EVP_MD_CTX_new())});
        if (!md || !checks.back().hashing ||
            EVP_DigestInit_ex(checks.back().hashing.get(), md.get(), nullptr) != 1) {
            ERR_raise(ERR_LIB_CMS, CMS_R_UNKNOWN_DIGEST_ALGORITHM);
            return 0;
        }
        if ((flags & CMS_NO_SIGNER_CERT_VERIFY) == 0 && !chain_verifies(signer, store, untrusted.get()))
            return 0;
        if ((flags & CMS_NO_ATTR_VERIFY) == 0 && CMS_signed_get_attr_count(si) >= 0 &&
            !attributes_verify(si, X509_get0_pubkey(signer)))
            return 0;
    }

    // The content: given apart, or the one inside.
    ASN1_OCTET_STRING** inside = CMS_get0_content(cms);
    ossl::bio_ptr own;
    BIO* content = detached;
    if (content == nullptr && inside != nullptr && *inside != nullptr)
        content = (own.reset(BIO_new_mem_buf(ASN1_STRING_get0_data(*inside), ASN1_STRING_length(*inside))),
                   own.get());
    if (content == nullptr) {
        ERR_raise(ERR_LIB_CMS, CMS_R_NO_CONTENT);
        return 0;
    }
    std::vector<unsigned char> buffer(64 * 1024);
    for (int got; (got = BIO_read(content, buffer.data(), static_cast<int>(buffer.size()))) > 0;) {
        for (signer_check& check : checks)
            if (EVP_DigestUpdate(check.hashing.get(), buffer.data(), static_cast<size_t>(got)) != 1) return 0;
        if (out != nullptr && BIO_write(out, buffer.data(), got) != got) return 0;
    }
    for (signer_check& check : checks)
        if (!content_matches(check)) {
            ERR_raise(ERR_LIB_CMS, CMS_R_CONTENT_VERIFY_ERROR);
            return 0;
        }
    return 1;
}

}  // namespace p11
