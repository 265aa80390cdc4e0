#pragma once
// The tokens of a provider as zorvo-sign reads them, and how it names what it found.
#include <zorvopkcs11.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "failure.h"
#include "text.h"

namespace zs {

using Certificates = std::shared_ptr<std::vector<std::shared_ptr<p11::Certificate>>>;

/// One token and what could be read of it.
struct Token {
    std::shared_ptr<p11::Slot> slot;
    std::map<std::string, std::string> texts;  // token, manufacturer, model, serial (UTF-8 bytes)
    CK_FLAGS flags = 0;
    std::shared_ptr<p11::Session> session;
    Certificates certs;
    bool initialized = true;  // a blank token (SoftHSM keeps one free) has nothing to read
    bool failed = false;
    int code = 0;
    std::string message;
    std::string label() const { return texts.count("token") ? texts.at("token") : ""; }
};

/// The user's words for a library error (see describe()).
Failure library_failure(const p11::process_error& e, bool tokenGone = false);

/// The tokens whose texts match `wanted`, each with its certificates (or the error that
/// prevented reading them). A token whose information cannot be read is kept, failed.
std::vector<Token> load_tokens(const std::shared_ptr<p11::Module>& module,
                               const std::map<std::string, std::string>& wanted);
/// Whether the token is no longer there; asked after a failure, since a removed token explains
/// any error best. When the provider cannot even say, assume it is there.
bool token_gone(const std::shared_ptr<p11::Module>& module, const Token& token);

Bytes cert_id(p11::Certificate& c);
/// `token "label"`, printable.
std::string describe_token(const Token& t);
/// A name as RFC 4514 writes it, exactly as `openssl x509 -nameopt RFC2253` prints it: every
/// attribute, most specific first, special characters and non-ASCII bytes escaped.
std::string rfc4514(const X509_NAME* name);
/// The serial number in hexadecimal, as `openssl x509 -serial` prints it.
std::string serial_hex(const X509* cert);
/// The name map's entries, most specific first, values in UTF-8.
std::vector<std::pair<std::string, std::string>> ordered(const p11::name_map& name);
/// The KeyUsage bits set, by their X.509 names.
std::vector<std::string> key_usage(const p11::Certificate& c);

}  // namespace zs
