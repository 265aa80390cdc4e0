#include "test_certs.h"

#include <memory>
#include <stdexcept>
#include <string>

#include <openssl/ec.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

namespace testcert {

namespace {

using object_ptr = std::unique_ptr<ASN1_OBJECT, p11::ossl::Deleter<ASN1_OBJECT, ASN1_OBJECT_free>>;
using extension_ptr =
    std::unique_ptr<X509_EXTENSION, p11::ossl::Deleter<X509_EXTENSION, X509_EXTENSION_free>>;

void check(bool ok, const std::string& what) {
    if (!ok) throw std::runtime_error("test certificate: " + what);
}

void addEntries(X509_NAME* name, const std::vector<Entry>& entries) {
    for (const Entry& e : entries) {
        // No name lookup for dotted numbers, so an unknown one stays without a short name.
        object_ptr object(OBJ_txt2obj(e.field.c_str(), 0));
        check(object != nullptr, "unknown attribute");
        // A plain type (not an MBSTRING_ flag) stores the bytes as given, unchecked.
        check(X509_NAME_add_entry_by_OBJ(name, object.get(), e.type,
                                         reinterpret_cast<const unsigned char*>(e.value.data()),
                                         static_cast<int>(e.value.size()), -1, 0) == 1,
              ("name entry " + e.field + " of type " + std::to_string(e.type)).c_str());
    }
}

}  // namespace

name_ptr makeName(const std::vector<Entry>& entries) {
    name_ptr name(X509_NAME_new());
    check(name != nullptr, "X509_NAME_new");
    addEntries(name.get(), entries);
    return name;
}

p11::ossl::evp_pkey_ptr newKey() {
    p11::ossl::evp_pkey_ptr key(EVP_EC_gen("P-256"));
    check(key != nullptr, "key generation");
    return key;
}

p11::ossl::x509_ptr make(const Options& options) {
    p11::ossl::evp_pkey_ptr fresh;
    EVP_PKEY* key = options.key;
    if (key == nullptr) {
        fresh = newKey();
        key = fresh.get();
    }

    p11::ossl::x509_ptr cert(X509_new());
    check(cert != nullptr, "X509_new");
    check(X509_set_version(cert.get(), X509_VERSION_3) == 1, "version");
    check(ASN1_INTEGER_set_int64(X509_get_serialNumber(cert.get()), options.serial) == 1, "serial");
    check(ASN1_TIME_set_string_X509(X509_getm_notBefore(cert.get()), options.notBefore.c_str()) == 1,
          "notBefore");
    check(ASN1_TIME_set_string_X509(X509_getm_notAfter(cert.get()), options.notAfter.c_str()) == 1,
          "notAfter");

    addEntries(X509_get_subject_name(cert.get()), options.subject);
    addEntries(X509_get_issuer_name(cert.get()), options.issuer.empty() ? options.subject : options.issuer);
    check(X509_set_pubkey(cert.get(), key) == 1, "public key");

    if (!options.keyUsage.empty()) {
        X509V3_CTX ctx;
        X509V3_set_ctx_nodb(&ctx);
        X509V3_set_ctx(&ctx, cert.get(), cert.get(), nullptr, nullptr, 0);
        extension_ptr ext(X509V3_EXT_nconf_nid(nullptr, &ctx, NID_key_usage, options.keyUsage.c_str()));
        check(ext != nullptr, "key usage");
        check(X509_add_ext(cert.get(), ext.get(), -1) == 1, "add key usage");
    }

    check(X509_sign(cert.get(), key, EVP_sha256()) > 0, "sign");
    return cert;
}

std::vector<unsigned char> der(const X509* cert) {
    const int length = i2d_X509(cert, nullptr);
    check(length > 0, "i2d_X509");
    std::vector<unsigned char> out(static_cast<size_t>(length));
    unsigned char* p = out.data();
    check(i2d_X509(cert, &p) == length, "i2d_X509");
    return out;
}

std::vector<unsigned char> makeDer(const Options& options) {
    return der(make(options).get());
}

}  // namespace testcert
