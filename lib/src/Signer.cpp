#include "Signer.h"

#include <vector>

#include <openssl/asn1.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include "Certificate.h"
#include "log.h"
#include "p11_ossl.h"
#include "sign_util.h"

const char* ESS_OBJ_SN = "id-aa-signingCertificateV2";

namespace p11 {

namespace {

constexpr unsigned int kStreamFlags = CMS_BINARY | CMS_STREAM | CMS_PARTIAL;
const char kSigningCertificateV2Oid[] = "1.2.840.113549.1.9.16.2.47";

using algor_ptr = std::unique_ptr<X509_ALGOR, ossl::Deleter<X509_ALGOR, X509_ALGOR_free>>;
using octets_ptr =
    std::unique_ptr<ASN1_OCTET_STRING, ossl::Deleter<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>>;
using general_names_ptr = std::unique_ptr<GENERAL_NAMES, ossl::Deleter<GENERAL_NAMES, GENERAL_NAMES_free>>;
using der_buffer = std::vector<unsigned char>;

// A DER SEQUENCE around `content`.
der_buffer sequence_of(const der_buffer& content) {
    const int length = static_cast<int>(content.size());
    der_buffer out(static_cast<size_t>(ASN1_object_size(1, length, V_ASN1_SEQUENCE)));
    unsigned char* p = out.data();
    ASN1_put_object(&p, 1, length, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
    std::copy(content.begin(), content.end(), p);
    return out;
}

template <typename T>
void append_der(der_buffer& out, const T* object, int (*encode)(const T*, unsigned char**)) {
    const int length = encode(object, nullptr);
    if (length <= 0) return;
    const size_t at = out.size();
    out.resize(at + static_cast<size_t>(length));
    unsigned char* p = out.data() + at;
    encode(object, &p);
}

int hash_nid_for(int keyType) {
    switch (keyType) {
        case NID_id_GostR3410_2012_256:
            P11_DEBUG("Adding CertID Algorithm Agility: using GostR3411_2012_256 hash");
            return NID_id_GostR3411_2012_256;
        case NID_id_GostR3410_2012_512:
            P11_DEBUG("Adding CertID Algorithm Agility: using GostR3411_2012_512 hash");
            return NID_id_GostR3411_2012_512;
        case NID_id_GostR3410_2001:
            P11_DEBUG("Adding CertID Algorithm Agility: using GostR3410_2001 hash");
            return NID_id_GostR3411_94;
        default:
            P11_DEBUG("Adding CertID Algorithm Agility: using sha256 hash");
            return NID_sha256;
    }
}

// OpenSSL 3 already knows the identifier under another name, so creating it fails: the
// existing object is the same on the wire.
int signing_certificate_nid() {
    int nid = OBJ_sn2nid(ESS_OBJ_SN);
    if (nid != NID_undef) return nid;
    ERR_set_mark();
    nid = OBJ_create(kSigningCertificateV2Oid, ESS_OBJ_SN, "id-aa-signingCertificateV2");
    ERR_pop_to_mark();
    return nid != NID_undef ? nid : OBJ_txt2nid(kSigningCertificateV2Oid);
}

// The ESS signingCertificateV2 attribute (RFC 5035), with the certificate hash matching the key.
void add_signing_certificate(CMS_SignerInfo* si, EVP_PKEY* key, X509* cert) {
    algor_ptr algorithm(X509_ALGOR_new());
    octets_ptr certHash(ASN1_OCTET_STRING_new());
    P11_DEBUG("Adding CertID Algorithm Agility ...");
    const int hashNid = hash_nid_for(EVP_PKEY_id(key));
    X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(hashNid), V_ASN1_UNDEF, nullptr);
    // Hashing the DER directly: OpenSSL 3's X509_digest finds an application-built digest only
    // through an engine registered for its NID.
    if (const EVP_MD* md = EVP_get_digestbyname(OBJ_nid2sn(hashNid))) {
        unsigned char* encoded = nullptr;
        const int len = i2d_X509(cert, &encoded);
        std::unique_ptr<unsigned char, void (*)(void*)> der(encoded, OPENSSL_freeFunc);
        unsigned char hash[EVP_MAX_MD_SIZE];
        unsigned int hashLength = 0;
        if (len > 0 && EVP_Digest(der.get(), static_cast<size_t>(len), hash, &hashLength, md, nullptr) == 1)
            ASN1_OCTET_STRING_set(certHash.get(), hash, static_cast<int>(hashLength));
    }

    // IssuerSerial: GeneralNames with the issuer as directoryName, then the serial number.
    general_names_ptr issuer(GENERAL_NAMES_new());
    GENERAL_NAME* name = GENERAL_NAME_new();
    GENERAL_NAME_set0_value(name, GEN_DIRNAME, X509_NAME_dup(X509_get_issuer_name(cert)));
    sk_GENERAL_NAME_push(issuer.get(), name);
    der_buffer issuerSerial;
    append_der(issuerSerial, issuer.get(), i2d_GENERAL_NAMES);
    append_der(issuerSerial, X509_get0_serialNumber(cert), i2d_ASN1_INTEGER);

    der_buffer certId;
    append_der(certId, algorithm.get(), i2d_X509_ALGOR);
    append_der(certId, certHash.get(), i2d_ASN1_OCTET_STRING);
    const der_buffer issuerSerialDer = sequence_of(issuerSerial);
    certId.insert(certId.end(), issuerSerialDer.begin(), issuerSerialDer.end());
    const der_buffer value = sequence_of(sequence_of(sequence_of(certId)));

    if (CMS_signed_add1_attr_by_NID(si, signing_certificate_nid(), V_ASN1_SEQUENCE, value.data(),
                                    static_cast<int>(value.size())) == 0)
        fail_openssl("error while ESS certIdv2 adding", P11_SITE);
}

}  // namespace

Signer::Signer(std::shared_ptr<Session> session, std::unique_ptr<Session::LoginToken> token,
               std::shared_ptr<Certificate> certificate, bool attached)
    : session(session), certificate(certificate), attached(attached) {
    claim_engine(session, P11_SITE);
    login_token = std::move(token);
    try {
        init();
    } catch (...) {
        release_engine();
        throw;
    }
}

Signer::~Signer() {
    P11_DEBUG("destructing signer");
    release_engine();
    reset();
}

void Signer::init() {
    P11_DEBUG("prepare private key structure");
    auto s = lock_or_throw(session, 12, "failed to get session", P11_SITE);
    auto c = lock_or_throw(certificate, 13, "failed to get certificate", P11_SITE);
    Session::evp_pkey_handle key = s->get_private_key_by_x509(c);

    const unsigned int flags = kStreamFlags | (attached ? 0 : CMS_DETACHED);
    ERR_clear_error();
    P11_DEBUG("signing initialization");
    ossl::cms_ptr newCms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    if (!newCms) fail_openssl("error while signing initialization", P11_SITE);
    P11_DEBUG("signer adding");
    signer_certificate signerCert(c->getX509());
    CMS_SignerInfo* si = CMS_add1_signer(newCms.get(), signerCert.get(), key.get(), nullptr, flags);
    if (si == nullptr) fail_openssl("error while signer adding", P11_SITE);
    add_signing_certificate(si, key.get(), c->getX509());
    data_bio.reset(CMS_dataInit(newCms.get(), nullptr));
    cms = std::move(newCms);
    pkey.reset(key.release());
    P11_DEBUG("Adding CertID Algorithm Agility is completed");
}

void Signer::addData(const char* data, int length) {
    P11_DEBUG("addind data to signature");
    if (!data_bio) {
        P11_ERROR("signer is not initialized");
        throw process_error(300, "signer is not initialized");
    }
    BIO_write(data_bio.get(), data, length);
}

std::string Signer::finish() {
    P11_DEBUG("signing finalization");
    if (!cms || !data_bio) {
        P11_ERROR("signer is not initialized");
        throw process_error(300, "signer is not initialized");
    }
    (void)BIO_flush(data_bio.get());
    if (CMS_dataFinal(cms.get(), data_bio.get()) != 1) {
        const unsigned long e = log_openssl_error("error while signing finalization", P11_SITE);
        if ((e & 0xFFF) == CKR_CANCEL) {
            reset();
            init();
            throw process_error(501, "user cancel operation");
        }
        throw process_error(300, "error while signing finalization");
    }
    std::string pem = write_pem(cms.get());
    reset();
    init();
    return pem;
}

void Signer::reset() {
    P11_DEBUG("reset of signer");
    data_bio.reset();
    cms.reset();
    pkey.reset();
}

}  // namespace p11
