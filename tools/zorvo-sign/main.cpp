// zorvo-sign: lists the certificates on PKCS#11 tokens and makes CMS signatures with them.
// Built on the library's public API only, as any host would be.
#include <zorvopkcs11.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "failure.h"
#include "io.h"
#include "text.h"

#ifndef ZORVO_VERSION
#define ZORVO_VERSION "unknown"
#endif

namespace zs {
namespace {

const char kUsageText[] =
    "usage: zorvo-sign list --module PROVIDER [--token LABEL] [--json]\n"
    "       zorvo-sign sign --module PROVIDER --cert SELECTOR --in FILE --out FILE.pem\n"
    "                       [--detached] [--stream] [--token LABEL] [--pin-env NAME | --pin-file FILE]\n"
    "       both also take [--log FILE] [--log-level debug|info|warn|error]\n"
    "       zorvo-sign --help | --version\n";

const char kHelpText[] =
    "\n"
    "Lists the certificates on PKCS#11 tokens, and signs a file with a certificate's key,\n"
    "which stays on the token. The signature is CMS (PKCS#7) in PEM.\n"
    "\n"
    "  --module PROVIDER  the PKCS#11 provider library (.so)\n"
    "  --token LABEL      only the token with this label\n"
    "  --json             list for scripts (UTF-8 JSON)\n"
    "  --cert SELECTOR    the signing certificate: NAME or label:NAME (its label), id:HEX (its\n"
    "                     identifier), or a pkcs11: URI with token, manufacturer, model, serial,\n"
    "                     object, id, type=cert (`list` prints each certificate's URI)\n"
    "  --in FILE          the data to sign ('-': standard input)\n"
    "  --out FILE.pem     the signature; written completely or not at all\n"
    "  --detached         leave the data out of the signature (default: attached)\n"
    "  --stream           sign in 64 KiB pieces: any size, any bytes (one-shot signing refuses\n"
    "                     input with NUL bytes); adds the signing-certificate-v2 attribute\n"
    "  --pin-env NAME     take the PIN from variable NAME (default: ZORVO_PIN)\n"
    "  --pin-file FILE    take the PIN from the first line of FILE\n"
    "                     with neither, ZORVO_PIN or else a prompt on the terminal\n"
    "  --log FILE         write the library's log to FILE (the PIN is never logged)\n"
    "  --log-level LEVEL  debug, info, warn or error (default info; without --log: to stderr)\n"
    "\n"
    "Exit status:\n";

struct Options {
    std::string command;
    std::string module, token, cert, in, out, logFile, logLevel;
    PinSource pin;
    bool json = false, detached = false, stream = false;
};

Options parse_args(int argc, char** argv) {
    Options o;
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) throw Failure(kUsage, "a command is needed\n" + std::string(kUsageText));
    const std::map<std::string, std::string*> valued = {{"--module", &o.module},
                                                        {"--token", &o.token},
                                                        {"--cert", &o.cert},
                                                        {"--in", &o.in},
                                                        {"--out", &o.out},
                                                        {"--log", &o.logFile},
                                                        {"--log-level", &o.logLevel},
                                                        {"--pin-env", &o.pin.envName},
                                                        {"--pin-file", &o.pin.file}};
    const std::map<std::string, bool*> flags = {
        {"--json", &o.json}, {"--detached", &o.detached}, {"--stream", &o.stream}};
    for (size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i], value;
        bool inlineValue = false;
        if (arg.compare(0, 2, "--") == 0 && arg.find('=') != std::string::npos) {
            value = arg.substr(arg.find('=') + 1);
            arg = arg.substr(0, arg.find('='));
            inlineValue = true;
        }
        if (arg == "--help" || arg == "-h" || arg == "--version") {
            o.command = arg;
            return o;
        }
        if (auto v = valued.find(arg); v != valued.end()) {
            if (!inlineValue) {
                if (i + 1 >= args.size()) throw Failure(kUsage, arg + " needs a value");
                value = args[++i];
            }
            *v->second = value;
        } else if (auto f = flags.find(arg); f != flags.end() && !inlineValue) {
            *f->second = true;
        } else if (arg.compare(0, 1, "-") != 0 && o.command.empty()) {
            o.command = arg;
        } else {
            throw Failure(kUsage, "unexpected argument " + arg + " (see zorvo-sign --help)");
        }
    }
    if (o.command != "list" && o.command != "sign")
        throw Failure(kUsage, o.command.empty() ? "a command is needed: list or sign"
                                                : "unknown command " + o.command + ": list or sign");
    if (o.module.empty()) throw Failure(kUsage, "--module PROVIDER is needed");
    if (o.command == "sign") {
        for (auto [name, value] : {std::pair{"--cert", &o.cert}, {"--in", &o.in}, {"--out", &o.out}})
            if (value->empty()) throw Failure(kUsage, std::string(name) + " is needed to sign");
        if (!o.pin.file.empty() && !o.pin.envName.empty())
            throw Failure(kUsage, "--pin-env and --pin-file exclude each other");
        if (o.json) throw Failure(kUsage, "--json belongs to list");
    } else if (o.detached || o.stream || !o.cert.empty() || !o.in.empty() || !o.out.empty() ||
               !o.pin.file.empty() || !o.pin.envName.empty()) {
        throw Failure(kUsage, "list takes --module, --token, --json and the log options only");
    }
    return o;
}

void setup_logging(const Options& o) {
    if (o.logFile.empty() && o.logLevel.empty()) {
        p11::set_log_level(60000);  // OFF: no appender, so nothing to say
        return;
    }
    static const std::map<std::string, int> levels = {
        {"debug", 10000}, {"info", 20000}, {"warn", 30000}, {"error", 40000}};
    const std::string name = o.logLevel.empty() ? "info" : o.logLevel;
    auto level = levels.find(name);
    if (level == levels.end()) throw Failure(kUsage, "--log-level: debug, info, warn or error, not " + name);
    const std::string pattern = "%D{%Y-%m-%d %H:%M:%S.%q} %-5p %m  [%b:%L]%n";
    if (o.logFile.empty()) {
        p11::add_console_appender(true, pattern);
    } else {
        // The library cannot report an unwritable log file; find out first.
        int fd = ::open(o.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0) throw Failure(kFile, "cannot write log file " + o.logFile + ": " + std::strerror(errno));
        ::close(fd);
        p11::add_file_appender(o.logFile, pattern);
    }
    p11::set_log_level(level->second);
}

// ---- Tokens and certificates ------------------------------------------------------------

struct Token {
    std::shared_ptr<p11::Slot> slot;
    std::map<std::string, std::string> texts;  // token, manufacturer, model, serial (UTF-8 bytes)
    CK_FLAGS flags = 0;
    std::shared_ptr<p11::Session> session;
    std::shared_ptr<std::vector<std::shared_ptr<p11::Certificate>>> certs;
    bool initialized = true;  // a blank token (SoftHSM keeps one free) has nothing to read
    bool failed = false;
    int code = 0;
    std::string message;
    std::string label() const { return texts.count("token") ? texts.at("token") : ""; }
};

std::string field(unsigned char* text, unsigned long length) {
    return p11::p11_utf8_to_local(text, length);
}

bool matches(const std::map<std::string, std::string>& wanted,
             const std::map<std::string, std::string>& texts) {
    for (const auto& [key, value] : wanted) {
        auto it = texts.find(key);
        if (it == texts.end() || it->second != value) return false;
    }
    return true;
}

Failure library_failure(const p11::process_error& e, bool tokenGone = false) {
    return describe(e.code(), e.message(), tokenGone);
}

std::unique_ptr<std::vector<std::shared_ptr<p11::Slot>>> token_slots(
    const std::shared_ptr<p11::Module>& module) {
    try {
        return module->listTokenSlots();
    } catch (const p11::process_error& e) {
        throw library_failure(e);
    }
}

// The tokens whose texts match `wanted`, each with its certificates (or the error that
// prevented reading them). A token whose information cannot be read is kept, failed.
std::vector<Token> load_tokens(const std::shared_ptr<p11::Module>& module,
                               const std::map<std::string, std::string>& wanted) {
    std::vector<Token> tokens;
    auto slots = token_slots(module);
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

// Whether the chosen token is still there; asked after a failure, since a removed token
// explains any error best. When the provider cannot even say, assume it is.
bool token_gone(const std::shared_ptr<p11::Module>& module, const Token& chosen) {
    try {
        auto slots = module->listTokenSlots();
        for (auto& slot : *slots) {
            auto info = slot->readTokenInfo();
            if (field(info->label, sizeof info->label) == chosen.label() &&
                field(info->serialNumber, sizeof info->serialNumber) == chosen.texts.at("serial"))
                return false;
        }
        return true;
    } catch (...) {
        return false;
    }
}

zs::Bytes cert_id(p11::Certificate& c) {
    auto& id = c.get_id();
    return zs::Bytes(id.first.get(), id.first.get() + id.second);
}

const char* const kKeyUsageNames[9] = {"digitalSignature", "nonRepudiation", "keyEncipherment",
                                       "dataEncipherment", "keyAgreement",   "keyCertSign",
                                       "cRLSign",          "encipherOnly",   "decipherOnly"};

// Name entries in the usual reading order (most specific first), then the rest by key.
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

std::string one_line(const p11::name_map& name) {
    std::string out;
    for (const auto& [key, value] : ordered(name)) out += (out.empty() ? "" : ", ") + key + "=" + value;
    return out;
}

std::string describe_token(const Token& t) {
    return "token \"" + printable(t.label()) + "\"";
}

// ---- list -----------------------------------------------------------------------------------

void print_human(const std::vector<Token>& tokens) {
    for (const Token& t : tokens) {
        std::cout << "Token \"" << printable(t.label()) << "\" (slot " << t.slot->id << ")\n";
        if (!t.texts.empty()) {
            std::cout << "  manufacturer: " << printable(t.texts.at("manufacturer")) << "\n"
                      << "  model:        " << printable(t.texts.at("model")) << "\n"
                      << "  serial:       " << printable(t.texts.at("serial")) << "\n";
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
            std::string usage;
            for (int bit = 0; bit < 9; ++bit)
                if (c->getKeyUsage().test(bit))
                    usage += (usage.empty() ? "" : ", ") + std::string(kKeyUsageNames[bit]);
            std::cout << "  Certificate \"" << printable(c->getLabel()) << "\"\n"
                      << "    id:         " << to_hex(cert_id(*c)) << "\n"
                      << "    subject:    " << printable(one_line(c->getSubject())) << "\n"
                      << "    issuer:     " << printable(one_line(c->getIssuer())) << "\n"
                      << "    serial:     " << c->getSerialNumber() << "\n"
                      << "    valid from: " << c->getNotBeforeStr() << "\n"
                      << "    valid to:   " << c->getNotAfterStr() << "\n"
                      << "    key usage:  " << (usage.empty() ? "(not restricted)" : usage) << "\n"
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
        out += i ? "," : "";
        out += "{\"slot\":" + std::to_string(t.slot->id);
        for (const char* key : {"token", "manufacturer", "model", "serial"})
            if (t.texts.count(key))
                out += std::string(",\"") + (key == std::string("token") ? "label" : key) +
                       "\":" + json_string(t.texts.at(key));
        out += std::string(",\"initialized\":") + (t.initialized ? "true" : "false");
        if (t.failed) {
            const Failure f = describe(t.code, t.message, false);
            out += ",\"error\":{\"code\":" + std::to_string(t.code) +
                   ",\"message\":" + json_string(t.message) + ",\"text\":" + json_string(f.what()) + "}";
        }
        out += ",\"certificates\":[";
        for (size_t k = 0; !t.failed && k < t.certs->size(); ++k) {
            auto& c = (*t.certs)[k];
            out += k ? "," : "";
            out += "{\"label\":" + json_string(c->getLabel()) + ",\"id\":\"" + to_hex(cert_id(*c)) + "\"" +
                   ",\"uri\":" + json_string(pkcs11_uri(t.texts, c->getLabel(), cert_id(*c))) +
                   ",\"subject\":" + json_name(c->getSubject()) +
                   ",\"subjectText\":" + json_string(one_line(c->getSubject())) +
                   ",\"issuer\":" + json_name(c->getIssuer()) +
                   ",\"issuerText\":" + json_string(one_line(c->getIssuer())) + ",\"serial\":\"" +
                   c->getSerialNumber() + "\"" + ",\"notBefore\":" + json_string(c->getNotBeforeStr()) +
                   ",\"notAfter\":" + json_string(c->getNotAfterStr()) + ",\"keyUsage\":[";
            std::string usage;
            for (int bit = 0; bit < 9; ++bit)
                if (c->getKeyUsage().test(bit))
                    usage += (usage.empty() ? "\"" : ",\"") + std::string(kKeyUsageNames[bit]) + "\"";
            out += usage + "]}";
        }
        out += "]}";
    }
    std::cout << out << "]}\n";
}

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

// ---- sign -----------------------------------------------------------------------------------

struct Choice {
    Token* token = nullptr;
    std::shared_ptr<p11::Certificate> cert;
};

std::string selector_text(const Options& o) {
    return "\"" + printable(o.cert) + "\"";
}

Choice choose(std::vector<Token>& tokens, const Selector& sel, const Options& o) {
    if (tokens.empty()) {
        if (sel.token.empty()) throw Failure(kToken, "no token in any slot of " + o.module);
        std::string what;
        for (const auto& [k, v] : sel.token) what += (what.empty() ? "" : ", ") + k + "=" + printable(v);
        throw Failure(kToken, "no token with " + what);
    }
    std::vector<Choice> found;
    const Token* unreadable = nullptr;
    for (Token& t : tokens) {
        if (t.failed) {
            if (!unreadable) unreadable = &t;
            continue;
        }
        for (auto& c : *t.certs) {
            if (sel.hasLabel && c->getLabel() != sel.label) continue;
            if (sel.hasId && cert_id(*c) != sel.id) continue;
            found.push_back({&t, c});
        }
    }
    if (found.empty()) {
        std::string text = "no such certificate: " + selector_text(o);
        if (unreadable)
            text += "; " + describe_token(*unreadable) + " could not be read (" +
                    std::to_string(unreadable->code) + ": " + unreadable->message + ")";
        throw Failure(kCertificate, text);
    }
    if (found.size() > 1) {
        std::string where;
        for (const Choice& c : found)
            where +=
                (where.empty() ? "" : ", ") + describe_token(*c.token) + " id " + to_hex(cert_id(*c.cert));
        throw Failure(kCertificate, "certificate " + selector_text(o) +
                                        " is ambiguous: " + std::to_string(found.size()) + " match (" +
                                        where + "); add --token or use a pkcs11: URI from `zorvo-sign list`");
    }
    return found.front();
}

constexpr size_t kPiece = 64 * 1024;

std::string sign_stream(p11::Certificate& cert, std::unique_ptr<p11::Session::LoginToken> login, Input& input,
                        bool attached, int64_t& bytes) {
    auto signer = cert.startSigning(std::move(login), attached);
    std::vector<char> piece(kPiece);
    Progress progress(input.size());
    bytes = 0;
    for (size_t n; (n = input.read(piece.data(), piece.size())) > 0;) {
        signer->addData(piece.data(), static_cast<int>(n));
        bytes += static_cast<int64_t>(n);
        progress.update(bytes);
    }
    progress.finish();
    return signer->finish();
}

int run_sign(const Options& o) {
    Selector sel;
    try {
        sel = parse_selector(o.cert);
    } catch (const std::invalid_argument& e) {
        throw Failure(kUsage, std::string("--cert: ") + e.what());
    }
    if (!o.token.empty()) {
        if (sel.token.count("token") && sel.token["token"] != o.token)
            throw Failure(kUsage, "--token and the URI name different tokens");
        sel.token["token"] = o.token;
    }

    // Everything that can fail without the token is checked before the token is touched.
    Input input(o.in);
    std::string data;
    if (!o.stream) {
        std::vector<char> piece(kPiece);
        for (size_t n; (n = input.read(piece.data(), piece.size())) > 0;) data.append(piece.data(), n);
        if (data.find('\0') != std::string::npos)
            throw Failure(
                kFile,
                input.name() + " contains a NUL byte, which one-shot signing cannot sign: use --stream");
    }
    Output output(o.out);

    auto module = std::make_shared<p11::Module>(o.module, nullptr);
    auto tokens = load_tokens(module, sel.token);
    Choice choice = choose(tokens, sel, o);
    const Token& token = *choice.token;

    std::string pem;
    int64_t bytes = static_cast<int64_t>(data.size());
    try {
        std::unique_ptr<p11::Session::LoginToken> login;
        const bool pinpad = (token.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0 && o.pin.file.empty() &&
                            o.pin.envName.empty() && std::getenv("ZORVO_PIN") == nullptr;
        if (pinpad) {
            std::cerr << "zorvo-sign: enter the PIN on the reader of " << describe_token(token) << "\n";
            login = token.session->login(nullptr, 0);
        } else {
            Secret pin;
            read_pin(o.pin, printable(token.label()), pin);
            login = token.session->login(pin.value().data(), pin.value().size());
        }
        pem = o.stream ? sign_stream(*choice.cert, std::move(login), input, !o.detached, bytes)
                       : choice.cert->signOnIt(std::move(login), data.c_str(), !o.detached);
    } catch (const p11::process_error& e) {
        // PIN verdicts come from the token itself; other failures may mean it was pulled out.
        const bool pinVerdict = e.code() >= 200 && e.code() <= 204;
        throw library_failure(e, !pinVerdict && token_gone(module, token));
    }
    output.write(pem);
    output.commit();
    std::cout << "Signed " << printable(input.name()) << " (" << bytes << " bytes) with certificate \""
              << printable(choice.cert->getLabel()) << "\" on " << describe_token(token) << ": "
              << printable(o.out) << " (" << (o.detached ? "detached" : "attached")
              << (o.stream ? ", streamed" : "") << ")\n";
    return kOk;
}

int run(int argc, char** argv) {
    const Options o = parse_args(argc, argv);
    if (o.command == "--help" || o.command == "-h") {
        std::cout << kUsageText << kHelpText << kExitTable;
        return kOk;
    }
    if (o.command == "--version") {
        std::cout << "zorvo-sign " << ZORVO_VERSION << "\n";
        return kOk;
    }
    setup_logging(o);
    p11::reg_pkcs11_engine();  // before any GOST key is read
    // Every library object lives inside these calls, so the provider is finalised before
    // exit rather than from a static destructor.
    try {
        return o.command == "list" ? run_list(o) : run_sign(o);
    } catch (const p11::process_error& e) {
        throw library_failure(e);
    }
}

}  // namespace
}  // namespace zs

int main(int argc, char** argv) {
    zs::install_signal_handlers();
    try {
        return zs::run(argc, argv);
    } catch (const zs::Failure& f) {
        std::cerr << "zorvo-sign: " << f.what() << "\n";
        return f.status;
    } catch (const std::exception& e) {
        std::cerr << "zorvo-sign: unexpected error: " << e.what() << "\n";
    } catch (...) {
        std::cerr << "zorvo-sign: unexpected error\n";
    }
    return zs::kInternal;
}
