#pragma once
// Where zorvo-sign takes the PIN from, and what the token says about it.
#include <string>
#include <vector>

#include <p11-kit/pkcs11.h>

namespace zs {

/// Text that is wiped from memory when it goes. Holds the PIN.
class Secret {
public:
    Secret() { value_.reserve(256); }  // no reallocation, so no stray copies while reading
    ~Secret() { wipe(); }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    std::string& value() { return value_; }
    void wipe();

private:
    std::string value_;
};

/// Where the PIN comes from, as the options say.
struct PinSource {
    std::string file;     // --pin-file
    std::string envName;  // --pin-env, or "" for the default variable
};

/// The PIN from the file or the variable (whose value is then wiped from the process's
/// environment block and removed). False when neither gives one: then the prompt decides.
/// Throws Failure: an unreadable file (3), a variable named but unset, or an empty PIN (2).
bool read_given_pin(const PinSource& source, Secret& pin);
/// Asks on the terminal, without echo. Throws Failure (2) without a terminal or an answer,
/// and for an empty one.
void prompt_pin(const std::string& tokenLabel, Secret& pin);

/// The token's warnings about the user PIN: "count low", "final try", "locked", "to be changed".
std::vector<std::string> pin_warnings(CK_FLAGS tokenFlags);

}  // namespace zs
