#pragma once
// The library's logging and the two steps that every provider-facing unit repeats.
#include <memory>
#include <string>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/tstring.h>

#include "p11.h"

namespace p11 {

/// The library's one logger, "p11".
extern log4cplus::Logger logger;

/// Narrow text for a wide log stream: every byte becomes one wide character of the same
/// value. The standard wide stream would widen through the locale, which fails on bytes
/// above 0x7F and breaks the log.
struct bytes {
    explicit bytes(const char* s) : text(s ? s : "") {}
    explicit bytes(const std::string& s) : text(s.c_str()) {}
    const char* text;
};
std::wostream& operator<<(std::wostream& os, const bytes& b);
std::wstring widen_bytes(const std::string& s);

/// Where a log record comes from: the unit's file name, the line and the full signature.
struct log_site {
    const char* file;
    int line;
    const char* function;
};
#define P11_SITE (::p11::log_site{__FILE_NAME__, __LINE__, __PRETTY_FUNCTION__})

void log_forced(log4cplus::LogLevel level, const log4cplus::tstring& message, const log_site& site);

/// Locks a parent's weak reference or logs `message` at ERROR and throws process_error(code).
template <typename T>
std::shared_ptr<T> lock_or_throw(const std::weak_ptr<T>& parent, int code, const char* message,
                                 const log_site& site) {
    if (auto strong = parent.lock()) return strong;
    if (logger.isEnabledFor(log4cplus::ERROR_LOG_LEVEL))
        log_forced(log4cplus::ERROR_LOG_LEVEL, widen_bytes(message), site);
    throw process_error(code, message);
}

/// Sizes a provider reports are bounded before anything is allocated for them, so that a lying or
/// broken provider ends in the call's own error rather than in an allocation of its choosing.
constexpr unsigned long kMaxListEntries = 4096;        // slots or mechanisms in one list
constexpr unsigned long kMaxAttributeBytes = 1 << 20;  // one attribute value
constexpr unsigned long kMaxFoundObjects = 4096;       // objects of one search

/// Logs "<what> out of bounds: <value> (at most <bound>)" at ERROR and throws process_error(code)
/// when `value` exceeds `bound`.
inline void check_bound(const char* what, unsigned long value, unsigned long bound, int code,
                        const char* message, const log_site& site) {
    if (value <= bound) return;
    if (logger.isEnabledFor(log4cplus::ERROR_LOG_LEVEL))
        log_forced(log4cplus::ERROR_LOG_LEVEL,
                   widen_bytes(std::string(what) + " out of bounds: " + std::to_string(value) + " (at most " +
                               std::to_string(bound) + ")"),
                   site);
    throw process_error(code, message);
}

/// Makes a provider call; on failure makes the same call once more, logs the second result
/// (the provider sees the failing call twice, on purpose) and throws process_error(code).
template <typename Call>
void call_or_throw(const char* function, int code, const char* message, Call&& call) {
    if (call() == CKR_OK) return;
    log_p11_error(function, call());
    throw process_error(code, message);
}

}  // namespace p11

// Stream-form log statement: the message is built only when the level is enabled.
// Insert narrow text through p11::bytes.
#define P11_LOG(LEVEL, EXPR)                                                                          \
    do {                                                                                              \
        if (::p11::logger.isEnabledFor(::log4cplus::LEVEL##_LOG_LEVEL)) {                             \
            ::log4cplus::tostringstream& p11_log_stream_ = ::log4cplus::detail::get_macro_body_oss(); \
            p11_log_stream_ << EXPR;                                                                  \
            ::p11::log_forced(::log4cplus::LEVEL##_LOG_LEVEL, p11_log_stream_.str(), P11_SITE);       \
        }                                                                                             \
    } while (0)

#define P11_DEBUG(EXPR) P11_LOG(DEBUG, EXPR)
#define P11_INFO(EXPR) P11_LOG(INFO, EXPR)
#define P11_WARN(EXPR) P11_LOG(WARN, EXPR)
#define P11_ERROR(EXPR) P11_LOG(ERROR, EXPR)
