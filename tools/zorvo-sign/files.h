#pragma once
// The files a user names to zorvo-sign, treated with care.
#include <sys/stat.h>
#include <termios.h>

#include <cstdint>
#include <string>

namespace zs {

/// The data to sign: a file, or standard input for "-". Anything but a directory is read as a
/// stream (a pipe, a device, a terminal).
class Input {
public:
    explicit Input(const std::string& path);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    /// Up to `size` bytes; 0 at the end. Throws Failure.
    size_t read(char* buffer, size_t size);
    /// The size of a regular file, or -1.
    int64_t size() const { return regular_ ? static_cast<int64_t>(stat_.st_size) : -1; }
    /// Whether `other` is this very file (a regular file, under whatever name).
    bool is(const struct stat& other) const {
        return regular_ && other.st_dev == stat_.st_dev && other.st_ino == stat_.st_ino;
    }
    const std::string& name() const { return name_; }

private:
    std::string name_;
    int fd_ = -1;
    struct stat stat_ {};
    bool regular_ = false;
};

/// Where the signature goes. "-" is standard output. A symbolic link is followed to its target.
/// A regular file (new or old) is written as a unique temporary file beside it, created with
/// O_CREAT|O_EXCL|O_NOFOLLOW and given the old file's mode, and renamed over it by commit(); until
/// then the old file is untouched, and the temporary goes on failure and on SIGINT, SIGTERM or
/// SIGHUP. A character device or a pipe is written into. Anything else is refused, and so is the
/// input itself under any name. Throws Failure (3).
class Output {
public:
    Output(const std::string& path, const Input& input);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    void write(const char* data, size_t size);
    void write(const std::string& data) { write(data.data(), data.size()); }
    /// Everything written: flushed to disk and renamed into place.
    void commit();
    /// Whether the signature goes where standard output goes (so messages must not).
    bool standardOutput() const { return standardOutput_; }

private:
    std::string name_, target_, tmp_;
    int fd_ = -1;
    bool committed_ = false;
    bool standardOutput_ = false;
};

/// Cleans up on SIGINT, SIGTERM and SIGHUP (temporary file, terminal echo), and turns SIGPIPE
/// into a write error.
void install_signal_handlers();
/// The terminal to restore should a signal come while the PIN is typed (fd -1: none).
void restore_terminal_on_signal(int fd, const struct termios& saved);

/// Progress of a long signature on standard error, only when it is a terminal.
class Progress {
public:
    explicit Progress(int64_t total);
    void update(int64_t done);
    void finish();

private:
    bool enabled_;
    int64_t total_;
    int64_t shown_ = -1;
    int64_t lastMs_ = 0;
};

}  // namespace zs
