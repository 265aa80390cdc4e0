#include "files.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "failure.h"

namespace zs {
namespace {

// What a signal handler must undo; only async-signal-safe calls touch these.
char g_tmpPath[4096];
volatile sig_atomic_t g_tmpSet = 0;
volatile sig_atomic_t g_ttyFd = -1;
struct termios g_ttySaved;

void on_signal(int sig) {
    if (g_ttyFd >= 0) tcsetattr(g_ttyFd, TCSANOW, &g_ttySaved);
    if (g_tmpSet) unlink(g_tmpPath);
    _exit(128 + sig);
}

Failure file_error(const std::string& what, const std::string& path, int error = errno) {
    return Failure(kFile, what + " " + path + ": " + std::strerror(error));
}

const char* kind(mode_t mode) {
    return S_ISDIR(mode)    ? "a directory"
           : S_ISBLK(mode)  ? "a block device"
           : S_ISSOCK(mode) ? "a socket"
                            : "not a file";
}

std::string directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

Input::Input(const std::string& path) : name_(path == "-" ? "standard input" : path) {
    fd_ = path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) throw file_error("cannot read", path);
    if (fstat(fd_, &stat_) == 0 && S_ISDIR(stat_.st_mode))
        throw Failure(kFile, "cannot read " + path + ": a directory");
    regular_ = S_ISREG(stat_.st_mode);
}

Input::~Input() {
    if (fd_ > STDIN_FILENO) ::close(fd_);
}

size_t Input::read(char* buffer, size_t size) {
    for (;;) {
        const ssize_t n = ::read(fd_, buffer, size);
        if (n >= 0) return static_cast<size_t>(n);
        if (errno != EINTR) throw file_error("cannot read", name_);
    }
}

Output::Output(const std::string& path, const Input& input) : name_(path == "-" ? "standard output" : path) {
    struct stat st {};
    if (path == "-") {
        if (fstat(STDOUT_FILENO, &st) == 0 && input.is(st))
            throw Failure(kFile, "standard output is the input");
        fd_ = STDOUT_FILENO;
        standardOutput_ = true;
        return;
    }
    target_ = path;
    if (lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        char* real = realpath(path.c_str(), nullptr);
        if (real == nullptr) throw file_error("cannot write", path + " (a link to nowhere)");
        target_ = real;
        std::free(real);
    }
    const bool exists = stat(target_.c_str(), &st) == 0;
    if (exists && input.is(st)) throw Failure(kFile, "cannot write " + path + ": it is the input");
    if (exists && (S_ISCHR(st.st_mode) || S_ISFIFO(st.st_mode))) {
        fd_ = ::open(target_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
        if (fd_ < 0) throw file_error("cannot write", path);
        struct stat out {};
        standardOutput_ =
            fstat(STDOUT_FILENO, &out) == 0 && out.st_dev == st.st_dev && out.st_ino == st.st_ino;
        return;
    }
    if (exists && !S_ISREG(st.st_mode))
        throw Failure(kFile, "cannot write " + path + ": " + kind(st.st_mode));

    const std::string dir = directory_of(target_), base = target_.substr(target_.rfind('/') + 1);
    std::random_device random;
    for (int attempt = 0; fd_ < 0 && attempt < 100; ++attempt) {
        char suffix[16];
        std::snprintf(suffix, sizeof suffix, "%08x", static_cast<unsigned>(random()));
        tmp_ = dir + "/." + base + "." + suffix + ".tmp";
        fd_ = ::open(tmp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd_ < 0 && errno != EEXIST) throw file_error("cannot write a temporary file beside", path);
    }
    if (fd_ < 0 || tmp_.size() >= sizeof g_tmpPath)
        throw Failure(kFile, "cannot write a temporary file beside " + path);
    std::memcpy(g_tmpPath, tmp_.c_str(), tmp_.size() + 1);
    g_tmpSet = 1;
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd_, exists ? st.st_mode & 07777 : 0666 & ~mask);
    if (exists && geteuid() == 0 && fchown(fd_, st.st_uid, st.st_gid) != 0) {
        // Keeping the owner is a courtesy; the mode is kept regardless.
    }
}

Output::~Output() {
    if (fd_ > STDERR_FILENO) ::close(fd_);
    if (!tmp_.empty() && !committed_) {
        g_tmpSet = 0;
        unlink(tmp_.c_str());
    }
}

void Output::write(const char* data, size_t size) {
    for (size_t done = 0; done < size;) {
        const ssize_t n = ::write(fd_, data + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw file_error("cannot write", name_);
        done += static_cast<size_t>(n);
    }
}

void Output::commit() {
    if (tmp_.empty()) return;
    const int fd = fd_;
    fd_ = -1;
    if (fsync(fd) != 0 || ::close(fd) != 0) throw file_error("cannot write", name_);
    if (rename(tmp_.c_str(), target_.c_str()) != 0) throw file_error("cannot write", name_);
    g_tmpSet = 0;
    committed_ = true;
}

void install_signal_handlers() {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

void restore_terminal_on_signal(int fd, const struct termios& saved) {
    g_ttySaved = saved;
    g_ttyFd = fd;
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
