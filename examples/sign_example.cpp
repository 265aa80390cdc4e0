// A host of libzorvopkcs11 in one file: copy it to start.
//
//   sign_example PROVIDER                            lists the tokens and their certificates
//   sign_example PROVIDER TOKEN CERTIFICATE FILE     signs FILE twice, streamed and one-shot
//
// The PIN comes from the variable ZORVO_PIN. Run with the install's lib/ on
// LD_LIBRARY_PATH (or in the loader's configuration), where the wide log4cplus sits too.
#include <zorvopkcs11.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

namespace {

// PKCS#11 pads its text fields with blanks; p11_utf8_to_local strips them. Its result lives
// in a static buffer until the next call: copy it at once.
std::string text(unsigned char* field, unsigned long size) { return p11::p11_utf8_to_local(field, size); }

// Wide text (token and certificate names) to UTF-8, for printing.
std::string utf8(const std::wstring& wide) {
    std::string out;
    for (wchar_t c : wide) {
        auto cp = static_cast<unsigned long>(c);
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (cp >> 18));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    return out;
}

int run(int argc, char** argv) {
    // 1. Set-up, once per process: the engine that GOST keys need, and the log.
    p11::reg_pkcs11_engine();
    p11::set_log_level(30000);                                  // WARN and above
    p11::add_console_appender(true, "%D{%H:%M:%S} %-5p %m%n");  // to standard error

    // 2. The module loads the provider and initialises it. The host owns it; everything
    //    below refers to it weakly, and its destruction finalises the provider.
    auto module = std::make_shared<p11::Module>(argv[1], nullptr);

    // 3. Slots that hold a token. Slot ids can change between runs: choose by label.
    auto slots = module->listTokenSlots();
    std::shared_ptr<p11::Slot> slot;
    for (auto& s : *slots) {
        auto info = s->readTokenInfo();
        const std::string label = text(info->label, sizeof info->label);
        if (argc > 2) {
            if (label == argv[2]) slot = s;
            continue;
        }
        // 4. A session on the token, and the certificates it holds. Certificates refer to
        //    their session weakly: keep the session as long as you use them.
        std::cout << "token \"" << label << "\" in slot " << s->id << "\n";
        try {
            auto session = s->openSession(0);
            // Hold the list: `for (auto& c : *session->enumerateCerts())` would walk a freed one.
            auto certs = session->enumerateCerts();
            for (auto& cert : *certs) {
                // Names are maps from the attribute's short name to wide text.
                const auto& subject = cert->getSubject();
                const std::wstring cn = subject.count("CN") ? subject.at("CN") : L"";
                std::cout << "  certificate \"" << cert->getLabel() << "\": " << utf8(cn) << ", valid to "
                          << cert->getNotAfterStr() << "\n";
            }
        } catch (const p11::process_error& e) {
            // One unreadable token need not stop the others.
            std::cout << "  cannot read it: " << e.what() << "\n";
        }
    }
    if (argc == 2) return 0;

    if (!slot) {
        std::cerr << "no token labelled " << argv[2] << "\n";
        return 1;
    }
    auto session = slot->openSession(0);
    auto certs = session->enumerateCerts();
    std::shared_ptr<p11::Certificate> cert;
    for (auto& c : *certs)
        if (c->getLabel() == argv[3]) cert = c;
    if (!cert) {
        std::cerr << "no certificate labelled " << argv[3] << "\n";
        return 1;
    }

    std::ifstream in(argv[4], std::ios::binary);
    const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const char* pin = std::getenv("ZORVO_PIN");
    if (pin == nullptr) {
        std::cerr << "set ZORVO_PIN\n";
        return 1;
    }

    // 5. Streamed signing. login() gives a LoginToken: the login lasts as long as it does.
    //    The Signer takes it over and owns the process-wide signing engine until it is
    //    destroyed: one signing operation at a time in the whole process.
    {
        auto signer = cert->startSigning(session->login(pin, std::strlen(pin)), /*attached=*/false);
        for (size_t at = 0; at < data.size(); at += 65536) {
            const size_t n = std::min<size_t>(65536, data.size() - at);
            signer->addData(data.data() + at, static_cast<int>(n));
        }
        std::cout << signer->finish();  // detached CMS in PEM; the signer is ready for another
    }                                   // the signer goes: engine released, user logged out

    // 6. One-shot signing of a NUL-terminated string: the bytes up to the first NUL (binary
    //    data: stream it instead). It keeps the engine for good: afterwards this process
    //    can make no other signature.
    std::cout << cert->signOnIt(session->login(pin, std::strlen(pin)), data.c_str(), /*attached=*/true);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const char usage[] = "usage: sign_example PROVIDER [TOKEN CERTIFICATE FILE]\n";
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::cout << usage;
        return 0;
    }
    if (argc != 2 && argc != 5) {
        std::cerr << usage;
        return 2;
    }
    try {
        return run(argc, argv);  // every library object is gone when it returns
    } catch (const p11::process_error& e) {
        // 7. Every failure of the library: a code and a fixed message, e.g. 201 "pin incorrect".
        std::cerr << "error " << e.code() << ": " << e.message() << "\n";
        return 1;
    }
}
