// Soak: repeated loads and unloads of a provider through Module, then 5,000 streamed
// signatures under one login on the test provider. Heap in use (mallinfo2) and resident size
// are taken after a warm-up and at the end of each part; they must stay flat within a small
// bound. Not a timed test: bench/soak.sh builds and runs it.
//
// The test provider is not linked but loaded at run time for its control functions, so that
// nothing else keeps a provider loaded.
#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "Certificate.h"
#include "Module.h"
#include "Session.h"
#include "Signer.h"
#include "Slot.h"
#include "p11.h"

namespace {

struct Memory {
    size_t heap;  // bytes handed out by malloc, small and mmap'd blocks
    size_t rss;   // resident bytes
};

Memory measure() {
    const struct mallinfo2 m = mallinfo2();
    size_t pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return {m.uordblks + m.hblkhd, resident * static_cast<size_t>(sysconf(_SC_PAGESIZE))};
}

long delta(size_t before, size_t after) { return static_cast<long>(after) - static_cast<long>(before); }

// Prints the figures; false when the heap or RSS grew past its bound.
bool report(const char* part, long count, const Memory& start, const Memory& end, size_t heapBound,
            size_t rssBound) {
    const long heap = delta(start.heap, end.heap), rss = delta(start.rss, end.rss);
    std::printf(
        "soak %s: %ld iterations; heap in use %zu -> %zu bytes (%+ld, %+.1f per iteration, bound %zu); "
        "RSS %.1f -> %.1f MiB (%+ld KiB, bound %zu KiB)\n",
        part, count, start.heap, end.heap, heap, static_cast<double>(heap) / static_cast<double>(count),
        heapBound, static_cast<double>(start.rss) / 1048576.0, static_cast<double>(end.rss) / 1048576.0,
        rss / 1024, rssBound / 1024);
    const bool ok = heap <= static_cast<long>(heapBound) && rss <= static_cast<long>(rssBound);
    if (!ok) std::printf("soak %s: FAILED, memory grew past its bound\n", part);
    return ok;
}

long envCount(const char* name, long fallback) {
    const char* v = std::getenv(name);
    return v != nullptr ? std::atol(v) : fallback;
}

// Module after Module on one provider path, each listing the slots; whether the provider is
// really gone after the last.
bool loadUnload(const char* part, const std::string& path, long cycles) {
    if (access(path.c_str(), R_OK) != 0) {
        std::printf("soak %s: %s not found, not measured\n", part, path.c_str());
        return true;
    }
    auto cycle = [&] { std::make_shared<p11::Module>(path, nullptr)->listTokenSlots(); };
    for (int i = 0; i < 200; ++i) cycle();
    const Memory start = measure();
    for (long i = 0; i < cycles; ++i) cycle();
    const Memory end = measure();
    void* still = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    std::printf("soak %s: %s %s after its last Module\n", part, path.c_str(),
                still ? "STILL LOADED" : "unloaded");
    if (still) dlclose(still);
    return report(part, cycles, start, end, 64 * 1024, 2 * 1024 * 1024) && still == nullptr;
}

// `openssl cms -verify` of a detached signature, in its own process.
bool verifies(const std::string& pem, const std::string& message, const std::string& cert) {
    const std::string dir = ZORVO_BUILD_DIR "/soak-";
    std::ofstream(dir + "sig.pem") << pem;
    std::ofstream(dir + "data") << message;
    const std::string command = "openssl cms -verify -binary -inform PEM -in " + dir + "sig.pem -content " +
                                dir + "data -CAfile " + cert +
                                " -partial_chain -purpose any -out /dev/null 2>/dev/null";
    return std::system(command.c_str()) == 0;
}

// Signature after signature with one streaming signer, one login, on SoftHSM2's rsa1.
bool streamedSignatures(const std::string& softhsm, const std::string& certFile, long count) {
    auto module = std::make_shared<p11::Module>(softhsm, nullptr);
    auto slots = module->listTokenSlots();
    std::shared_ptr<p11::Slot> slot;
    for (auto& s : *slots)
        if (p11::p11_utf8_to_local(s->readTokenInfo()->label, 32) == std::string("zorvo-a")) slot = s;
    if (!slot) throw std::runtime_error("no token zorvo-a: run tests/support/token.sh first");
    auto session = slot->openSession(0);
    auto certs = session->enumerateCerts();
    std::shared_ptr<p11::Certificate> cert;
    for (auto& c : *certs)
        if (c->getLabel() == "rsa1") cert = c;
    auto signer = cert->startSigning(session->login("1234", 4), false);
    std::string first, firstMessage, last, lastMessage;
    auto sign = [&](long i) {
        const std::string message = "soak message " + std::to_string(i);
        signer->addData(message.data(), static_cast<int>(message.size()));
        return std::make_pair(signer->finish(), message);
    };
    for (long i = 0; i < 200; ++i) sign(i);
    const Memory start = measure();
    for (long i = 0; i < count; ++i) {
        auto signature = sign(i);
        if (i == 0) std::tie(first, firstMessage) = signature;
        if (i == count - 1) std::tie(last, lastMessage) = signature;
    }
    bool ok = report("streamed signatures", count, start, measure(), 64 * 1024, 4 * 1024 * 1024);
    for (const auto& [pem, message] : {std::pair{first, firstMessage}, {last, lastMessage}}) {
        const bool good = verifies(pem, message, certFile);
        std::printf("soak streamed signatures: signature of \"%s\" %s\n", message.c_str(),
                    good ? "verifies" : "DOES NOT VERIFY");
        ok = ok && good;
    }
    return ok;
}

}  // namespace

int main() {
    p11::set_log_level(60000);  // failures are reported here; the library's log is not wanted
    try {
        std::ifstream env(ZORVO_BUILD_DIR "/softhsm/env");
        std::string softhsm, dir;
        for (std::string line; std::getline(env, line);) {
            if (line.rfind("SOFTHSM2_CONF=", 0) == 0) setenv("SOFTHSM2_CONF", line.c_str() + 14, 1);
            if (line.rfind("MODULE=", 0) == 0) softhsm = line.substr(7);
            if (line.rfind("DIR=", 0) == 0) dir = line.substr(4);
        }
        const long loads = envCount("SOAK_LOADS", 2000);
        const char* unloading = std::getenv("SOAK_UNLOAD_PROVIDER");
        bool ok =
            loadUnload("load/unload (OpenSC)",
                       unloading ? unloading : "/usr/lib/x86_64-linux-gnu/pkcs11/opensc-pkcs11.so", loads);
        ok = streamedSignatures(softhsm, dir + "/rsa1.crt.pem", envCount("SOAK_SIGNATURES", 5000)) && ok;
        return ok ? 0 : 1;
    } catch (const std::exception& e) {
        // Standard output: log4cplus may have made standard error wide-oriented.
        std::printf("soak: %s\n", e.what());
        return 2;
    }
}
