#include "pin.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "failure.h"
#include "files.h"

namespace zs {
namespace {

// One line; false on a read error.
bool read_line(int fd, std::string& out) {
    for (char c;;) {
        const ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n == 0;
        if (c == '\n') return true;
        out += c;
    }
}

void refuse_empty(const std::string& value, const std::string& from) {
    if (value.empty()) throw Failure(kUsage, "empty PIN " + from + ": not sent to the token");
}

}  // namespace

void Secret::wipe() {
    volatile char* p = value_.data();
    for (size_t i = 0; i < value_.size(); ++i) p[i] = 0;
    value_.clear();
}

bool read_given_pin(const PinSource& source, Secret& pin) {
    std::string& value = pin.value();
    if (!source.file.empty()) {
        const int fd = ::open(source.file.c_str(), O_RDONLY | O_CLOEXEC);
        const bool ok = fd >= 0 && read_line(fd, value);
        const int error = errno;
        if (fd >= 0) ::close(fd);
        if (!ok) throw Failure(kFile, "cannot read PIN file " + source.file + ": " + std::strerror(error));
        if (!value.empty() && value.back() == '\r') value.pop_back();
        refuse_empty(value, "in " + source.file);
        return true;
    }
    const std::string name = source.envName.empty() ? "ZORVO_PIN" : source.envName;
    char* env = std::getenv(name.c_str());
    if (env == nullptr) {
        if (!source.envName.empty()) throw Failure(kUsage, "no PIN: the variable " + name + " is not set");
        return false;
    }
    value = env;
    // The initial environment block is what /proc/PID/environ shows: wipe the value there too.
    for (char* p = env; *p; ++p) *p = 0;
    unsetenv(name.c_str());
    refuse_empty(value, "in " + name);
    return true;
}

void prompt_pin(const std::string& tokenLabel, Secret& pin) {
    const int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        throw Failure(kUsage,
                      "no PIN: set ZORVO_PIN, or use --pin-env or --pin-file (no terminal to ask on)");
    const std::string prompt = "PIN for token \"" + tokenLabel + "\": ";
    bool got = ::write(fd, prompt.data(), prompt.size()) >= 0;
    struct termios saved;
    const bool isTty = got && tcgetattr(fd, &saved) == 0;
    if (isTty) {
        struct termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        restore_terminal_on_signal(fd, saved);
        tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    got = got && read_line(fd, pin.value());
    if (isTty) {
        tcsetattr(fd, TCSAFLUSH, &saved);
        restore_terminal_on_signal(-1, saved);
        got = ::write(fd, "\n", 1) >= 0 && got;
    }
    ::close(fd);
    if (!got) throw Failure(kUsage, "no PIN entered");
    refuse_empty(pin.value(), "entered");
}

std::vector<std::string> pin_warnings(CK_FLAGS flags) {
    std::vector<std::string> out;
    const std::pair<CK_FLAGS, const char*> known[] = {{CKF_USER_PIN_COUNT_LOW, "count low"},
                                                      {CKF_USER_PIN_FINAL_TRY, "final try"},
                                                      {CKF_USER_PIN_LOCKED, "locked"},
                                                      {CKF_USER_PIN_TO_BE_CHANGED, "to be changed"}};
    for (const auto& [flag, text] : known)
        if (flags & flag) out.push_back(text);
    return out;
}

}  // namespace zs
