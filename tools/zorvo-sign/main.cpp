// zorvo-sign: lists the certificates on PKCS#11 tokens and makes CMS signatures with them.
// Built on the library's public API only, as any host would be.
#include <iostream>
#include <new>

#include "commands.h"
#include "failure.h"
#include "files.h"
#include "tokens.h"

#ifndef ZORVO_VERSION
#define ZORVO_VERSION "unknown"
#endif

namespace {

int run(int argc, char** argv) {
    const zs::Options o = zs::parse_args(argc, argv);
    if (o.command == "--help" || o.command == "-h") {
        std::cout << zs::kUsageText << zs::kHelpText << zs::kExitTable;
        return zs::kOk;
    }
    if (o.command == "--version") {
        std::cout << "zorvo-sign " << ZORVO_VERSION << "\n";
        return zs::kOk;
    }
    zs::setup_logging(o);
    p11::reg_pkcs11_engine();  // before any GOST key is read
    // Every library object lives inside the command, so the provider is finalised before exit
    // rather than from a static destructor.
    try {
        return o.command == "list"   ? zs::run_list(o)
               : o.command == "sign" ? zs::run_sign(o)
                                     : zs::run_verify(o);
    } catch (const p11::process_error& e) {
        throw zs::library_failure(e);
    }
}

}  // namespace

int main(int argc, char** argv) {
    zs::install_signal_handlers();
    try {
        return run(argc, argv);
    } catch (const zs::Failure& f) {
        std::cerr << "zorvo-sign: " << f.what() << "\n";
        return f.status;
    } catch (const std::bad_alloc&) {
        std::cerr << "zorvo-sign: out of memory\n";
    } catch (const std::exception& e) {
        std::cerr << "zorvo-sign: internal error: " << e.what() << "\n";
    }
    return zs::kInternal;
}
