#include "tokens.h"

#include <algorithm>

#include <openssl/x509.h>

namespace zs {
namespace {

std::string field(unsigned char* text, unsigned long length) { return p11::p11_utf8_to_local(text, length); }

bool matches(const std::map<std::string, std::string>& wanted,
             const std::map<std::string, std::string>& texts) {
    for (const auto& [key, value] : wanted) {
        auto it = texts.find(key);
        if (it == texts.end() || it->second != value) return false;
    }
    return true;
}

}  // namespace

Failure library_failure(const p11::process_error& e, bool tokenGone) {
    return describe(e.code(), e.message(), tokenGone);
}

std::vector<Token> load_tokens(const std::shared_ptr<p11::Module>& module,
                               const std::map<std::string, std::string>& wanted) {
    std::vector<Token> tokens;
    std::unique_ptr<std::vector<std::shared_ptr<p11::Slot>>> slots;
    try {
        slots = module->listTokenSlots();
    } catch (const p11::process_error& e) {
        throw library_failure(e);
    }
    for (auto& slot : *slots) {
        Token t;
        t.slot = slot;
        try {
            auto info = slot->readTokenInfo();
            t.texts["token"] = field(info->label, sizeof info->label);
            t.texts["manufacturer"] = field(info->manufacturerID, sizeof info->manufacturerID);
            t.texts["model"] = field(info->model, sizeof info->model);
            t.texts["serial"] = field(info->serialNumber, sizeof info->serialNumber);
            t.flags = info->flags;
            if (!matches(wanted, t.texts)) continue;
            t.initialized = (info->flags & CKF_TOKEN_INITIALIZED) != 0;
            if (!t.initialized) {
                t.certs = std::make_shared<std::vector<std::shared_ptr<p11::Certificate>>>();
                tokens.push_back(std::move(t));
                continue;
            }
            t.session = slot->openSession(0);
            t.certs = t.session->enumerateCerts();
        } catch (const p11::process_error& e) {
            t.failed = true;
            t.code = e.code();
            t.message = e.message();
        }
        tokens.push_back(std::move(t));
    }
    return tokens;
}

bool token_gone(const std::shared_ptr<p11::Module>& module, const Token& token) {
    try {
        auto slots = module->listTokenSlots();
        for (auto& slot : *slots) {
            auto info = slot->readTokenInfo();
            if (field(info->label, sizeof info->label) == token.label() &&
                field(info->serialNumber, sizeof info->serialNumber) == token.texts.at("serial"))
                return false;
        }
        return true;
    } catch (const p11::process_error&) {
        return false;
    }
}

Bytes cert_id(p11::Certificate& c) {
    auto& id = c.get_id();
    return Bytes(id.first.get(), id.first.get() + id.second);
}

std::string describe_token(const Token& t) { return "token \"" + printable(t.label()) + "\""; }

std::vector<std::pair<std::string, std::string>> ordered(const p11::name_map& name) {
    static const std::vector<std::string> order = {"CN",     "GN", "SN", "title", "OU",          "O",
                                                   "street", "L",  "ST", "C",     "emailAddress"};
    std::vector<std::pair<std::string, std::string>> out;
    for (const auto& key : order)
        if (auto it = name.find(key); it != name.end()) out.emplace_back(key, to_utf8(it->second));
    std::vector<std::string> rest;
    for (const auto& [key, value] : name)
        if (std::find(order.begin(), order.end(), key) == order.end()) rest.push_back(key);
    std::sort(rest.begin(), rest.end());
    for (const auto& key : rest) out.emplace_back(key, to_utf8(name.at(key)));
    return out;
}

std::string rfc4514(const X509_NAME* name) {
    p11::ossl::bio_ptr out(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(out.get(), name, 0, XN_FLAG_RFC2253);
    char* text = nullptr;
    const long length = BIO_get_mem_data(out.get(), &text);
    return std::string(text, static_cast<size_t>(length > 0 ? length : 0));
}

std::string serial_hex(const X509* cert) {
    p11::ossl::bn_ptr n(ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr));
    std::unique_ptr<char, void (*)(void*)> text(n ? BN_bn2hex(n.get()) : nullptr, OPENSSL_freeFunc);
    return text ? text.get() : "";
}

std::vector<std::string> key_usage(const p11::Certificate& c) {
    static const char* const names[9] = {"digitalSignature", "nonRepudiation", "keyEncipherment",
                                         "dataEncipherment", "keyAgreement",   "keyCertSign",
                                         "cRLSign",          "encipherOnly",   "decipherOnly"};
    std::vector<std::string> out;
    for (int bit = 0; bit < 9; ++bit)
        if (c.getKeyUsage().test(bit)) out.push_back(names[bit]);
    return out;
}

}  // namespace zs
