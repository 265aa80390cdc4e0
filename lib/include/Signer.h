#pragma once
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

/// Signs data that arrives in pieces; made by Certificate::startSigning. Owns the
/// process-wide signing engine from construction to destruction (only one Signer, and no
/// one-shot signature, at a time) and the login, which ends when the Signer is destroyed.
/// After finish() it is ready for the next message. Not safe for concurrent calls.
class ZORVO_API Signer : public std::enable_shared_from_this<Signer> {
public:
    /// Throws process_error 300 when the engine is taken, or the errors of init().
    Signer(std::shared_ptr<Session> session, std::unique_ptr<Session::LoginToken> token,
           std::shared_ptr<Certificate> certificate, bool attached);
    ~Signer();
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;

    /// Prepares a fresh message (key, CMS structure, signer, attribute, data stream).
    void init();
    /// Feeds `length` bytes of the message.
    void addData(const char* data, int length);
    /// Signs the message fed so far and returns a PEM "CMS" block; then readies the next one.
    /// Throws process_error 501 "user cancel operation" (ready for a fresh message) or 300.
    std::string finish();
    /// Drops the current message; init() must follow before more data.
    void reset();

private:
    std::weak_ptr<Session> session;
    std::unique_ptr<Session::LoginToken> login_token;
    std::weak_ptr<Certificate> certificate;
    bool attached;
    ossl::evp_pkey_ptr pkey;
    ossl::bio_ptr data_bio;  // the CMS data chain; released with the message
    ossl::cms_ptr cms;
};

}  // namespace p11
