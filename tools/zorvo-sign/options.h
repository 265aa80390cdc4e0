#pragma once
// zorvo-sign's command line.
#include <string>

#include "pin.h"

namespace zs {

struct Options {
    std::string command;  // "list", "sign", "verify", "--help" or "--version"
    std::string module, token, cert, in, out, logFile, logLevel, sig, ca;
    PinSource pin;
    bool json = false, detached = false, oneShot = false, noChain = false;
};

extern const char kUsageText[];
extern const char kHelpText[];

/// Throws Failure (2) with a message for the user.
Options parse_args(int argc, char** argv);
/// The library's log as the options ask; off without them. Throws Failure.
void setup_logging(const Options& o);

}  // namespace zs
