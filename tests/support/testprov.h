#pragma once
// Control interface of the programmable PKCS#11 test provider (libzorvo_testprov.so).
//
// One instance per process: a test links the provider directly and the library under test
// dlopens the same file, and the dynamic loader hands both the same loaded object. So what a
// test sets up here is exactly what the library sees through C_GetFunctionList, and the
// provider's state survives the library's dlclose. Call tp_reset() at the start of each test.
//
// Every exported tp_* function takes the provider's one lock, so tests may call it from any
// thread. Functions returning int give 0 on success and -1 on a bad argument (unknown slot,
// unknown object, unparsable key...). Counting in failure rules is 1-based and starts when the
// rule is set; call indexes in the log are 0-based.
//
// How the token behaves, as a real one would:
// - every call but C_GetFunctionList, C_Initialize and the unsupported ones answers
//   CKR_CRYPTOKI_NOT_INITIALIZED outside C_Initialize .. C_Finalize;
// - login is per token: all its sessions share it, and closing the last one logs out;
// - C_OpenSession wants CKF_SERIAL_SESSION and accepts any other bits, recording them;
// - objects are visible whatever the login state; C_SignInit on a key with CKA_PRIVATE true
//   needs a login, and one with CKA_SIGN false is refused;
// - a signing or search operation stays active until it ends: C_Sign ends it except after a
//   length query (NULL pSignature) or CKR_BUFFER_TOO_SMALL, and a second C_SignInit or
//   C_FindObjectsInit meanwhile gets CKR_OPERATION_ACTIVE.
#include <p11-kit/pkcs11.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Vendor numbers of the GOST R 34.10-2012 512-bit key type and its raw signing mechanism.
#define TP_CKK_GOSTR3410_512 0xD4321003UL
#define TP_CKM_GOSTR3410_512 0xD4321006UL

// ---- State --------------------------------------------------------------------------------

/// Back to an empty provider: no slots, objects, sessions, rules or log; not initialised;
/// handles numbered from the start again; misbehaviour switches off.
void tp_reset(void);

// ---- Slots, tokens, mechanisms --------------------------------------------------------------

/// Adds a slot without a token. `info` NULL: a plain hardware slot with readable texts.
/// Slots are listed in the order they were added. -1 if the id exists.
int tp_add_slot(CK_SLOT_ID slot, const CK_SLOT_INFO* info);
/// Replaces every byte of the slot's information, flags included (garbage is fine).
int tp_set_slot_info(CK_SLOT_ID slot, const CK_SLOT_INFO* info);
/// Puts a token in the slot (sets CKF_TOKEN_PRESENT in the slot flags). `info` NULL: label
/// "zorvo test token", login required. The user PIN starts as "1234".
int tp_add_token(CK_SLOT_ID slot, const CK_TOKEN_INFO* info);
/// Replaces every byte of the token information.
int tp_set_token_info(CK_SLOT_ID slot, const CK_TOKEN_INFO* info);
/// Takes the token out: its objects, sessions and login go with it.
int tp_remove_token(CK_SLOT_ID slot);
/// The user PIN that C_Login accepts (any bytes).
int tp_set_pin(CK_SLOT_ID slot, const void* pin, size_t len);
/// Appends a mechanism to the token's list; duplicates are kept. `info` NULL: all zero.
int tp_add_mechanism(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, const CK_MECHANISM_INFO* info);

// ---- Objects ---------------------------------------------------------------------------------

/// Adds an object holding exactly these attributes (bytes copied) to the slot's token.
/// Returns its handle (never reused until tp_reset), or 0 if the slot has no token.
CK_OBJECT_HANDLE tp_add_object(CK_SLOT_ID slot, const CK_ATTRIBUTE* attrs, CK_ULONG count);
/// Sets or replaces one attribute.
int tp_set_attribute(CK_OBJECT_HANDLE obj, CK_ATTRIBUTE_TYPE type, const void* value, CK_ULONG len);
/// Makes the attribute absent.
int tp_remove_attribute(CK_OBJECT_HANDLE obj, CK_ATTRIBUTE_TYPE type);
int tp_remove_object(CK_OBJECT_HANDLE obj);

// ---- Signing keys (held beside the attributes, never readable through PKCS#11) -------------

/// An RSA private key, PEM or DER (PKCS#1 or PKCS#8), for CKM_RSA_PKCS.
int tp_set_rsa_key(CK_OBJECT_HANDLE obj, const void* key, size_t len);
/// A GOST R 34.10 private key for CKM_GOSTR3410 (256-bit curves) or 0xD4321006 (512-bit):
/// `curve` is a libgcrypt curve name or the parameter-set OID of the certificate
/// ("1.2.643.2.2.35.1", "1.2.643.7.1.2.1.1.1", "1.2.643.7.1.2.1.2.1"...), `d` the private
/// scalar big-endian (reverse the little-endian scalar of a gost engine key file).
/// The token reads the digest it signs as a little-endian number and returns s || r, each
/// big-endian and 32 (or 64) bytes long.
int tp_set_gost_key(CK_OBJECT_HANDLE obj, const char* curve, const void* d, size_t len);

/// Test helpers with the same conventions, so tests need not link libgcrypt.
/// A fresh key on `curve`: `d` gets the scalar big-endian, `pub` the public point as tokens
/// and certificates store it (x then y, each little-endian); both 32 or 64 bytes each
/// coordinate. Buffers of 64 and 128 bytes are always enough. Returns the coordinate size.
int tp_gost_generate(const char* curve, unsigned char* d, unsigned char* pub);
/// 1 if `sig` (s || r) is a valid signature of `digest` under `pub` (x || y little-endian).
int tp_gost_verify(const char* curve, const unsigned char* pub, size_t pub_len, const unsigned char* digest,
                   size_t digest_len, const unsigned char* sig, size_t sig_len);

// ---- Provider-level state --------------------------------------------------------------------

/// Number of C_Initialize / C_Finalize calls that succeeded since tp_reset.
int tp_initialize_count(void);
int tp_finalize_count(void);
/// The pInitArgs of the last C_Initialize call (logged whether it succeeded or not).
void* tp_last_init_args(void);
/// Whether the provider is between a successful C_Initialize and C_Finalize.
int tp_is_initialized(void);
/// Open sessions on the slot's token (all slots when `slot` is (CK_SLOT_ID)-1).
int tp_session_count(CK_SLOT_ID slot);
int tp_is_logged_in(CK_SLOT_ID slot);
/// From now on C_GetSessionInfo reports this flags word instead of the open flags.
void tp_set_session_info_flags(CK_FLAGS flags);

// ---- Scripted failures -------------------------------------------------------------------------
// A failing call returns `rv` before doing anything, outputs untouched, and is logged like any
// other. Only C_Sign keeps a side effect: like a real token it ends the signing operation
// (unless rv is CKR_BUFFER_TOO_SMALL).

/// Calls n .. n+count-1 of `function` (counted from now) fail with rv; later calls succeed.
/// count 1: a provider that succeeds on the repeated call; count 2: it fails the repeat too.
void tp_fail_calls(const char* function, unsigned n, unsigned count, CK_RV rv);
/// Only the n-th call fails: tp_fail_calls(function, n, 1, rv).
void tp_fail_nth(const char* function, unsigned n, CK_RV rv);
/// Every call from the n-th on fails.
void tp_fail_from(const char* function, unsigned n, CK_RV rv);
/// Fault sweep: provider calls n .. n+count-1, whatever their names, fail with rv.
void tp_fail_any(unsigned n, unsigned count, CK_RV rv);
/// How many calls the tp_fail_any rule has failed so far (0: the sweep ran past the scenario).
int tp_fail_any_fired(void);
/// Drops all failure rules.
void tp_clear_failures(void);

// ---- Misbehaviour switches (0 / NULL switches off) ---------------------------------------------

/// C_GetAttributeValue with a buffer reports ulValueLen = buffer length + extra, and CKR_OK.
void tp_misbehave_attr_len(CK_ULONG extra);
/// C_FindObjects that returns at least one handle reports ulMaxObjectCount + extra objects.
void tp_misbehave_find_count(CK_ULONG extra);
/// Comma-separated names ("C_Login,C_Sign") left NULL in the list that C_GetFunctionList hands
/// out from then on.
void tp_misbehave_null_functions(const char* names);

// ---- Call log ------------------------------------------------------------------------------------

#define TP_MAX_ATTRS 16

/// One provider call. Fields that a function does not take stay 0.
typedef struct tp_call {
    char name[32];                // "C_FindObjectsInit"
    CK_RV rv;                     // value returned
    CK_SLOT_ID slot;              // slotID argument, or the session's slot
    CK_SESSION_HANDLE session;    // hSession; for C_OpenSession the new handle
    CK_OBJECT_HANDLE object;      // hObject / hKey; first handle returned by C_FindObjects
    CK_FLAGS flags;               // C_OpenSession flags, C_GetSlotList tokenPresent,
                                  // C_Login userType
    CK_MECHANISM_TYPE mechanism;  // C_GetMechanismInfo type, C_SignInit mechanism
    CK_ULONG in_len;              // length going in: *pulCount, ulCount, ulMaxObjectCount,
                                  // ulPinLen, ulDataLen, *pulSignatureLen
    CK_ULONG out_len;             // length coming out: *pulCount, *pulObjectCount,
                                  // *pulSignatureLen
    int null_ptr;                 // the main pointer was NULL: pInitArgs, pReserved,
                                  // pSlotList, pMechanismList, pPin, pTemplate, pSignature
    CK_ULONG attr_count;          // attributes in the template
    CK_ATTRIBUTE_TYPE attr_types[TP_MAX_ATTRS];
    CK_ULONG attr_lens[TP_MAX_ATTRS];  // ulValueLen as passed in
    int attr_null[TP_MAX_ATTRS];       // pValue was NULL
} tp_call;

/// Calls of `function` logged since tp_reset / tp_clear_log (NULL: all calls).
int tp_call_count(const char* function);
/// The index-th call of `function` (NULL: of all calls). -1 if there is none.
int tp_get_call(const char* function, size_t index, tp_call* out);
/// Readable form of that call, e.g. "C_GetSlotList(tokenPresent=1, pSlotList=NULL,
/// *pulCount=0) = CKR_OK, *pulCount=2". Copies at most size-1 bytes and a NUL; returns the
/// full length, or -1 if there is no such call.
int tp_call_text(const char* function, size_t index, char* buf, size_t size);
/// Bytes of the k-th template attribute of that call: what a find template asked for, what
/// C_GetAttributeValue returned (empty when it returned nothing). Copies up to `size` bytes;
/// returns the full length, or -1.
int tp_call_attr_value(const char* function, size_t index, size_t k, void* buf, size_t size);
/// All names in order, comma-separated ("C_GetFunctionList,C_Initialize,..."); same copy
/// and return rules as tp_call_text.
int tp_call_sequence(char* buf, size_t size);
void tp_clear_log(void);

#ifdef __cplusplus
}  // extern "C"

// ---- C++ conveniences: set up a small token the way a test reads it -------------------------
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tp {

using Bytes = std::vector<unsigned char>;

/// One attribute with its bytes.
struct Attr {
    CK_ATTRIBUTE_TYPE type;
    Bytes value;
};

inline Bytes bytes(const std::string& s) {
    return Bytes(s.begin(), s.end());
}
inline Attr ulong_attr(CK_ATTRIBUTE_TYPE type, CK_ULONG v) {
    Bytes b(sizeof v);
    std::memcpy(b.data(), &v, sizeof v);
    return {type, b};
}
inline Attr bool_attr(CK_ATTRIBUTE_TYPE type, bool v) {
    return {type, Bytes{CK_BBOOL(v ? CK_TRUE : CK_FALSE)}};
}
inline Attr bytes_attr(CK_ATTRIBUTE_TYPE type, Bytes v) {
    return {type, std::move(v)};
}
inline Attr text_attr(CK_ATTRIBUTE_TYPE type, const std::string& v) {
    return {type, bytes(v)};
}

/// Copies `s` into a blank-padded PKCS#11 text field.
template <size_t N>
void pad(unsigned char (&field)[N], const std::string& s) {
    std::memset(field, ' ', N);
    std::memcpy(field, s.data(), s.size() < N ? s.size() : N);
}

inline CK_TOKEN_INFO token_info(const std::string& label, const std::string& manufacturer = "Zorvo test",
                                const std::string& model = "testprov", const std::string& serial = "0001",
                                CK_FLAGS flags = CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED |
                                                 CKF_TOKEN_INITIALIZED) {
    CK_TOKEN_INFO ti{};
    pad(ti.label, label);
    pad(ti.manufacturerID, manufacturer);
    pad(ti.model, model);
    pad(ti.serialNumber, serial);
    ti.flags = flags;
    ti.ulMaxSessionCount = CK_EFFECTIVELY_INFINITE;
    ti.ulMaxRwSessionCount = CK_EFFECTIVELY_INFINITE;
    ti.ulMaxPinLen = 64;
    ti.ulMinPinLen = 4;
    ti.ulTotalPublicMemory = ti.ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
    ti.ulTotalPrivateMemory = ti.ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
    ti.hardwareVersion = {1, 0};
    ti.firmwareVersion = {1, 0};
    pad(ti.utcTime, "");
    return ti;
}

inline CK_SLOT_INFO slot_info(const std::string& description, const std::string& manufacturer = "Zorvo test",
                              CK_FLAGS flags = CKF_HW_SLOT | CKF_REMOVABLE_DEVICE) {
    CK_SLOT_INFO si{};
    pad(si.slotDescription, description);
    pad(si.manufacturerID, manufacturer);
    si.flags = flags;
    si.hardwareVersion = {1, 0};
    si.firmwareVersion = {1, 0};
    return si;
}

inline void check(int rc, const char* what) {
    if (rc != 0) throw std::runtime_error(std::string("testprov: ") + what + " failed");
}

/// A slot with a token in it, and builders for the usual objects.
class Token {
public:
    explicit Token(CK_SLOT_ID slot, const std::string& label = "zorvo test token") : slot_(slot) {
        check(tp_add_slot(slot, nullptr), "tp_add_slot");
        CK_TOKEN_INFO ti = token_info(label);
        check(tp_add_token(slot, &ti), "tp_add_token");
    }
    CK_SLOT_ID slot() const { return slot_; }

    Token& pin(const std::string& p) {
        check(tp_set_pin(slot_, p.data(), p.size()), "tp_set_pin");
        return *this;
    }
    Token& mechanism(CK_MECHANISM_TYPE type, CK_FLAGS flags = CKF_SIGN | CKF_HW, CK_ULONG min = 0,
                     CK_ULONG max = 0) {
        CK_MECHANISM_INFO mi{min, max, flags};
        check(tp_add_mechanism(slot_, type, &mi), "tp_add_mechanism");
        return *this;
    }

    /// Any object; the attributes are exactly those given.
    CK_OBJECT_HANDLE object(const std::vector<Attr>& attrs) {
        std::vector<CK_ATTRIBUTE> t;
        for (const Attr& a : attrs)
            t.push_back({a.type, const_cast<unsigned char*>(a.value.data()), CK_ULONG(a.value.size())});
        CK_OBJECT_HANDLE h = tp_add_object(slot_, t.data(), CK_ULONG(t.size()));
        if (h == 0) throw std::runtime_error("testprov: tp_add_object failed");
        return h;
    }
    /// An X.509 certificate object: class, certificate type, token, label, id, value.
    CK_OBJECT_HANDLE certificate(const Bytes& der, const std::string& label, const Bytes& id) {
        return object({ulong_attr(CKA_CLASS, CKO_CERTIFICATE), ulong_attr(CKA_CERTIFICATE_TYPE, CKC_X_509),
                       bool_attr(CKA_TOKEN, true), text_attr(CKA_LABEL, label), bytes_attr(CKA_ID, id),
                       bytes_attr(CKA_VALUE, der)});
    }
    /// A private key object (private, sensitive, can sign) without signing material.
    CK_OBJECT_HANDLE private_key(CK_KEY_TYPE type, const Bytes& id, const std::string& label = "") {
        return object({ulong_attr(CKA_CLASS, CKO_PRIVATE_KEY), ulong_attr(CKA_KEY_TYPE, type),
                       bool_attr(CKA_TOKEN, true), bool_attr(CKA_PRIVATE, true),
                       bool_attr(CKA_SENSITIVE, true), bool_attr(CKA_SIGN, true), text_attr(CKA_LABEL, label),
                       bytes_attr(CKA_ID, id)});
    }
    /// An RSA private key that signs with `key` (PEM or DER).
    CK_OBJECT_HANDLE rsa_key(const Bytes& id, const Bytes& key, const std::string& label = "") {
        CK_OBJECT_HANDLE h = private_key(CKK_RSA, id, label);
        check(tp_set_rsa_key(h, key.data(), key.size()), "tp_set_rsa_key");
        return h;
    }
    /// A GOST private key (key type CKK_GOSTR3410, or TP_CKK_GOSTR3410_512) that signs with
    /// the big-endian scalar `d` on `curve`.
    CK_OBJECT_HANDLE gost_key(CK_KEY_TYPE type, const Bytes& id, const std::string& curve, const Bytes& d,
                              const std::string& label = "") {
        CK_OBJECT_HANDLE h = private_key(type, id, label);
        check(tp_set_gost_key(h, curve.c_str(), d.data(), d.size()), "tp_set_gost_key");
        return h;
    }
    /// A public key object with CKA_VALUE (a GOST point: x || y little-endian).
    CK_OBJECT_HANDLE public_key(CK_KEY_TYPE type, const Bytes& id, const Bytes& value,
                                const std::string& label = "") {
        return object({ulong_attr(CKA_CLASS, CKO_PUBLIC_KEY), ulong_attr(CKA_KEY_TYPE, type),
                       bool_attr(CKA_TOKEN, true), text_attr(CKA_LABEL, label), bytes_attr(CKA_ID, id),
                       bytes_attr(CKA_VALUE, value)});
    }
    CK_OBJECT_HANDLE data(const std::string& label, const Bytes& value) {
        return object({ulong_attr(CKA_CLASS, CKO_DATA), bool_attr(CKA_TOKEN, true),
                       text_attr(CKA_LABEL, label), bytes_attr(CKA_VALUE, value)});
    }

private:
    CK_SLOT_ID slot_;
};

/// Whole call sequence, "C_GetFunctionList,C_Initialize,...".
inline std::string sequence() {
    int n = tp_call_sequence(nullptr, 0);
    std::string s(size_t(n) + 1, '\0');
    tp_call_sequence(&s[0], s.size());
    s.resize(size_t(n));
    return s;
}
/// The index-th call of `function` (nullptr: of all); throws if there is none.
inline tp_call call(const char* function, size_t index = 0) {
    tp_call c;
    if (tp_get_call(function, index, &c) != 0)
        throw std::out_of_range(std::string("no such call: ") + (function ? function : "*"));
    return c;
}
inline std::string call_text(const char* function, size_t index = 0) {
    int n = tp_call_text(function, index, nullptr, 0);
    if (n < 0) throw std::out_of_range(std::string("no such call: ") + (function ? function : "*"));
    std::string s(size_t(n) + 1, '\0');
    tp_call_text(function, index, &s[0], s.size());
    s.resize(size_t(n));
    return s;
}
/// The template of a call as (type, bytes) pairs.
inline std::vector<Attr> call_template(const char* function, size_t index = 0) {
    tp_call c = call(function, index);
    std::vector<Attr> out;
    for (size_t k = 0; k < c.attr_count && k < TP_MAX_ATTRS; ++k) {
        int n = tp_call_attr_value(function, index, k, nullptr, 0);
        Bytes b(n > 0 ? size_t(n) : 0);
        if (n > 0) tp_call_attr_value(function, index, k, b.data(), b.size());
        out.push_back({c.attr_types[k], b});
    }
    return out;
}

}  // namespace tp
#endif
