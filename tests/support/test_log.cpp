#include "test_log.h"

#include <algorithm>
#include <mutex>

#include <log4cplus/spi/loggingevent.h>

#include "log.h"

namespace testlog {
namespace {

// File names and signatures are ASCII.
std::string narrow(const log4cplus::tstring& s) { return std::string(s.begin(), s.end()); }

class MemoryAppender : public log4cplus::Appender {
public:
    ~MemoryAppender() override { destructorImpl(); }
    void close() override {}

    std::vector<Record> snapshot() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.push_back({event.getLogLevel(), event.getMessage(), narrow(event.getFile()),
                            narrow(event.getFunction())});
    }

private:
    mutable std::mutex mutex_;
    std::vector<Record> records_;
};

MemoryAppender& memory(const log4cplus::SharedAppenderPtr& p) { return static_cast<MemoryAppender&>(*p); }

}  // namespace

Capture::Capture() : appender_(new MemoryAppender), savedLevel_(p11::logger.getLogLevel()) {
    appender_->setName(LOG4CPLUS_TEXT("test-capture"));
    p11::logger.addAppender(appender_);
    p11::logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

Capture::~Capture() {
    p11::logger.removeAppender(appender_);
    p11::logger.setLogLevel(savedLevel_);
}

std::vector<Record> Capture::records() const { return memory(appender_).snapshot(); }

std::vector<std::wstring> Capture::messages() const {
    std::vector<std::wstring> out;
    for (const auto& r : records()) out.push_back(r.message);
    return out;
}

std::vector<std::wstring> Capture::errors() const {
    std::vector<std::wstring> out;
    for (const auto& r : records())
        if (r.level == log4cplus::ERROR_LOG_LEVEL) out.push_back(r.message);
    return out;
}

bool Capture::contains(const std::wstring& message) const {
    auto all = messages();
    return std::find(all.begin(), all.end(), message) != all.end();
}

void Capture::clear() { memory(appender_).clear(); }

}  // namespace testlog
