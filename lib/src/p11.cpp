#include "p11.h"

#include <unistd.h>

#include <codecvt>
#include <cstdint>
#include <cstring>
#include <locale>
#include <memory>
#include <sstream>

#include <log4cplus/consoleappender.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/spi/loggingevent.h>
#include <log4cplus/thread/syncprims-pub-impl.h>
#include <openssl/crypto.h>

#include "log.h"

namespace p11 {

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("p11"));

std::wostream& operator<<(std::wostream& os, const bytes& b) {
    for (const char* p = b.text; *p; ++p) os.put(static_cast<wchar_t>(static_cast<unsigned char>(*p)));
    return os;
}

std::wstring widen_bytes(const std::string& s) {
    std::wstring out;
    out.reserve(s.size());
    for (unsigned char c : s) out.push_back(static_cast<wchar_t>(c));
    return out;
}

void log_forced(log4cplus::LogLevel level, const log4cplus::tstring& message, const log_site& site) {
    logger.forcedLog(level, message, site.file, site.line, site.function);
}

namespace {

// Wide text to UTF-8; anything that is not a Unicode scalar value becomes '?'.
std::string to_utf8(const std::wstring& text) {
    std::string out;
    out.reserve(text.size());
    for (wchar_t wc : text) {
        auto c = static_cast<uint32_t>(wc);
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000 && (c < 0xD800 || c > 0xDFFF)) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c >= 0x10000 && c <= 0x10FFFF) {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back('?');
        }
    }
    return out;
}

// A console appender that writes UTF-8 bytes straight to the file descriptor. The stock one
// writes through the wide standard streams, which under the classic locale fail for good on
// the first character above 0x7F, and which turn stderr wide so that narrow output is lost.
class Utf8ConsoleAppender : public log4cplus::ConsoleAppender {
public:
    using ConsoleAppender::ConsoleAppender;
    ~Utf8ConsoleAppender() override { destructorImpl(); }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        log4cplus::tostringstream text;
        layout->formatAndAppend(text, event);
        const std::string bytes = to_utf8(text.str());
        const int fd = logToStdErr ? STDERR_FILENO : STDOUT_FILENO;
        log4cplus::thread::MutexGuard guard(getOutputMutex());
        if (!logToStdErr) std::fflush(stdout);
        const char* p = bytes.data();
        size_t left = bytes.size();
        while (left > 0) {
            ssize_t n = ::write(fd, p, left);
            if (n <= 0) break;
            p += n;
            left -= static_cast<size_t>(n);
        }
    }
};

std::locale utf8_locale() {
    // The facet is owned by the locale.
    return std::locale(std::locale::classic(), new std::codecvt_utf8<wchar_t>);
}

}  // namespace

void set_log_level(int level) { logger.setLogLevel(level); }

// log4cplus appenders are intrusively reference-counted: SharedAppenderPtr owns the raw pointer.
void add_console_appender(bool logToStdErr, const std::string& pattern) {
    log4cplus::SharedAppenderPtr appender(new Utf8ConsoleAppender(logToStdErr, false));
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>(widen_bytes(pattern)));
    logger.addAppender(appender);
}

void add_file_appender(const std::string& path, const std::string& pattern) {
    auto file = new log4cplus::FileAppender(widen_bytes(path), std::ios_base::trunc, true);
    log4cplus::SharedAppenderPtr appender(file);
    file->imbue(utf8_locale());
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>(widen_bytes(pattern)));
    logger.addAppender(appender);
}

process_error::process_error() : process_error(-1, "unknown_error") {}

process_error::process_error(int code, std::string message)
    : std::runtime_error(concat_code_and_error(code, message)), code_(code), message_(std::move(message)) {}

process_error::~process_error() = default;

std::string concat_code_and_error(int code, std::string message) {
    std::ostringstream text;
    text << code << ":" << message;
    return text.str();
}

const char* CKR2Str(CK_RV rv) {
    switch (rv) {
#define P11_NAME(x) \
    case x:         \
        return #x;
        P11_NAME(CKR_OK)
        P11_NAME(CKR_CANCEL)
        P11_NAME(CKR_HOST_MEMORY)
        P11_NAME(CKR_SLOT_ID_INVALID)
        P11_NAME(CKR_GENERAL_ERROR)
        P11_NAME(CKR_FUNCTION_FAILED)
        P11_NAME(CKR_ARGUMENTS_BAD)
        P11_NAME(CKR_NO_EVENT)
        P11_NAME(CKR_NEED_TO_CREATE_THREADS)
        P11_NAME(CKR_CANT_LOCK)
        P11_NAME(CKR_ATTRIBUTE_READ_ONLY)
        P11_NAME(CKR_ATTRIBUTE_SENSITIVE)
        P11_NAME(CKR_ATTRIBUTE_TYPE_INVALID)
        P11_NAME(CKR_ATTRIBUTE_VALUE_INVALID)
        P11_NAME(CKR_DATA_INVALID)
        P11_NAME(CKR_DATA_LEN_RANGE)
        P11_NAME(CKR_DEVICE_ERROR)
        P11_NAME(CKR_DEVICE_MEMORY)
        P11_NAME(CKR_DEVICE_REMOVED)
        P11_NAME(CKR_ENCRYPTED_DATA_INVALID)
        P11_NAME(CKR_ENCRYPTED_DATA_LEN_RANGE)
        P11_NAME(CKR_FUNCTION_CANCELED)
        P11_NAME(CKR_FUNCTION_NOT_PARALLEL)
        P11_NAME(CKR_FUNCTION_NOT_SUPPORTED)
        P11_NAME(CKR_KEY_HANDLE_INVALID)
        P11_NAME(CKR_KEY_SIZE_RANGE)
        P11_NAME(CKR_KEY_TYPE_INCONSISTENT)
        P11_NAME(CKR_KEY_NOT_NEEDED)
        P11_NAME(CKR_KEY_CHANGED)
        P11_NAME(CKR_KEY_NEEDED)
        P11_NAME(CKR_KEY_INDIGESTIBLE)
        P11_NAME(CKR_KEY_FUNCTION_NOT_PERMITTED)
        P11_NAME(CKR_KEY_NOT_WRAPPABLE)
        P11_NAME(CKR_KEY_UNEXTRACTABLE)
        P11_NAME(CKR_MECHANISM_INVALID)
        P11_NAME(CKR_MECHANISM_PARAM_INVALID)
        P11_NAME(CKR_OBJECT_HANDLE_INVALID)
        P11_NAME(CKR_OPERATION_ACTIVE)
        P11_NAME(CKR_OPERATION_NOT_INITIALIZED)
        P11_NAME(CKR_PIN_INCORRECT)
        P11_NAME(CKR_PIN_INVALID)
        P11_NAME(CKR_PIN_LEN_RANGE)
        P11_NAME(CKR_PIN_EXPIRED)
        P11_NAME(CKR_PIN_LOCKED)
        P11_NAME(CKR_SESSION_CLOSED)
        P11_NAME(CKR_SESSION_COUNT)
        P11_NAME(CKR_SESSION_HANDLE_INVALID)
        P11_NAME(CKR_SESSION_PARALLEL_NOT_SUPPORTED)
        P11_NAME(CKR_SESSION_READ_ONLY)
        P11_NAME(CKR_SESSION_EXISTS)
        P11_NAME(CKR_SESSION_READ_ONLY_EXISTS)
        P11_NAME(CKR_SESSION_READ_WRITE_SO_EXISTS)
        P11_NAME(CKR_SIGNATURE_INVALID)
        P11_NAME(CKR_SIGNATURE_LEN_RANGE)
        P11_NAME(CKR_TEMPLATE_INCOMPLETE)
        P11_NAME(CKR_TEMPLATE_INCONSISTENT)
        P11_NAME(CKR_TOKEN_NOT_PRESENT)
        P11_NAME(CKR_TOKEN_NOT_RECOGNIZED)
        P11_NAME(CKR_TOKEN_WRITE_PROTECTED)
        P11_NAME(CKR_UNWRAPPING_KEY_HANDLE_INVALID)
        P11_NAME(CKR_UNWRAPPING_KEY_SIZE_RANGE)
        P11_NAME(CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT)
        P11_NAME(CKR_USER_ALREADY_LOGGED_IN)
        P11_NAME(CKR_USER_NOT_LOGGED_IN)
        P11_NAME(CKR_USER_PIN_NOT_INITIALIZED)
        P11_NAME(CKR_USER_TYPE_INVALID)
        P11_NAME(CKR_USER_ANOTHER_ALREADY_LOGGED_IN)
        P11_NAME(CKR_USER_TOO_MANY_TYPES)
        P11_NAME(CKR_WRAPPED_KEY_INVALID)
        P11_NAME(CKR_WRAPPED_KEY_LEN_RANGE)
        P11_NAME(CKR_WRAPPING_KEY_HANDLE_INVALID)
        P11_NAME(CKR_WRAPPING_KEY_SIZE_RANGE)
        P11_NAME(CKR_WRAPPING_KEY_TYPE_INCONSISTENT)
        P11_NAME(CKR_RANDOM_SEED_NOT_SUPPORTED)
        P11_NAME(CKR_RANDOM_NO_RNG)
        P11_NAME(CKR_DOMAIN_PARAMS_INVALID)
        P11_NAME(CKR_BUFFER_TOO_SMALL)
        P11_NAME(CKR_SAVED_STATE_INVALID)
        P11_NAME(CKR_INFORMATION_SENSITIVE)
        P11_NAME(CKR_STATE_UNSAVEABLE)
        P11_NAME(CKR_CRYPTOKI_NOT_INITIALIZED)
        P11_NAME(CKR_CRYPTOKI_ALREADY_INITIALIZED)
        P11_NAME(CKR_MUTEX_BAD)
        P11_NAME(CKR_MUTEX_NOT_LOCKED)
        P11_NAME(CKR_VENDOR_DEFINED)
#undef P11_NAME
        default:
            return "unknown PKCS11 error";
    }
}

void log_p11_error(const char* function, CK_RV rv) {
    P11_ERROR("PKCS11 function " << bytes(function) << " failed: rv = " << CKR2Str(rv) << " ("
                                 << static_cast<uint32_t>(rv) << ")");
}

namespace {
char flag_text[1024];
char local_text[512];
flag_info slot_flags[] = {
    {CKF_TOKEN_PRESENT, "token present"},
    {CKF_REMOVABLE_DEVICE, "removable device"},
    {CKF_HW_SLOT, "hardware slot"},
    {0, nullptr},
};
}  // namespace

char* p11_flag_names(flag_info* table, CK_FLAGS flags) {
    flag_text[0] = '\0';
    const char* separator = "";
    CK_FLAGS remaining = flags;
    for (flag_info* row = table; row->value != 0; ++row) {
        if ((row->value & remaining) == 0) continue;
        std::strncat(flag_text, separator, sizeof flag_text - std::strlen(flag_text) - 1);
        std::strncat(flag_text, row->name, sizeof flag_text - std::strlen(flag_text) - 1);
        separator = ", ";
        remaining &= ~row->value;
    }
    if (remaining != 0) {
        const size_t used = std::strlen(flag_text);
        std::snprintf(flag_text + used, sizeof flag_text - used, "%sother flags=0x%x", separator,
                      static_cast<unsigned>(remaining));
    }
    return flag_text;
}

char* p11_slot_info_flags(CK_FLAGS flags) { return p11_flag_names(slot_flags, flags); }

char* p11_utf8_to_local(unsigned char* text, unsigned long length) {
    local_text[0] = '\0';
    if (length == 0) return local_text;
    size_t end = length;
    while (end > 0 && text[end - 1] == ' ') --end;
    if (end > sizeof local_text - 1) end = sizeof local_text - 1;
    std::memcpy(local_text, text, end);
    local_text[end] = '\0';
    return local_text;
}

}  // namespace p11

void OPENSSL_freeFunc(void* p) { CRYPTO_free(p, __FILE__, __LINE__); }
