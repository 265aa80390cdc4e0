#pragma once
// Files, the PIN and the terminal for zorvo-sign.
#include <cstdint>
#include <string>

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

/// Reads the PIN: from the file, else the variable (which is then removed from the
/// environment), else a prompt on /dev/tty without echo. Throws Failure; the PIN never
/// appears in a message.
void read_pin(const PinSource& source, const std::string& tokenLabel, Secret& pin);

/// Input: a file, or standard input for "-".
class Input {
public:
    explicit Input(const std::string& path);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    /// Up to `size` bytes; 0 at the end. Throws Failure.
    size_t read(char* buffer, size_t size);
    /// The size of a regular file, or -1.
    int64_t size() const { return size_; }
    const std::string& name() const { return path_; }

private:
    std::string path_;
    int fd_ = -1;
    int64_t size_ = -1;
};

/// The output file, written as PATH.tmp and renamed over PATH only by commit(); the temporary
/// file is removed on destruction without commit, and on SIGINT, SIGTERM and SIGHUP.
class Output {
public:
    explicit Output(const std::string& path);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    void write(const std::string& data);
    void commit();

private:
    std::string path_, tmp_;
    int fd_ = -1;
    bool committed_ = false;
};

/// Installs the handlers that clean up (temporary file, terminal echo) on a signal.
void install_signal_handlers();

/// Progress of a long streamed signature on standard error, only when it is a terminal.
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
