#pragma once
// The OpenSSL bridge: the process-wide signing context, the NID tables, the token signing
// primitive and the key methods that route private-key operations to the token.
#include <atomic>
#include <memory>

#include <openssl/evp.h>
#include <openssl/x509.h>
#ifdef ZORVO_ENGINE
#include <openssl/engine.h>
#include <openssl/rsa.h>
#endif
#include <p11-kit/pkcs11.h>

namespace p11 {

class Slot;
class Session;
struct log_site;

/// Vendor numbers of the Russian PKCS#11 extension.
constexpr CK_KEY_TYPE CKK_GOSTR3410_512 = 0xD4321003;
constexpr CK_MECHANISM_TYPE CKM_GOSTR3410_512 = 0xD4321006;
constexpr CK_MECHANISM_TYPE CKM_GOSTR3410_WITH_GOSTR3411_12_256 = 0xD4321008;
constexpr CK_MECHANISM_TYPE CKM_GOSTR3410_WITH_GOSTR3411_12_512 = 0xD4321009;
constexpr CK_MECHANISM_TYPE CKM_GOSTR3411_12_256 = 0xD4321012;
constexpr CK_MECHANISM_TYPE CKM_GOSTR3411_12_512 = 0xD4321013;

/// The slot and session the engine's signing callbacks use; owned by whoever holds the claim.
struct p11_engine_ctx {
    std::weak_ptr<Slot> slot;
    std::weak_ptr<Session> session;
    ~p11_engine_ctx() {
        session.reset();
        slot.reset();
    }
};

extern p11_engine_ctx engine_ctx;
/// The claim on engine_ctx: a try-lock, never waited on.
extern std::atomic<bool> engine_in_use;

struct p11_mechanism_nid {
    int nid;
    CK_MECHANISM_TYPE mechanism;
    const char* name;
};
extern const p11_mechanism_nid p11MechanismNids[];

/// The mechanism for an OpenSSL NID; 0 for an unknown NID (the token then refuses it).
CK_MECHANISM_TYPE nid_to_p11_mechanism_type(int nid);
/// 0xD4321003 for the 512-bit GOST key NID, CKK_GOSTR3410 for every other NID. Signed on
/// purpose: callers widening it to CK_KEY_TYPE sign-extend the vendor number.
int nid_to_p11_key_type(int nid);

/// Takes the engine claim and points the context at `session` and its slot, or logs and
/// throws process_error(300) when another signing operation holds it.
void claim_engine(const std::shared_ptr<Session>& session, const log_site& site);
/// Gives the claim back (streaming signer only).
void release_engine() noexcept;

/// An OpenSSL key for a private key object on the token, its public half from the certificate's
/// `pub`, its private operations done on the token: RSA (null when `pub` is no RSA key), signing
/// with `key` through the slot and session given; GOST R 34.10 (null when OpenSSL refuses the
/// type), signing through the session that holds the claim.
EVP_PKEY* token_rsa_key(std::weak_ptr<Slot> slot, std::weak_ptr<Session> session, CK_OBJECT_HANDLE key,
                        X509_PUBKEY* pub);
EVP_PKEY* token_gost_key(CK_OBJECT_HANDLE key, X509_PUBKEY* pub);

/// Signs `tbs` on the token with C_SignInit/C_Sign; 1 on success, 0 on failure (logged; a
/// failed C_Sign also goes on OpenSSL's error queue with the return value as reason).
int p11_pkey_sign(std::weak_ptr<Slot> slot, std::weak_ptr<Session> session, CK_OBJECT_HANDLE key, int nid,
                  unsigned char* sig, size_t* siglen, const unsigned char* tbs, size_t tbslen);

#ifdef ZORVO_ENGINE
extern ENGINE* p11_engine;
extern const int p11_pkey_nids[3];
int p11_pkey_meths(ENGINE* e, EVP_PKEY_METHOD** pmeth, const int** nids, int nid);
int p11_pkey_asn1_meths(ENGINE* e, EVP_PKEY_ASN1_METHOD** ameth, const int** nids, int nid);

/// Ties an RSA object to its token key; ex-data index 0 of the RSA, freed with the RSA.
struct p11_rsa_key_data {
    std::weak_ptr<Slot> slot;
    std::weak_ptr<Session> session;
    CK_OBJECT_HANDLE key = 0;
};
/// The default RSA method with signing done on the token; built once.
RSA_METHOD* p11_get_rsa_method();
/// Hangs `record` on `rsa` at ex-data index 0; the RSA frees it.
void p11_rsa_attach(RSA* rsa, std::unique_ptr<p11_rsa_key_data> record);

/// The key data of the engine's GOST keys. `pubkey` is borrowed from the certificate.
struct p11_gost_key_data {
    X509_PUBKEY* pubkey;
    CK_OBJECT_HANDLE key;
};
/// Builds the three GOST key methods; called once by reg_pkcs11_engine.
void p11_gost_init();
extern EVP_PKEY_ASN1_METHOD* ameth_GostR3410_2001;
extern EVP_PKEY_ASN1_METHOD* ameth_GostR3410_2012_256;
extern EVP_PKEY_ASN1_METHOD* ameth_GostR3410_2012_512;
extern EVP_PKEY_METHOD* pmeth_GostR3410_2001;
extern EVP_PKEY_METHOD* pmeth_GostR3410_2012_256;
extern EVP_PKEY_METHOD* pmeth_GostR3410_2012_512;
#endif

}  // namespace p11
