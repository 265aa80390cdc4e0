#include "Signer.h"

#include <climits>
#include <ostream>
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
#ifndef ZORVO_ENGINE
#include "p11_prov_cms.h"
#endif

const char* ESS_OBJ_SN = "id-aa-signingCertificateV2";

namespace p11 {

namespace {

constexpr unsigned int kStreamFlags = CMS_BINARY | CMS_STREAM | CMS_PARTIAL;

using algor_ptr = std::unique_ptr<X509_ALGOR, ossl::Deleter<X509_ALGOR, X509_ALGOR_free>>;
using octets_ptr =
    std::unique_ptr<ASN1_OCTET_STRING, ossl::Deleter<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>>;

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

// The value of the ESS signingCertificateV2 attribute (RFC 5035), with the certificate hash
// matching the key.
der_buffer signing_certificate_value(EVP_PKEY* key, X509* cert) {
    algor_ptr algorithm(X509_ALGOR_new());
    octets_ptr certHash(ASN1_OCTET_STRING_new());
    P11_DEBUG("Adding CertID Algorithm Agility ...");
    const int hashNid = hash_nid_for(key_nid(key));
    X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(hashNid), V_ASN1_UNDEF, nullptr);
    // Hashing the DER directly: OpenSSL 3's X509_digest finds an application-built digest only
    // through an engine registered for its NID.
    if (const md_ptr md = digest_by_nid(hashNid)) {
        const der_buffer der = der_of(static_cast<const X509*>(cert), i2d_X509);
        unsigned char hash[EVP_MAX_MD_SIZE];
        unsigned int hashLength = 0;
        if (!der.empty() && EVP_Digest(der.data(), der.size(), hash, &hashLength, md.get(), nullptr) == 1)
            ASN1_OCTET_STRING_set(certHash.get(), hash, static_cast<int>(hashLength));
    }

    der_buffer certId;
    append_der(certId, algorithm.get(), i2d_X509_ALGOR);
    append_der(certId, certHash.get(), i2d_ASN1_OCTET_STRING);
    const der_buffer issuerSerialDer = issuer_serial(cert);
    certId.insert(certId.end(), issuerSerialDer.begin(), issuerSerialDer.end());
    return sequence_of(sequence_of(sequence_of(certId)));
}

#ifdef ZORVO_ENGINE
void add_signing_certificate(CMS_SignerInfo* si, EVP_PKEY* key, X509* cert) {
    const der_buffer value = signing_certificate_value(key, cert);
    if (CMS_signed_add1_attr_by_NID(si, signing_certificate_nid(), V_ASN1_SEQUENCE, value.data(),
                                    static_cast<int>(value.size())) == 0)
        fail_openssl("error while ESS certIdv2 adding", P11_SITE);
}
#endif

const char kPemBegin[] = "-----BEGIN CMS-----\n";
const char kPemEnd[] = "-----END CMS-----\n";

}  // namespace

/// The host's sink, and whether it has refused anything of the current message.
struct signer_sink {
    pem_sink write;
    bool failed = false;   // it refused something of this message
    bool begun = false;    // the PEM header has gone out
    bool content = false;  // some data of this message went in
    // A raw write; no exception may leave it, as OpenSSL calls it too.
    bool send(const char* data, size_t size) noexcept {
        try {
            failed = failed || !write(data, size);
        } catch (...) {
            failed = true;
        }
        return !failed;
    }
    // What the streaming chain writes, after the PEM header.
    bool take(const char* data, size_t size) noexcept {
        if (!begun) begun = send(kPemBegin, sizeof kPemBegin - 1);
        return send(data, size);
    }
};

namespace {

// A BIO that hands what is written to it to the sink.
BIO_METHOD* sink_method() {
    static BIO_METHOD* method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "zorvo PEM sink");
        BIO_meth_set_write(m, [](BIO* b, const char* data, int length) -> int {
            return static_cast<signer_sink*>(BIO_get_data(b))->take(data, static_cast<size_t>(length))
                       ? length
                       : -1;
        });
        BIO_meth_set_ctrl(m,
                          [](BIO*, int cmd, long, void*) -> long { return cmd == BIO_CTRL_FLUSH ? 1 : 0; });
        BIO_meth_set_create(m, [](BIO* b) -> int { return BIO_set_init(b, 1), 1; });
        return m;
    }();
    return method;
}

// PEM as OpenSSL streams it: base64 of the DER as it is produced, the content inside. The base64
// filter writes a line at a time: the sink gets them 64 KiB at a time.
BIO* pem_chain(signer_sink* sink) {
    ossl::bio_ptr out(BIO_new(sink_method()));
    ossl::bio_ptr buffer(BIO_new(BIO_f_buffer()));
    BIO* base64 = BIO_new(BIO_f_base64());
    if (!out || !buffer || !base64 || BIO_set_write_buffer_size(buffer.get(), 64 * 1024) != 1) {
        BIO_free(base64);
        fail_openssl("error while allocating BIO memory buffer", P11_SITE);
    }
    BIO_set_data(out.get(), sink);
    return BIO_push(base64, BIO_push(buffer.release(), out.release()));
}

}  // namespace

bool signer_signature_verifies(CMS_ContentInfo* cms, X509* cert) {
    CMS_SignerInfo* si = cms ? sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms), 0) : nullptr;
    if (si == nullptr || cert == nullptr) return false;
    ERR_set_mark();                // a failed check is an answer, not an error for the caller's queue
    signer_certificate key(cert);  // its GOST key decoded, should it predate the engine
#ifdef ZORVO_ENGINE
    CMS_SignerInfo_set1_signer_cert(si, key.get());
    const bool ok = CMS_SignerInfo_verify(si) == 1;
#else
    const bool ok = attributes_verify(si, X509_get0_pubkey(key.get()));
#endif
    ERR_pop_to_mark();
    return ok;
}

pem_sink sink_to(std::ostream& out) {
    return [&out](const char* data, size_t size) {
        return static_cast<bool>(out.write(data, static_cast<std::streamsize>(size)));
    };
}

Signer::Signer(std::shared_ptr<Session> session, std::unique_ptr<Session::LoginToken> token,
               std::shared_ptr<Certificate> certificate, bool attached)
    : Signer(std::move(session), std::move(token), std::move(certificate), attached, nullptr) {}

Signer::Signer(std::shared_ptr<Session> session, std::unique_ptr<Session::LoginToken> token,
               std::shared_ptr<Certificate> certificate, bool attached, pem_sink output)
    : session(session), certificate(certificate), attached(attached) {
    if (output) sink = std::make_unique<signer_sink>(signer_sink{std::move(output), false});
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

    ERR_clear_error();
#ifndef ZORVO_ENGINE
    P11_DEBUG("signing initialization");
    P11_DEBUG("signer adding");
    auto message = std::make_unique<signed_data>(key.get(), c->getX509(), attached);
    message->add_attribute(signing_certificate_nid(), signing_certificate_value(key.get(), c->getX509()));
    if (sink) *sink = signer_sink{std::move(sink->write)};
    data_bio.reset(signed_data_bio(std::move(message), sink && attached ? pem_chain(sink.get()) : nullptr));
    if (!data_bio) fail_openssl("error while allocating BIO memory buffer", P11_SITE);
#else
    const unsigned int flags = kStreamFlags | (attached ? 0 : CMS_DETACHED);
    P11_DEBUG("signing initialization");
    ossl::cms_ptr newCms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    if (!newCms) fail_openssl("error while signing initialization", P11_SITE);
    P11_DEBUG("signer adding");
    signer_certificate signerCert(c->getX509());
    CMS_SignerInfo* si = CMS_add1_signer(newCms.get(), signerCert.get(), key.get(), nullptr, flags);
    if (si == nullptr) fail_openssl("error while signer adding", P11_SITE);
    add_signing_certificate(si, key.get(), c->getX509());
    if (sink) *sink = signer_sink{std::move(sink->write)};
    if (sink && attached) {
        BIO* chain = pem_chain(sink.get());
        data_bio.reset(BIO_new_CMS(chain, newCms.get()));
        if (!data_bio) BIO_free_all(chain);
    } else {
        // Detached, the data only goes through the digest: nothing to stream before the end.
        data_bio.reset(CMS_dataInit(newCms.get(), nullptr));
    }
    cms = std::move(newCms);
#endif
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
    if (sink && length > 0) sink->content = true;
}

void Signer::addBytes(const void* data, size_t length) {
    if (data == nullptr && length > 0) {
        P11_ERROR("no data for " << length << " bytes");
        throw process_error(300, "error while adding data");
    }
    const char* p = static_cast<const char*>(data);
    for (size_t done = 0; done < length;) {
        const int piece = static_cast<int>(std::min<size_t>(length - done, INT_MAX));
        addData(p + done, piece);
        if (sink && sink->failed) {
            P11_ERROR("error while writing PEM: the sink refused the output");
            rearm_and_throw(300, "error while writing PEM");
        }
        done += static_cast<size_t>(piece);
    }
}

void Signer::rearm_and_throw(int code, const char* message) {
    reset();
    init();
    throw process_error(code, message);
}

std::string Signer::finish() {
    P11_DEBUG("signing finalization");
#ifdef ZORVO_ENGINE
    const bool ready = cms && data_bio;
#else
    signed_data* message = signed_data_of(data_bio.get());
    const bool ready = message != nullptr;
#endif
    if (!ready) {
        P11_ERROR("signer is not initialized");
        throw process_error(300, "signer is not initialized");
    }
    // Streaming out, the flush signs and sends the rest down the chain. It cannot start an empty
    // content, which is then written in one piece as the other ways do.
    const bool streaming = sink && attached && sink->content;
#ifdef ZORVO_ENGINE
    if (sink && attached && !streaming) (*CMS_get0_content(cms.get()))->flags &= ~ASN1_STRING_FLAG_NDEF;
    const bool done = streaming ? !sink->failed && BIO_flush(data_bio.get()) == 1
                                : (BIO_flush(data_bio.get()), CMS_dataFinal(cms.get(), data_bio.get()) == 1);
#else
    std::string der;
    const bool done =
        !(sink && sink->failed) && message->finish(der) && (!streaming || BIO_flush(data_bio.get()) == 1);
#endif
    if (!done && sink && sink->failed) {
        P11_ERROR("error while writing PEM: the sink refused the output");
        rearm_and_throw(300, "error while writing PEM");
    }
    if (!done) {
        const unsigned long e = log_openssl_error("error while signing finalization", P11_SITE);
        if ((e & 0xFFF) == CKR_CANCEL) {
            reset();
            init();
            throw process_error(501, "user cancel operation");
        }
        if (sink) rearm_and_throw(300, "error while signing finalization");
        throw process_error(300, "error while signing finalization");
    }
    // The signature is made: whatever happens to its output, the next message is ready.
#ifdef ZORVO_ENGINE
    if (auto c = certificate.lock()) last_verified = signer_signature_verifies(cms.get(), c->getX509());
    const std::string pem = streaming ? std::string() : write_pem(cms.get());
#else
    last_verified = message->verifies();
    const std::string pem = streaming ? std::string() : pem_of_der(der);
#endif
    const bool written =
        !sink || (streaming ? sink->take(kPemEnd, sizeof kPemEnd - 1) : sink->send(pem.data(), pem.size()));
    reset();
    init();
    if (!written) {
        P11_ERROR("error while writing PEM: the sink refused the output");
        throw process_error(300, "error while writing PEM");
    }
    return sink ? std::string() : pem;
}

void Signer::reset() {
    P11_DEBUG("reset of signer");
    data_bio.reset();
    cms.reset();
    pkey.reset();
}

}  // namespace p11
