#include "test_identities.h"

#include <stdexcept>

#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "test_certs.h"
#include "test_openssl.h"

namespace testid {
namespace {

std::vector<unsigned char> from_hex(const std::string& hex, size_t size) {
    std::vector<unsigned char> out(size, 0);
    std::string digits;
    for (char c : hex)
        if (std::isxdigit(static_cast<unsigned char>(c))) digits.push_back(c);
    if (digits.size() % 2) digits.insert(digits.begin(), '0');
    const size_t n = digits.size() / 2;
    if (n > size) throw std::runtime_error("scalar too long");
    for (size_t i = 0; i < n; ++i) out[size - n + i] = static_cast<unsigned char>(std::stoi(digits.substr(2 * i, 2), nullptr, 16));
    return out;
}

// The curve of a GOST certificate: the first OID of its public-key parameters.
std::string parameter_set(X509* cert) {
    const void* params = nullptr;
    int type = 0;
    X509_ALGOR* alg = nullptr;
    X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &alg, X509_get_X509_PUBKEY(cert));
    X509_ALGOR_get0(nullptr, &type, &params, alg);
    if (type != V_ASN1_SEQUENCE) throw std::runtime_error("no GOST parameters");
    auto* seq = static_cast<const ASN1_STRING*>(params);
    const unsigned char* p = ASN1_STRING_get0_data(seq);
    long len = 0;
    int tag = 0, cls = 0;
    ASN1_get_object(&p, &len, &tag, &cls, ASN1_STRING_length(seq));
    std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> oid(d2i_ASN1_OBJECT(nullptr, &p, len), ASN1_OBJECT_free);
    char text[80];
    OBJ_obj2txt(text, sizeof text, oid.get(), 1);
    return text;
}

Identity load_gost(const std::string& name) {
    const std::string dir = std::string(ZORVO_SOURCE_DIR) + "/tests/data/gost/";
    Identity id;
    id.name = name;
    id.certPem = testssl::read_file(dir + name + ".cert.pem");
    p11::ossl::bio_ptr in(BIO_new_mem_buf(id.certPem.data(), static_cast<int>(id.certPem.size())));
    p11::ossl::x509_ptr cert(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
    if (!cert) throw std::runtime_error("cannot read " + name);
    id.certDer = testcert::der(cert.get());
    const bool wide = name == "gost2012_512";
    id.keyType = wide ? TP_CKK_GOSTR3410_512 : CKK_GOSTR3410;
    id.curve = parameter_set(cert.get());
    id.secret = from_hex(testssl::read_file(dir + name + ".key.hex"), wide ? 64 : 32);
    return id;
}

}  // namespace

const Identity& rsa() {
    static const Identity identity = [] {
        Identity id;
        id.name = "rsa";
        p11::ossl::evp_pkey_ptr key(EVP_RSA_gen(2048));
        testcert::Options o;
        o.subject = {{"CN", V_ASN1_UTF8STRING, "RSA signer"}, {"O", V_ASN1_UTF8STRING, "Zorvo test"}};
        o.keyUsage = "critical,digitalSignature,nonRepudiation";
        o.key = key.get();
        auto cert = testcert::make(o);
        id.certPem = testssl::cert_pem(cert.get());
        id.certDer = testcert::der(cert.get());
        id.keyType = CKK_RSA;
        id.secret = tp::bytes(testssl::key_pem(key.get()));
        return id;
    }();
    return identity;
}

const Identity& gost(const std::string& name) {
    static const Identity ids[] = {load_gost("gost2001"), load_gost("gost2012_256"), load_gost("gost2012_512")};
    for (const Identity& id : ids)
        if (id.name == name) return id;
    throw std::runtime_error("no identity " + name);
}

std::vector<const Identity*> gosts() { return {&gost("gost2001"), &gost("gost2012_256"), &gost("gost2012_512")}; }

void install(tp::Token& token, const Identity& identity, const tp::Bytes& id, const std::string& label) {
    token.certificate(identity.certDer, label, id);
    if (identity.gost())
        token.gost_key(identity.keyType, id, identity.curve, identity.secret, label);
    else
        token.rsa_key(id, identity.secret, label);
}

}  // namespace testid
