#pragma once
#include <bitset>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include <openssl/types.h>
#include <p11-kit/pkcs11.h>

#include "Session.h"
#include "ossl_ptr.h"
#include "zorvo_export.h"

namespace p11 {

class Signer;

/// Attribute short name (or dotted number) to wide text.
using name_map = std::unordered_map<std::string, std::wstring>;

/// An X.509 certificate found on a token, with what a host shows about it. Made by
/// Session::enumerateCerts, owned by std::shared_ptr, read-only after construction.
/// Holds its Session weakly: signing fails with code 12 once the session is gone.
class ZORVO_API Certificate : public std::enable_shared_from_this<Certificate> {
public:
    using id_type = std::pair<std::unique_ptr<unsigned char[]>, unsigned long>;

    /// Takes over `x509` and the id bytes only when it succeeds; on failure both stay the
    /// caller's. Throws process_error 210 for a validity date that cannot be printed.
    Certificate(std::weak_ptr<Session> session, std::string& label,
                std::unique_ptr<X509, void (*)(X509*)>& x509, id_type& id,
                std::shared_ptr<CK_TOKEN_INFO> tokenInfo);
    ~Certificate();
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;

    /// The token object's CKA_ID bytes and count.
    id_type& get_id() { return id; }
    /// The certificate's public key; owned by the certificate.
    X509_PUBKEY* get_public_key() const;
    /// The parsed certificate; owned by the certificate.
    X509* getX509() const { return x509.get(); }
    /// The token object's CKA_LABEL.
    const std::string& getLabel() const { return label; }
    const name_map& getSubject() const { return subject; }
    const name_map& getIssuer() const { return issuer; }
    /// Keys "label", "manufacturerID", "model", "serialNumber" (blank padding kept).
    const name_map& getTokenInfo() const { return tokenInfo; }
    /// KeyUsage bits: 0 digitalSignature ... 8 decipherOnly; all clear without the extension.
    std::bitset<9> getKeyUsage() const { return keyUsage; }
    /// The serial number in decimal.
    std::string getSerialNumber() const { return serialNumber; }
    /// Validity as OpenSSL prints it, e.g. "Jan  1 00:00:00 2020 GMT".
    std::string getNotBeforeStr() const { return notBefore; }
    std::string getNotAfterStr() const { return notAfter; }

    /// Signs the bytes of `data` up to its first NUL and returns a PEM "CMS" block,
    /// attached or detached. The login token lives until the call ends (then logs out).
    /// Throws process_error 12, 300 or the key lookup's codes.
    std::string signOnIt(std::unique_ptr<Session::LoginToken> token, const char* data, bool attached);
    /// Starts a streaming signer that owns the login until it is destroyed.
    /// Throws process_error 12, 300 (engine busy) or the key lookup's codes.
    std::shared_ptr<Signer> startSigning(std::unique_ptr<Session::LoginToken> token, bool attached);
    /// The same, with the signature streaming out to `sink` as the data goes in (see Signer).
    std::shared_ptr<Signer> startSigning(std::unique_ptr<Session::LoginToken> token, bool attached,
                                         std::function<bool(const char*, size_t)> sink);

private:
    std::string label;
    std::weak_ptr<Session> session;
    ossl::x509_ptr x509;
    id_type id;
    name_map tokenInfo;
    name_map subject;
    name_map issuer;
    std::string serialNumber;
    std::string notBefore;
    std::string notAfter;
    std::bitset<9> keyUsage;
};

/// Adds an X.509 name's entries to `map`, decoding each value by its string type.
ZORVO_API void parseX509Name(X509_NAME* name, name_map& map);
/// Adds the token's label, manufacturerID, model and serialNumber to `map`.
ZORVO_API void parseTokenInfo(std::shared_ptr<CK_TOKEN_INFO> info, name_map& map);
/// Converts UTF-8 bytes to wide text; conversion stops silently at an invalid sequence.
ZORVO_API std::wstring utf8ToWString(char* text, size_t length);
/// OpenSSL's printed form of a time; throws process_error 210.
ZORVO_API std::string convert_ASN1TIME(ASN1_TIME* time);
/// Reads the KeyUsage extension into `bits`; leaves them as they are without it.
ZORVO_API void parseKeyUsage(X509* x509, std::bitset<9>* bits);

}  // namespace p11
