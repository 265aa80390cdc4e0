#pragma once
// What zorvo-sign tells the user when something fails, and the exit status it returns.
#include <stdexcept>
#include <string>

namespace zs {

/// Exit statuses; the table is printed by --help (kExitTable) and documented in the guide.
enum Exit : int {
    kOk = 0,
    kInternal = 1,       // a defect of the tool (or no memory left)
    kUsage = 2,          // bad arguments, or no (or an empty) PIN
    kFile = 3,           // input or output file
    kProvider = 4,       // the provider cannot be loaded or initialised
    kToken = 5,          // no token, or the token cannot be read
    kCertificate = 6,    // no such certificate, ambiguous selector, bad certificate
    kWrongPin = 7,       // wrong or invalid PIN
    kLoginRefused = 8,   // PIN locked or expired, login refused
    kKey = 9,            // no private key, unsupported key type
    kSigning = 11,       // the signature itself failed
    kCancelled = 12,     // cancelled on the token
    kTokenRemoved = 13,  // the token went away during the operation
    kInvalid = 14,       // the signature does not verify
};

extern const char kExitTable[];

/// A failure the tool itself detects: its exit status and the text after "zorvo-sign: ".
struct Failure : std::runtime_error {
    Failure(Exit status, const std::string& text) : std::runtime_error(text), status(status) {}
    Exit status;
};

/// The user's words and exit status for a library error: "wrong PIN (201: pin incorrect)".
/// `tokenGone`: the token was found missing after the error, which explains it best.
Failure describe(int code, const std::string& message, bool tokenGone);

}  // namespace zs
