#pragma once
// What the test programs share: the SoftHSM2 tokens of token.sh, the test provider (tprov.cpp)
// with its call log, a capture of the library's log, and openssl as a separate process.
#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>
#include <openssl/err.h>
#include <openssl/pem.h>  // before cms.h, which declares its PEM functions only then

#include <openssl/cms.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "log.h"
#include "p11_ossl.h"
#include "zorvopkcs11.h"

namespace fx {

inline std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}
inline void write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline int run(const std::string& command, std::string* out = nullptr);

/// A file name in this process's own scratch directory.
inline std::string scratch(const std::string& name) {
    static const std::string dir = [] {
        std::string d = ZORVO_BUILD_DIR "/scratch/" + std::to_string(getpid());
        mkdir(ZORVO_BUILD_DIR "/scratch", 0700);
        mkdir(d.c_str(), 0700);
        return d;
    }();
    return dir + "/" + name;
}

/// KEY=value of the SoftHSM2 tokens (token.sh). On first use the process gets a copy of the
/// tokens of its own: SoftHSM2 writes them at login, and another process may be reading.
inline std::string env(const std::string& key) {
    static const std::map<std::string, std::string> values = [] {
        std::map<std::string, std::string> m;
        std::istringstream in(read(ZORVO_BUILD_DIR "/softhsm/env"));
        for (std::string line; std::getline(in, line);)
            if (auto eq = line.find('='); eq != std::string::npos)
                m[line.substr(0, eq)] = line.substr(eq + 1);
        if (run("cp -r " + m["DIR"] + "/tokens " + scratch("tokens")) != 0)
            throw std::runtime_error("no tokens");
        write(scratch("softhsm2.conf"),
              "directories.tokendir = " + scratch("tokens") + "\nobjectstore.backend = file\n");
        setenv("SOFTHSM2_CONF", scratch("softhsm2.conf").c_str(), 1);
        return m;
    }();
    return values.count(key) ? values.at(key) : "";
}

/// Every signature in a test process claims the engine; the one-shot path never gives it back.
inline void free_engine() { p11::engine_in_use = false; }

/// The test provider's rules for the next module it loads, with or without its GOST identities;
/// its call log starts afresh, and so does the engine.
inline void provider(const std::string& rules = "", bool gost = false) {
    env("PIN");
    free_engine();
    setenv("ZORVO_TP", rules.c_str(), 1);
    if (gost)
        setenv("ZORVO_TP_GOST", ZORVO_SOURCE_DIR "/tests/data/gost", 1);
    else
        unsetenv("ZORVO_TP_GOST");
    setenv("ZORVO_TP_LOG", scratch("calls.log").c_str(), 1);
    write(scratch("calls.log"), "");
}
/// "NAME RV" for each provider call since provider().
inline std::vector<std::string> calls() {
    std::vector<std::string> out;
    std::istringstream in(read(scratch("calls.log")));
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}
/// How many calls begin with `prefix` ("C_Logout ", "C_Login 0x0").
inline size_t count(const std::string& prefix) {
    size_t n = 0;
    for (const auto& c : calls()) n += c.compare(0, prefix.size(), prefix) == 0;
    return n;
}

/// One signing road: a module, the slot of a token, a session on it, and one of its certificates.
struct Road {
    std::shared_ptr<p11::Module> module;
    std::shared_ptr<p11::Slot> slot;
    std::shared_ptr<p11::Session> session;
    std::shared_ptr<std::vector<std::shared_ptr<p11::Certificate>>> certs;
    std::shared_ptr<p11::Certificate> cert;

    explicit Road(const std::string& token, const std::string& label = "",
                  const std::string& path = ZORVO_TPROV, void* initArgs = nullptr) {
        env("PIN");
        p11::reg_pkcs11_engine();
        module = std::make_shared<p11::Module>(path, initArgs);
        auto slots = module->listTokenSlots();
        for (auto& s : *slots)
            if (p11::p11_utf8_to_local(s->readTokenInfo()->label, 32) == token) slot = s;
        if (!slot) throw std::runtime_error("no token " + token);
        session = slot->openSession(0);
        if (label.empty()) return;
        certs = session->enumerateCerts();
        for (auto& c : *certs)
            if (c->getLabel() == label) cert = c;
        if (!cert) throw std::runtime_error("no certificate " + label);
    }
    std::unique_ptr<p11::Session::LoginToken> login() { return session->login(env("PIN").c_str(), 4); }
};

/// The records of the logger "p11" while it lives, with the level at TRACE.
class Log : public log4cplus::Appender {
public:
    struct Record {
        int level;
        std::wstring text;
    };
    static std::shared_ptr<Log> capture() {
        log4cplus::SharedAppenderPtr a(new Log);
        p11::logger.addAppender(a);
        p11::logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
        return std::shared_ptr<Log>(static_cast<Log*>(a.get()), [a](Log*) mutable {
            p11::logger.removeAppender(a);
            p11::logger.setLogLevel(log4cplus::OFF_LOG_LEVEL);
        });
    }
    ~Log() override { destructorImpl(); }
    void close() override {}
    /// Whether a record at `level` has exactly this text.
    bool has(int level, const std::wstring& text) const {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& r : records_)
            if (r.level == level && r.text == text) return true;
        return false;
    }
    std::vector<Record> records() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& e) override {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.push_back({e.getLogLevel(), e.getMessage()});
    }

private:
    mutable std::mutex mutex_;
    std::vector<Record> records_;
};
constexpr int kError = log4cplus::ERROR_LOG_LEVEL;

inline std::string pem(X509* cert) {
    p11::ossl::bio_ptr out(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(out.get(), cert);
    char* data = nullptr;
    const long len = BIO_get_mem_data(out.get(), &data);
    return std::string(data, static_cast<size_t>(len));
}

/// Runs a shell command: its exit status, its standard output and error in `out`.
inline int run(const std::string& command, std::string* out) {
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    std::string text;
    char buffer[4096];
    for (size_t n; p && (n = fread(buffer, 1, sizeof buffer, p)) > 0;) text.append(buffer, n);
    const int status = p ? pclose(p) : -1;
    if (out) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// `openssl cms -verify` in its own process (with the gost engine for GOST): the content the
/// signature covers, or the reason it does not verify prefixed with "FAILED: ".
inline std::string verify(const std::string& signature, X509* signer, const std::string* detached,
                          bool gost) {
    static int n = 0;
    const std::string tag = scratch(std::to_string(++n));
    write(tag + ".pem", signature);
    write(tag + ".crt", pem(signer));
    std::string command = "openssl cms -verify -binary -inform PEM -in " + tag + ".pem -CAfile " + tag +
                          ".crt -partial_chain -purpose any -out " + tag + ".out";
    if (detached) write(tag + ".data", *detached), command += " -content " + tag + ".data";
    if (gost) command += " -engine gost";
    std::string log;
    return run(command, &log) == 0 ? read(tag + ".out") : "FAILED: " + log;
}

/// The library's CMS_verify in this process: the content the signature covers, or "FAILED". PEM or
/// DER; the signer's certificate is trusted as it is.
inline std::string verify_here(const std::string& signature, X509* signer, const std::string* detached) {
    p11::ossl::bio_ptr in(BIO_new_mem_buf(signature.data(), int(signature.size())));
    p11::ossl::cms_ptr cms = p11::read_cms(in.get());
    p11::ossl::bio_ptr content(detached ? BIO_new_mem_buf(detached->data(), int(detached->size())) : nullptr);
    p11::ossl::bio_ptr out(BIO_new(BIO_s_mem()));
    STACK_OF(X509)* certs = sk_X509_new_null();
    sk_X509_push(certs, signer);
    const int ok = cms ? p11::cms_verify(cms.get(), certs, nullptr, content.get(), out.get(),
                                         CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY)
                       : 0;
    sk_X509_free(certs);
    ERR_clear_error();
    char* data = nullptr;
    const long len = BIO_get_mem_data(out.get(), &data);
    return ok == 1 ? std::string(data, size_t(len)) : "FAILED";
}

/// A PEM certificate, parsed where the library's GOST keys are known.
inline p11::ossl::x509_ptr certificate(const std::string& pem) {
    p11::ossl::bio_ptr in(BIO_new_mem_buf(pem.data(), int(pem.size())));
    X509* cert = X509_new_ex(p11::openssl_libctx(), nullptr);
    if (cert != nullptr && PEM_read_bio_X509(in.get(), &cert, nullptr, nullptr) != nullptr)
        return p11::ossl::x509_ptr(cert);
    X509_free(cert);
    return nullptr;
}

}  // namespace fx

/// Expects `statement` to throw p11::process_error with this code and message.
#define EXPECT_P11(statement, code_, message_)                         \
    do {                                                               \
        try {                                                          \
            statement;                                                 \
            ADD_FAILURE() << "no process_error from " #statement;      \
        } catch (const p11::process_error& e) {                        \
            EXPECT_EQ(e.code(), code_) << e.what();                    \
            EXPECT_EQ(e.message(), std::string(message_)) << e.what(); \
        }                                                              \
    } while (0)
