#include "io.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "failure.h"

namespace zs {
namespace {

// What a signal handler must undo; only async-signal-safe calls touch these.
char g_tmpPath[4096];
volatile sig_atomic_t g_tmpSet = 0;
int g_ttyFd = -1;
struct termios g_ttySaved;
volatile sig_atomic_t g_ttyChanged = 0;

void on_signal(int sig) {
    if (g_ttyChanged) tcsetattr(g_ttyFd, TCSANOW, &g_ttySaved);
    if (g_tmpSet) unlink(g_tmpPath);
    _exit(128 + sig);
}

std::string system_error(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

bool read_line(int fd, std::string& out) {
    char c;
    bool any = false;
    for (;;) {
        ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return any;
        any = true;
        if (c == '\n') return true;
        out += c;
    }
}

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

void Secret::wipe() {
    volatile char* p = &value_[0];
    for (size_t i = 0; i < value_.size(); ++i) p[i] = 0;
    value_.clear();
}

void read_pin(const PinSource& source, const std::string& tokenLabel, Secret& pin) {
    std::string& value = pin.value();
    if (!source.file.empty()) {
        int fd = ::open(source.file.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) throw Failure(kFile, system_error("cannot read PIN file", source.file));
        read_line(fd, value);
        ::close(fd);
        if (!value.empty() && value.back() == '\r') value.pop_back();
        return;
    }
    const std::string name = source.envName.empty() ? "ZORVO_PIN" : source.envName;
    if (const char* env = std::getenv(name.c_str())) {
        value = env;
        unsetenv(name.c_str());  // not inherited by anything started later
        return;
    }
    if (!source.envName.empty()) throw Failure(kUsage, "no PIN: the variable " + name + " is not set");

    int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        throw Failure(kUsage,
                      "no PIN: set ZORVO_PIN, or use --pin-env or --pin-file (no terminal to ask on)");
    const std::string prompt = "PIN for token \"" + tokenLabel + "\": ";
    if (::write(fd, prompt.data(), prompt.size()) < 0) {
        ::close(fd);
        throw Failure(kUsage, "no PIN: cannot write to the terminal");
    }
    struct termios quiet;
    const bool isTty = tcgetattr(fd, &g_ttySaved) == 0;
    if (isTty) {
        quiet = g_ttySaved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        g_ttyFd = fd;
        g_ttyChanged = 1;
        tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    const bool got = read_line(fd, value);
    if (isTty) {
        tcsetattr(fd, TCSAFLUSH, &g_ttySaved);
        g_ttyChanged = 0;
        if (::write(fd, "\n", 1) < 0) { /* the newline is cosmetic */
        }
    }
    ::close(fd);
    if (!got) throw Failure(kUsage, "no PIN entered");
}

Input::Input(const std::string& path) : path_(path) {
    if (path == "-") {
        fd_ = STDIN_FILENO;
        path_ = "standard input";
    } else {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) throw Failure(kFile, system_error("cannot read", path));
    }
    struct stat st;
    if (fstat(fd_, &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            ::close(fd_);
            throw Failure(kFile, "cannot read " + path + ": a directory");
        }
        if (S_ISREG(st.st_mode)) size_ = st.st_size;
    }
}

Input::~Input() {
    if (fd_ > STDIN_FILENO) ::close(fd_);
}

size_t Input::read(char* buffer, size_t size) {
    for (;;) {
        ssize_t n = ::read(fd_, buffer, size);
        if (n >= 0) return static_cast<size_t>(n);
        if (errno != EINTR) throw Failure(kFile, system_error("cannot read", path_));
    }
}

Output::Output(const std::string& path) : path_(path), tmp_(path + ".tmp") {
    if (tmp_.size() >= sizeof g_tmpPath) throw Failure(kFile, "output path too long: " + path);
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        throw Failure(kFile, "cannot write " + path + ": a directory");
    fd_ = ::open(tmp_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd_ < 0) throw Failure(kFile, system_error("cannot write", tmp_));
    std::memcpy(g_tmpPath, tmp_.c_str(), tmp_.size() + 1);
    g_tmpSet = 1;
}

Output::~Output() {
    if (fd_ >= 0) ::close(fd_);
    if (!committed_) {
        g_tmpSet = 0;
        unlink(tmp_.c_str());
    }
}

void Output::write(const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd_, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw Failure(kFile, system_error("cannot write", tmp_));
        done += static_cast<size_t>(n);
    }
}

void Output::commit() {
    if (fsync(fd_) != 0 || ::close(fd_) != 0) {
        fd_ = -1;
        throw Failure(kFile, system_error("cannot write", tmp_));
    }
    fd_ = -1;
    if (rename(tmp_.c_str(), path_.c_str()) != 0) throw Failure(kFile, system_error("cannot create", path_));
    g_tmpSet = 0;
    committed_ = true;
}

void install_signal_handlers() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
}

Progress::Progress(int64_t total) : enabled_(isatty(STDERR_FILENO) == 1), total_(total) {}

void Progress::update(int64_t done) {
    // Small inputs sign in a blink: no display for them.
    if (!enabled_ || done < (int64_t(8) << 20)) return;
    const int64_t t = now_ms();
    if (t - lastMs_ < 200) return;
    lastMs_ = t;
    const double mib = static_cast<double>(done) / (1 << 20);
    if (total_ > 0) {
        const int64_t percent = done * 100 / total_;
        if (percent == shown_) return;
        shown_ = percent;
        std::fprintf(stderr, "\rzorvo-sign: signing %3d%% (%.1f of %.1f MiB)", static_cast<int>(percent), mib,
                     static_cast<double>(total_) / (1 << 20));
    } else {
        shown_ = 0;
        std::fprintf(stderr, "\rzorvo-sign: signing %.1f MiB", mib);
    }
}

void Progress::finish() {
    if (enabled_ && shown_ >= 0) std::fprintf(stderr, "\r\033[K");
}

}  // namespace zs
