#pragma once
// Software signing keys behind the test provider's private key objects.
#include <p11-kit/pkcs11.h>

#include <cstddef>
#include <memory>

// Only C_GetFunctionList and the tp_* control functions leave the provider.
#define TP_EXPORT extern "C" __attribute__((visibility("default")))

namespace testprov {

class SignKey {
public:
    virtual ~SignKey() = default;
    /// CKR_OK, or why this key does not sign with `mechanism`.
    virtual CK_RV accepts(CK_MECHANISM_TYPE mechanism) const = 0;
    virtual CK_ULONG signatureLength() const = 0;
    /// CKR_DATA_LEN_RANGE for input of the wrong size; `out` holds signatureLength() bytes.
    virtual CK_RV sign(const unsigned char* data, CK_ULONG len, unsigned char* out) const = 0;
};

/// Null when the key cannot be parsed.
std::shared_ptr<SignKey> rsaKey(const void* key, size_t len);
std::shared_ptr<SignKey> gostKey(const char* curve, const void* d, size_t len);

}  // namespace testprov
