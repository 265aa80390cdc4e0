#pragma once
// Errors, return-code names, log control and small text utilities.
#include <cstddef>
#include <stdexcept>
#include <string>

#include <p11-kit/pkcs11.h>

#include "zorvo_export.h"

namespace p11 {

/// The library's one exception type: a numeric code and a fixed English message.
/// `what()` is the code in decimal, ":" and the message (for instance "201:pin incorrect").
class ZORVO_API process_error : public std::runtime_error {
public:
    /// Code -1, message "unknown_error".
    process_error();
    process_error(int code, std::string message);
    ~process_error() override;
    /// The code chosen by the throwing site.
    int code() const noexcept { return code_; }
    /// The bare message, without the code.
    const std::string& message() const noexcept { return message_; }

private:
    int code_;
    std::string message_;
};

/// "<code>:<message>", the text of every process_error.
ZORVO_API std::string concat_code_and_error(int code, std::string message);

/// The standard name of a PKCS#11 v2.20 return value, or "unknown PKCS11 error".
ZORVO_API const char* CKR2Str(CK_RV rv);

/// Logs one ERROR record: "PKCS11 function <function> failed: rv = <name> (<rv>)".
ZORVO_API void log_p11_error(const char* function, CK_RV rv);

/// One row of a flag-name table; a table ends with a row whose value is 0.
struct flag_info {
    CK_FLAGS value;
    const char* name;
};

/// Comma-separated names of the flags set, plus "other flags=0x.." for unknown bits.
/// The result lives in a static buffer overwritten by the next call.
ZORVO_API char* p11_flag_names(flag_info* table, CK_FLAGS flags);
/// p11_flag_names over the CK_SLOT_INFO flags (token present, removable device, hardware slot).
ZORVO_API char* p11_slot_info_flags(CK_FLAGS flags);
/// A terminated copy of a blank-padded PKCS#11 text field with the padding stripped
/// (at most 511 bytes; static buffer, no character-set conversion).
ZORVO_API char* p11_utf8_to_local(unsigned char* text, unsigned long length);

/// The return value of the last C_SignInit or C_Sign that a signature made on this thread
/// (CKR_OK before any). After a one-shot signature failed with 300 "error while signing
/// finalization", CKR_CANCEL here tells that the user cancelled it on the token.
ZORVO_API CK_RV last_sign_rv() noexcept;

/// Sets the level of the logger "p11" (log4cplus numbers: 0 TRACE ... 40000 ERROR, 60000 OFF).
ZORVO_API void set_log_level(int level);
/// Adds an appender writing to standard error (true) or standard output, with a log4cplus pattern.
/// Records are written as UTF-8.
ZORVO_API void add_console_appender(bool logToStdErr, const std::string& pattern);
/// Adds an appender writing UTF-8 to `path` (emptied first), flushed after every record.
ZORVO_API void add_file_appender(const std::string& path, const std::string& pattern);

}  // namespace p11

/// Frees memory taken from OpenSSL's allocator; the deleter for smart pointers owning it.
ZORVO_API void OPENSSL_freeFunc(void* p);
