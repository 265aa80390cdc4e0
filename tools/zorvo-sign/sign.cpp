// zorvo-sign sign: one certificate chosen, one login, one signature written with care.
#include <openssl/pem.h>  // before cms.h, which declares its PEM functions only then

#include <iostream>

#include "commands.h"
#include "files.h"
#include "pin.h"
#include "tokens.h"

namespace zs {
namespace {

constexpr size_t kPiece = 64 * 1024;
// One-shot signing holds the data several times over; beyond this, stream.
constexpr size_t kOneShotLimit = 64 << 20;

struct Choice {
    Token* token = nullptr;
    std::shared_ptr<p11::Certificate> cert;
};

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
        for (auto& c : *t.certs)
            if ((!sel.hasLabel || c->getLabel() == sel.label) && (!sel.hasId || cert_id(*c) == sel.id) &&
                (sel.serial.empty() || serial_hex(c->getX509()) == sel.serial))
                found.push_back({&t, c});
    }
    const std::string selector = "\"" + printable(o.cert) + "\"";
    if (found.empty()) {
        std::string text = "no such certificate: " + selector;
        if (unreadable)
            text += "; " + describe_token(*unreadable) + " could not be read (" +
                    std::to_string(unreadable->code) + ": " + unreadable->message + ")";
        throw Failure(kCertificate, text);
    }
    if (found.size() > 1) {
        std::string where;
        for (const Choice& c : found)
            where += (where.empty() ? "" : "; ") + describe_token(*c.token) + " id " +
                     to_hex(cert_id(*c.cert)) + " serial " + serial_hex(c.cert->getX509()) + " issuer " +
                     printable(rfc4514(X509_get_issuer_name(c.cert->getX509())));
        throw Failure(kCertificate,
                      "certificate " + selector + " is ambiguous: " + std::to_string(found.size()) +
                          " match (" + where +
                          "); add --token, or choose by serial:HEX or a pkcs11: URI from `zorvo-sign list`");
    }
    return found.front();
}

// The whole input, for the one-shot call: bounded, and without NUL bytes, which it cannot sign.
std::string read_all(Input& input) {
    const std::string hint = ": leave --one-shot out";
    std::string data;
    std::vector<char> piece(kPiece);
    for (size_t n; input.size() <= int64_t(kOneShotLimit) && data.size() <= kOneShotLimit &&
                   (n = input.read(piece.data(), piece.size())) > 0;)
        data.append(piece.data(), n);
    if (input.size() > int64_t(kOneShotLimit) || data.size() > kOneShotLimit)
        throw Failure(kFile, input.name() + " is larger than one-shot signing takes (64 MiB)" + hint);
    if (data.find('\0') != std::string::npos)
        throw Failure(kFile,
                      input.name() + " contains a NUL byte, which one-shot signing cannot sign" + hint);
    return data;
}

// The signature streams into the output while the input is read: constant memory whatever the size.
// Whether the signature verifies against the certificate.
bool sign_stream(p11::Certificate& cert, std::unique_ptr<p11::Session::LoginToken> login, Input& input,
                 Output& output, bool attached, int64_t& bytes) {
    std::unique_ptr<Failure> writeError;  // the output's own words, should a write fail
    auto signer = cert.startSigning(std::move(login), attached, [&](const char* data, size_t size) {
        try {
            output.write(data, size);
            return true;
        } catch (const Failure& f) {
            writeError = std::make_unique<Failure>(f);
            return false;
        }
    });
    std::vector<char> piece(kPiece);
    Progress progress(input.size());
    try {
        for (size_t n; (n = input.read(piece.data(), piece.size())) > 0;) {
            signer->addBytes(piece.data(), n);
            progress.update(bytes += static_cast<int64_t>(n));
        }
        progress.finish();
        signer->finish();
        return signer->lastSignatureVerifies();
    } catch (const p11::process_error&) {
        if (writeError) throw Failure(*writeError);
        throw;
    }
}

void warn_about_pin(const Token& token) {
    for (const auto& w : pin_warnings(token.flags)) {
        if (w == "count low")
            std::cerr << "zorvo-sign: warning: " << describe_token(token)
                      << " says a wrong PIN was entered recently\n";
        if (w == "final try")
            std::cerr << "zorvo-sign: warning: " << describe_token(token)
                      << " locks the PIN after one more wrong try\n";
    }
}

}  // namespace

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

    // Everything that can fail without the token fails before the token is touched.
    Input input(o.in);
    Output output(o.out, input);
    const std::string data = o.oneShot ? read_all(input) : "";
    Secret pin;
    const bool given = read_given_pin(o.pin, pin);

    auto module = std::make_shared<p11::Module>(o.module, nullptr);
    auto tokens = load_tokens(module, sel.token);
    Choice choice = choose(tokens, sel, o);
    const Token& token = *choice.token;

    int64_t bytes = static_cast<int64_t>(data.size());
    try {
        std::unique_ptr<p11::Session::LoginToken> login;
        warn_about_pin(token);
        if (!given && (token.flags & CKF_PROTECTED_AUTHENTICATION_PATH)) {
            std::cerr << "zorvo-sign: enter the PIN on the reader of " << describe_token(token) << "\n";
            login = token.session->login(nullptr, 0);
        } else {
            if (!given) prompt_pin(printable(token.label()), pin);
            login = token.session->login(pin.value().data(), pin.value().size());
        }
        pin.wipe();
        bool verifies = false;
        if (o.oneShot) {
            const std::string pem = choice.cert->signOnIt(std::move(login), data.c_str(), !o.detached);
            p11::ossl::bio_ptr in(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
            p11::ossl::cms_ptr cms = p11::read_cms(in.get());
            verifies = p11::signer_signature_verifies(cms.get(), choice.cert->getX509());
            output.write(pem);
        } else {
            verifies = sign_stream(*choice.cert, std::move(login), input, output, !o.detached, bytes);
        }
        // A token may hold, under the certificate's identifier, the key of another certificate.
        if (!verifies)
            throw Failure(kSigning,
                          "the signature does not verify against certificate \"" +
                              printable(choice.cert->getLabel()) +
                              "\": the token's key under its identifier belongs to another certificate");
    } catch (const p11::process_error& e) {
        // PIN verdicts come from the token itself; other failures may mean it was pulled out.
        const bool pinVerdict = e.code() >= 200 && e.code() <= 204;
        Failure f = library_failure(e, !pinVerdict && token_gone(module, token));
        // The one-shot call reports a cancel as any refusal; the token's own answer tells.
        if (f.status == kSigning && p11::last_sign_rv() == CKR_CANCEL)
            f = Failure(kCancelled, "signature cancelled on the token (" + std::to_string(e.code()) + ": " +
                                        e.message() + ")");
        throw f;
    }
    output.commit();
    (output.standardOutput() ? std::cerr : std::cout)
        << "Signed " << printable(input.name()) << " (" << bytes << " bytes) with certificate \""
        << printable(choice.cert->getLabel()) << "\" on " << describe_token(token) << ": "
        << printable(o.out == "-" ? "standard output" : o.out) << " ("
        << (o.detached ? "detached" : "attached") << (o.oneShot ? ", one call" : "") << ")\n";
    return kOk;
}

}  // namespace zs
