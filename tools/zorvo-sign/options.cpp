#include "options.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <vector>

#include <zorvopkcs11.h>

#include "failure.h"

namespace zs {

const char kUsageText[] =
    "usage: zorvo-sign list --module PROVIDER [--token LABEL] [--json]\n"
    "       zorvo-sign sign --module PROVIDER --cert SELECTOR --in FILE --out FILE.pem\n"
    "                       [--detached] [--one-shot] [--token LABEL] [--pin-env NAME | --pin-file FILE]\n"
    "       zorvo-sign verify --sig FILE.pem [--in DATA] [--out CONTENT] (--ca FILE | --no-chain)\n"
    "       all also take [--log FILE] [--log-level debug|info|warn|error]\n"
    "       zorvo-sign --help | --version\n";

const char kHelpText[] =
    "\n"
    "Lists the certificates on PKCS#11 tokens, and signs a file with a certificate's key,\n"
    "which stays on the token. The signature is CMS (PKCS#7) in PEM.\n"
    "\n"
    "  --module PROVIDER  the PKCS#11 provider library (.so); a name without a '/' is looked\n"
    "                     up where the system's loader looks, never in the current directory\n"
    "  --token LABEL      only the token with this label\n"
    "  --json             list for scripts (UTF-8 JSON)\n"
    "  --cert SELECTOR    the signing certificate: NAME or label:NAME (its label), id:HEX (its\n"
    "                     identifier), or a pkcs11: URI with token, manufacturer, model, serial,\n"
    "                     object, id, type=cert (`list` prints each certificate's URI)\n"
    "  --in FILE          the data to sign ('-': standard input)\n"
    "  --out FILE.pem     the signature ('-': standard output); a file appears complete or not at\n"
    "                     all and keeps the old one's mode; a link is followed; a device or a\n"
    "                     pipe is written into; never the input\n"
    "  --detached         leave the data out of the signature (default: attached)\n"
    "  --one-shot         sign in one call, as the library's signOnIt does: the whole input in\n"
    "                     memory (at most 64 MiB), no NUL bytes, no signing-certificate-v2\n"
    "                     attribute. Otherwise the signature streams: any size, any bytes, in\n"
    "                     constant memory (--stream, the default, is accepted)\n"
    "  --pin-file FILE    take the PIN from the first line of FILE\n"
    "  --pin-env NAME     take the PIN from variable NAME (default: ZORVO_PIN)\n"
    "                     with neither, ZORVO_PIN or else a prompt on the terminal; an empty\n"
    "                     PIN is refused before it reaches the token\n"
    "  --sig FILE.pem     verify: the signature (PEM or DER); with --in DATA a detached one, else\n"
    "                     the content inside, written back to --out CONTENT if given\n"
    "  --ca FILE          verify: trust anchors (PEM): the signer's certificate must chain to one\n"
    "  --no-chain         verify: check only the signature against the certificate it carries\n"
    "  --log FILE         write the library's log to FILE (the PIN is never logged)\n"
    "  --log-level LEVEL  debug, info, warn or error (default info; without --log: to stderr)\n"
    "\n"
    "Exit status:\n";

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
                                                        {"--pin-file", &o.pin.file},
                                                        {"--sig", &o.sig},
                                                        {"--ca", &o.ca}};
    bool stream = false;  // the default, still accepted
    const std::map<std::string, bool*> flags = {{"--json", &o.json},
                                                {"--detached", &o.detached},
                                                {"--stream", &stream},
                                                {"--one-shot", &o.oneShot},
                                                {"--no-chain", &o.noChain}};
    for (size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i], value;
        const size_t eq = arg.compare(0, 2, "--") == 0 ? arg.find('=') : std::string::npos;
        if (eq != std::string::npos) value = arg.substr(eq + 1), arg.resize(eq);
        if (arg == "--help" || arg == "-h" || arg == "--version") {
            o.command = arg;
            return o;
        }
        if (auto v = valued.find(arg); v != valued.end()) {
            if (eq == std::string::npos) {
                if (i + 1 >= args.size()) throw Failure(kUsage, arg + " needs a value");
                value = args[++i];
            }
            *v->second = value;
        } else if (auto f = flags.find(arg); f != flags.end() && eq == std::string::npos) {
            *f->second = true;
        } else if (arg.compare(0, 1, "-") != 0 && o.command.empty()) {
            o.command = arg;
        } else {
            throw Failure(kUsage, "unexpected argument " + arg + " (see zorvo-sign --help)");
        }
    }
    if (o.command != "list" && o.command != "sign" && o.command != "verify")
        throw Failure(kUsage, o.command.empty() ? "a command is needed: list, sign or verify"
                                                : "unknown command " + o.command + ": list, sign or verify");
    const bool verifyOptions = !o.sig.empty() || !o.ca.empty() || o.noChain;
    if (o.command == "verify") {
        if (o.sig.empty()) throw Failure(kUsage, "--sig FILE is needed to verify");
        if (o.ca.empty() == !o.noChain) throw Failure(kUsage, "verify takes one of --ca FILE and --no-chain");
        if (!o.module.empty() || !o.cert.empty() || !o.token.empty() || o.json || o.detached || stream ||
            o.oneShot || !o.pin.file.empty() || !o.pin.envName.empty())
            throw Failure(kUsage,
                          "verify takes --sig, --in, --out, --ca or --no-chain and the log options only");
        return o;
    }
    if (verifyOptions) throw Failure(kUsage, "--sig, --ca and --no-chain belong to verify");
    if (o.module.empty()) throw Failure(kUsage, "--module PROVIDER is needed");
    if (o.command == "sign") {
        for (auto [name, value] : {std::pair{"--cert", &o.cert}, {"--in", &o.in}, {"--out", &o.out}})
            if (value->empty()) throw Failure(kUsage, std::string(name) + " is needed to sign");
        if (!o.pin.file.empty() && !o.pin.envName.empty())
            throw Failure(kUsage, "--pin-env and --pin-file exclude each other");
        if (o.json) throw Failure(kUsage, "--json belongs to list");
        if (stream && o.oneShot) throw Failure(kUsage, "--stream and --one-shot exclude each other");
    } else if (o.detached || stream || o.oneShot || !o.cert.empty() || !o.in.empty() || !o.out.empty() ||
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
        const int fd = ::open(o.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0) throw Failure(kFile, "cannot write log file " + o.logFile + ": " + std::strerror(errno));
        ::close(fd);
        p11::add_file_appender(o.logFile, pattern);
    }
    p11::set_log_level(level->second);
}

}  // namespace zs
