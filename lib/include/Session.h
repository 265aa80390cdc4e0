#pragma once
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include <openssl/types.h>
#include <p11-kit/pkcs11.h>

#include "zorvo_export.h"

namespace p11 {

class Slot;
class Certificate;
struct log_site;

/// One open PKCS#11 session, created by Slot::openSession and always owned by a
/// std::shared_ptr. Holds its Slot weakly; closes the session when the last owner goes.
class ZORVO_API Session : public std::enable_shared_from_this<Session> {
public:
    /// Proof of login: destroying it logs the session out (if the session still exists).
    class ZORVO_API LoginToken {
    public:
        explicit LoginToken(std::weak_ptr<Session> session);
        virtual ~LoginToken();
        LoginToken(const LoginToken&) = delete;
        LoginToken& operator=(const LoginToken&) = delete;

    private:
        std::weak_ptr<Session> session;
    };

    using evp_pkey_handle = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;

    /// Opens a serial session; `mode` is shifted left by 30 bits into the flags.
    /// Throws process_error 11 (slot gone) or 105.
    Session(std::weak_ptr<Slot> slot, int mode);
    /// Closes the session; never throws.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Logs the normal user in. Throws process_error 201 "pin incorrect", 202 "pin invalid",
    /// 203 "pin expired", 204 "pin locked", 290 "cryptoki usage conflict" or 200.
    /// An already logged-in user counts as success.
    std::unique_ptr<LoginToken> login(const char* pin, size_t pin_len);
    /// C_Logout; failures are logged, never thrown.
    void logout() noexcept;

    /// Reads one attribute; `*len` in: buffer size (value may be null), out: reported length.
    /// Throws process_error 107 "failed to get attribute value".
    void getattr_int(CK_OBJECT_HANDLE obj, CK_ATTRIBUTE_TYPE type, void* value, size_t* len);
    void getattr_var(CK_OBJECT_HANDLE obj, unsigned int type, void* value, size_t* len);
    /// Reads into a zero-filled buffer of `len` bytes.
    void getattr_s(CK_OBJECT_HANDLE obj, unsigned int type, void* value, size_t len);
    /// Reads a big-endian unsigned number; reuses `*bn` when it is not null.
    void getattr_bn(CK_OBJECT_HANDLE obj, unsigned int type, BIGNUM** bn);

    /// Every certificate on the token, in the provider's order; all or nothing.
    /// Throws process_error 103, 106, 107, 120, 121 or 122.
    std::shared_ptr<std::vector<std::shared_ptr<Certificate>>> enumerateCerts();
    /// Builds one certificate from a certificate object.
    std::shared_ptr<Certificate> create_cert(CK_OBJECT_HANDLE obj, std::shared_ptr<CK_TOKEN_INFO> info);

    /// The certificate's private key as an OpenSSL key bound to the token.
    /// Throws process_error 108 when no key is found.
    evp_pkey_handle get_private_key_by_x509(std::shared_ptr<Certificate> cert);
    /// The first private key whose CKA_ID equals the bytes given, or 0.
    CK_OBJECT_HANDLE get_private_key_by_id(std::shared_ptr<Slot> slot, unsigned char* id, size_t id_len);
    /// The private key found through a public key object holding the certificate's key value, or 0.
    CK_OBJECT_HANDLE get_private_key_by_x509_long_way(std::shared_ptr<Slot> slot,
                                                      std::shared_ptr<Certificate> cert);
    /// Wraps a private key object as an OpenSSL key (RSA or GOST R 34.10); throws 109 or 110.
    evp_pkey_handle init_private_key(std::shared_ptr<Slot> slot, CK_OBJECT_HANDLE key,
                                     std::shared_ptr<Certificate> cert);

    /// The provider's session handle.
    CK_SESSION_HANDLE getHandle() const noexcept { return handle; }
    /// The slot that opened this session (weak).
    const std::weak_ptr<Slot>& getSlot() const noexcept { return slot; }
    /// True when the session-info flags had no bit at position 31 or above.
    bool flagsBelowBit31() const noexcept { return flags_below_bit31; }

private:
    std::shared_ptr<Slot> lockSlot(const log_site& site) const;
    /// Ends a search that has found kMaxFoundObjects already and throws process_error(code).
    void end_endless_search(const Slot& s, unsigned long found, int code, const char* message);

    CK_SESSION_HANDLE handle = 0;
    std::weak_ptr<Slot> slot;
    bool flags_below_bit31 = false;
};

}  // namespace p11
