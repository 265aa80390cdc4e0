#pragma once
// Captures the records of the logger "p11" for assertions.
#include <string>
#include <vector>

#include <log4cplus/appender.h>
#include <log4cplus/loglevel.h>

namespace testlog {

struct Record {
    int level;
    std::wstring message;
    std::string file;
    std::string function;
};

/// Attaches an in-memory appender to "p11" for its lifetime, with the level set to TRACE.
class Capture {
public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::vector<Record> records() const;
    /// Messages only, in order.
    std::vector<std::wstring> messages() const;
    /// Messages at ERROR level only.
    std::vector<std::wstring> errors() const;
    bool contains(const std::wstring& message) const;
    void clear();

private:
    log4cplus::SharedAppenderPtr appender_;
    int savedLevel_;
};

}  // namespace testlog
