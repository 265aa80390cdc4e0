#pragma once
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>

#include <openssl/types.h>

#include "Session.h"
#include "ossl_ptr.h"
#include "zorvo_export.h"

/// Short and long name of the ESS signing-certificate-v2 attribute.
extern "C" ZORVO_API const char* ESS_OBJ_SN;

namespace p11 {

class Certificate;
struct signer_sink;

/// Where a signature goes as it is made, when the signer streams its output: called with each
/// piece of the PEM text, in order. Returns false when it could not take them all; the message
/// then fails with 300 "error while writing PEM" (and what the sink got of it is to be dropped).
using pem_sink = std::function<bool(const char* data, size_t size)>;
/// A sink that writes to `out`, which must outlive the signer; false once `out` has failed.
ZORVO_API pem_sink sink_to(std::ostream& out);

/// Whether the first signer's signature in `cms` verifies against `cert`'s public key: its
/// signature over the signed attributes (RSA by OpenSSL, GOST R 34.10 by the library's engine,
/// which must be registered), without reading the content again.
ZORVO_API bool signer_signature_verifies(CMS_ContentInfo* cms, X509* cert);

/// A CMS message from `in`, PEM or else DER, parsed in the library's OpenSSL context (see
/// openssl_libctx), where the keys of GOST certificates inside it are known; null when it is none.
ZORVO_API ossl::cms_ptr read_cms(BIO* in);

/// CMS_verify for signatures of every kind the library makes, on either of its OpenSSL backends:
/// the same arguments, flags and result (1 when every signer verifies, the reason on OpenSSL's
/// error queue otherwise). `cms` comes from read_cms, trust anchors are loaded into `store` in the
/// library's context (X509_STORE_load_file_ex with openssl_libctx()).
ZORVO_API int cms_verify(CMS_ContentInfo* cms, STACK_OF(X509) * certs, X509_STORE* store, BIO* detached,
                         BIO* out, unsigned int flags);

/// X509_verify that knows GOST R 34.10 certificate signatures on either backend: 1 when `cert` is
/// signed by `key`, else 0 or -1 with the reason on OpenSSL's error queue.
ZORVO_API int x509_verify(X509* cert, EVP_PKEY* key);

/// The first signer's signing-certificate-v2 attribute against `cert`: 1 when its first entry
/// names the certificate (its hash, and its issuer and serial number when given), 0 when it names
/// another or cannot be read, -1 without the attribute.
ZORVO_API int signing_certificate_v2_check(CMS_SignerInfo* si, X509* cert);

/// Signs data that arrives in pieces; made by Certificate::startSigning. Owns the
/// process-wide signing engine from construction to destruction (only one Signer, and no
/// one-shot signature, at a time) and the login, which ends when the Signer is destroyed.
/// After finish() it is ready for the next message. Not safe for concurrent calls.
///
/// With a sink, the signature streams out while the data goes in: the PEM header and (attached)
/// the content reach the sink as addData/addBytes take them, finish() sends the rest and returns
/// an empty string. Memory does not grow with the data. After a failure of the message (501, or
/// 300 from a write or the signing itself) the signer is ready for a fresh message.
class ZORVO_API Signer : public std::enable_shared_from_this<Signer> {
public:
    /// Throws process_error 300 when the engine is taken, or the errors of init().
    Signer(std::shared_ptr<Session> session, std::unique_ptr<Session::LoginToken> token,
           std::shared_ptr<Certificate> certificate, bool attached);
    /// The same, streaming the signature to `sink`.
    Signer(std::shared_ptr<Session> session, std::unique_ptr<Session::LoginToken> token,
           std::shared_ptr<Certificate> certificate, bool attached, pem_sink sink);
    ~Signer();
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;

    /// Prepares a fresh message (key, CMS structure, signer, attribute, data stream).
    void init();
    /// Feeds `length` bytes of the message.
    void addData(const char* data, int length);
    /// Feeds `length` bytes of the message, any number. Throws process_error 300 "error while
    /// adding data" for null data with a length, 300 "error while writing PEM" when the sink
    /// refuses what goes through to it.
    void addBytes(const void* data, size_t length);
    /// Signs the message fed so far and returns a PEM "CMS" block; then readies the next one.
    /// Throws process_error 501 "user cancel operation" (ready for a fresh message) or 300.
    std::string finish();
    /// Drops the current message; init() must follow before more data.
    void reset();
    /// Whether the signature the last finish() made verifies against the certificate's public key
    /// (see signer_signature_verifies); false before the first. A token whose key under the
    /// certificate's identifier belongs to another certificate makes signatures that do not.
    bool lastSignatureVerifies() const noexcept { return last_verified; }

private:
    std::weak_ptr<Session> session;
    std::unique_ptr<Session::LoginToken> login_token;
    std::weak_ptr<Certificate> certificate;
    bool attached;
    ossl::evp_pkey_ptr pkey;
    ossl::bio_ptr data_bio;  // the CMS data chain; released with the message
    ossl::cms_ptr cms;
    std::unique_ptr<signer_sink> sink;  // null: the PEM comes back from finish()
    bool last_verified = false;
    /// After a failed message in streaming mode: a fresh one, then process_error(code, message).
    [[noreturn]] void rearm_and_throw(int code, const char* message);
};

}  // namespace p11
