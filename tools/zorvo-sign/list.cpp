// zorvo-sign list: every token and its certificates, for people or as JSON.
#include <iostream>

#include "commands.h"
#include "pin.h"
#include "tokens.h"

namespace zs {
namespace {

std::string join(const std::vector<std::string>& parts, const std::string& between,
                 const std::string& quote = "") {
    std::string out;
    for (const auto& p : parts) out += (out.empty() ? "" : between) + quote + p + quote;
    return out;
}

void print_human(const std::vector<Token>& tokens) {
    for (const Token& t : tokens) {
        std::cout << "Token \"" << printable(t.label()) << "\" (slot " << t.slot->id << ")\n";
        if (!t.texts.empty()) {
            std::cout << "  manufacturer: " << printable(t.texts.at("manufacturer")) << "\n"
                      << "  model:        " << printable(t.texts.at("model")) << "\n"
                      << "  serial:       " << printable(t.texts.at("serial")) << "\n";
            const auto warnings = pin_warnings(t.flags);
            if (!warnings.empty()) std::cout << "  user PIN:     " << join(warnings, ", ") << "\n";
        }
        if (t.failed) {
            std::cout << "  certificates cannot be read: " << describe(t.code, t.message, false).what()
                      << "\n";
            continue;
        }
        if (!t.initialized)
            std::cout << "  not initialised\n";
        else if (t.certs->empty())
            std::cout << "  no certificates\n";
        for (const auto& c : *t.certs) {
            const auto usage = key_usage(*c);
            std::cout << "  Certificate \"" << printable(c->getLabel()) << "\"\n"
                      << "    id:         " << to_hex(cert_id(*c)) << "\n"
                      << "    subject:    " << printable(rfc4514(X509_get_subject_name(c->getX509()))) << "\n"
                      << "    issuer:     " << printable(rfc4514(X509_get_issuer_name(c->getX509()))) << "\n"
                      << "    serial:     " << serial_hex(c->getX509()) << "\n"
                      << "    valid from: " << c->getNotBeforeStr() << "\n"
                      << "    valid to:   " << c->getNotAfterStr() << "\n"
                      << "    key usage:  " << (usage.empty() ? "(not restricted)" : join(usage, ", "))
                      << "\n"
                      << "    uri:        " << pkcs11_uri(t.texts, c->getLabel(), cert_id(*c)) << "\n";
        }
    }
    if (tokens.empty()) std::cout << "No token found.\n";
}

std::string json_name(const p11::name_map& name) {
    std::string out = "{";
    for (const auto& [key, value] : ordered(name))
        out += (out.size() > 1 ? "," : "") + json_string(key) + ":" + json_string(value);
    return out + "}";
}

void print_json(const std::string& module, const std::vector<Token>& tokens) {
    std::string out = "{\"provider\":" + json_string(module) + ",\"tokens\":[";
    for (size_t i = 0; i < tokens.size(); ++i) {
        const Token& t = tokens[i];
        out += (i ? ",{\"slot\":" : "{\"slot\":") + std::to_string(t.slot->id);
        for (const char* key : {"token", "manufacturer", "model", "serial"})
            if (t.texts.count(key))
                out += std::string(",\"") + (key == std::string("token") ? "label" : key) +
                       "\":" + json_string(t.texts.at(key));
        std::vector<std::string> pin;
        for (const auto& w : pin_warnings(t.flags)) pin.push_back(json_string(w));
        out += ",\"userPin\":[" + join(pin, ",") + "]";
        out += std::string(",\"initialized\":") + (t.initialized ? "true" : "false");
        if (t.failed) {
            const Failure f = describe(t.code, t.message, false);
            out += ",\"error\":{\"code\":" + std::to_string(t.code) +
                   ",\"message\":" + json_string(t.message) + ",\"text\":" + json_string(f.what()) + "}";
        }
        out += ",\"certificates\":[";
        for (size_t k = 0; !t.failed && k < t.certs->size(); ++k) {
            auto& c = (*t.certs)[k];
            out += (k ? ",{\"label\":" : "{\"label\":") + json_string(c->getLabel()) + ",\"id\":\"" +
                   to_hex(cert_id(*c)) +
                   "\",\"uri\":" + json_string(pkcs11_uri(t.texts, c->getLabel(), cert_id(*c))) +
                   ",\"subject\":" + json_name(c->getSubject()) +
                   ",\"subjectText\":" + json_string(rfc4514(X509_get_subject_name(c->getX509()))) +
                   ",\"issuer\":" + json_name(c->getIssuer()) +
                   ",\"issuerText\":" + json_string(rfc4514(X509_get_issuer_name(c->getX509()))) +
                   ",\"serial\":\"" + c->getSerialNumber() + "\",\"serialHex\":\"" +
                   serial_hex(c->getX509()) + "\",\"notBefore\":" + json_string(c->getNotBeforeStr()) +
                   ",\"notAfter\":" + json_string(c->getNotAfterStr()) + ",\"keyUsage\":[" +
                   join(key_usage(*c), ",", "\"") + "]}";
        }
        out += "]}";
    }
    std::cout << out << "]}\n";
}

}  // namespace

int run_list(const Options& o) {
    auto module = std::make_shared<p11::Module>(o.module, nullptr);
    std::map<std::string, std::string> wanted;
    if (!o.token.empty()) wanted["token"] = o.token;
    auto tokens = load_tokens(module, wanted);
    if (o.json)
        print_json(o.module, tokens);
    else
        print_human(tokens);
    std::cout.flush();
    // A listing goes as far as it can; the first unreadable token decides the status.
    int status = kOk;
    for (const Token& t : tokens) {
        if (!t.failed) continue;
        const Failure f = describe(t.code, t.message, false);
        std::cerr << "zorvo-sign: " << describe_token(t) << ": " << f.what() << "\n";
        if (status == kOk) status = f.status;
    }
    if (tokens.empty() && !o.token.empty()) {
        std::cerr << "zorvo-sign: no token labelled \"" << printable(o.token) << "\"\n";
        status = kToken;
    }
    return status;
}

}  // namespace zs
