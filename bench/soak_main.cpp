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
#include "test_certs.h"
#include "test_openssl.h"
#include "testprov.h"  // declarations only

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

long delta(size_t before, size_t after) {
    return static_cast<long>(after) - static_cast<long>(before);
}

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

// The provider's control functions, found in the copy loaded at run time.
struct Control {
    explicit Control(void* handle) : handle(handle) {}
    template <typename F>
    F get(const char* name) const {
        void* p = dlsym(handle, name);
        if (p == nullptr) throw std::runtime_error(std::string("provider lacks ") + name);
        return reinterpret_cast<F>(p);
    }
    void* handle;
};

// Module after Module on one provider path, each listing the slots.
Memory loadUnloadLoop(const std::string& path, long cycles, void (*between)()) {
    auto cycle = [&] {
        auto module = std::make_shared<p11::Module>(path, nullptr);
        module->listTokenSlots();
        if (between) between();
    };
    for (int i = 0; i < 200; ++i) cycle();
    const Memory start = measure();
    for (long i = 0; i < cycles; ++i) cycle();
    return start;
}

// The test provider cannot be unloaded (its C++ runtime marks it so), so it stays loaded here
// and its call log is emptied after each cycle: what remains is the library's own share.
bool loadUnloadTestProvider(const Control& c, long cycles) {
    static void (*clearLog)() = c.get<decltype(&tp_clear_log)>("tp_clear_log");
    const Memory start = loadUnloadLoop(ZORVO_TESTPROV_PATH, cycles, [] { clearLog(); });
    return report("load/unload (test provider)", cycles, start, measure(), 64 * 1024, 2 * 1024 * 1024);
}

// A provider that is really unloaded each time: dlopen, C_Initialize, C_Finalize, dlclose.
bool loadUnloadRealProvider(long cycles) {
    const char* env = std::getenv("SOAK_UNLOAD_PROVIDER");
    const std::string path = env ? env : "/usr/lib/x86_64-linux-gnu/pkcs11/opensc-pkcs11.so";
    if (access(path.c_str(), R_OK) != 0) {
        std::printf("soak load/unload: %s not found, real unloading not measured\n", path.c_str());
        return true;
    }
    const Memory start = loadUnloadLoop(path, cycles, nullptr);
    const Memory end = measure();
    void* still = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    std::printf("soak load/unload: %s %s after its last Module\n", path.c_str(),
                still ? "STILL LOADED" : "unloaded");
    if (still) dlclose(still);
    return report("load/unload (unloading provider)", cycles, start, end, 64 * 1024, 2 * 1024 * 1024) &&
           still == nullptr;
}

bool streamedSignatures(const Control& c, long count) {
    c.get<decltype(&tp_reset)>("tp_reset")();

    p11::ossl::evp_pkey_ptr key(EVP_RSA_gen(2048));
    testcert::Options o;
    o.subject = {{"CN", V_ASN1_UTF8STRING, "Soak signer"}};
    o.key = key.get();
    auto cert = testcert::make(o);
    const auto der = testcert::der(cert.get());
    const std::string keyPem = testssl::key_pem(key.get());

    const CK_SLOT_ID slotId = 1;
    CK_TOKEN_INFO ti = tp::token_info("soak token");
    if (c.get<decltype(&tp_add_slot)>("tp_add_slot")(slotId, nullptr) != 0 ||
        c.get<decltype(&tp_add_token)>("tp_add_token")(slotId, &ti) != 0)
        throw std::runtime_error("token set-up failed");
    CK_OBJECT_CLASS certClass = CKO_CERTIFICATE, keyClass = CKO_PRIVATE_KEY;
    CK_CERTIFICATE_TYPE x509 = CKC_X_509;
    CK_KEY_TYPE rsa = CKK_RSA;
    CK_BBOOL yes = CK_TRUE;
    unsigned char id[] = {0x50};
    char label[] = "soak";
    CK_ATTRIBUTE certAttrs[] = {{CKA_CLASS, &certClass, sizeof certClass},
                                {CKA_CERTIFICATE_TYPE, &x509, sizeof x509},
                                {CKA_LABEL, label, sizeof label - 1},
                                {CKA_ID, id, sizeof id},
                                {CKA_VALUE, const_cast<unsigned char*>(der.data()), der.size()}};
    CK_ATTRIBUTE keyAttrs[] = {{CKA_CLASS, &keyClass, sizeof keyClass},
                               {CKA_KEY_TYPE, &rsa, sizeof rsa},
                               {CKA_PRIVATE, &yes, sizeof yes},
                               {CKA_SIGN, &yes, sizeof yes},
                               {CKA_ID, id, sizeof id}};
    auto addObject = c.get<decltype(&tp_add_object)>("tp_add_object");
    addObject(slotId, certAttrs, 5);
    const CK_OBJECT_HANDLE keyObject = addObject(slotId, keyAttrs, 5);
    if (c.get<decltype(&tp_set_rsa_key)>("tp_set_rsa_key")(keyObject, keyPem.data(), keyPem.size()) != 0)
        throw std::runtime_error("key set-up failed");

    auto module = std::make_shared<p11::Module>(ZORVO_TESTPROV_PATH, nullptr);
    auto slot = module->listTokenSlots()->at(0);
    auto session = slot->openSession(0);
    auto certs = session->enumerateCerts();
    auto signer = certs->at(0)->startSigning(session->login("1234", 4), false);

    // The provider's call log would grow with every signature; only the library's share counts.
    auto clearLog = c.get<decltype(&tp_clear_log)>("tp_clear_log");
    int logins = 0;
    std::string first, firstMessage, last, lastMessage;
    auto sign = [&](long i) {
        logins += c.get<decltype(&tp_call_count)>("tp_call_count")("C_Login");
        clearLog();
        const std::string message = "soak message " + std::to_string(i);
        signer->addData(message.data(), static_cast<int>(message.size()));
        std::string pem = signer->finish();
        if (pem.rfind("-----BEGIN CMS-----", 0) != 0) throw std::runtime_error("not a CMS PEM block");
        return std::make_pair(pem, message);
    };
    for (long i = 0; i < 200; ++i) sign(i);
    const Memory start = measure();
    for (long i = 0; i < count; ++i) {
        auto signature = sign(i);
        if (i == 0) std::tie(first, firstMessage) = signature;
        if (i == count - 1) std::tie(last, lastMessage) = signature;
    }
    const Memory end = measure();
    logins += c.get<decltype(&tp_call_count)>("tp_call_count")("C_Login");

    bool ok = report("streamed signatures", count, start, end, 64 * 1024, 4 * 1024 * 1024);
    std::printf("soak streamed signatures: %d login(s) for all of them\n", logins);
    ok = ok && logins == 1;
    const std::string certPem = testssl::cert_pem(cert.get());
    for (const auto* s : {&first, &last}) {
        const std::string& message = s == &first ? firstMessage : lastMessage;
        auto verified = testssl::cms_verify(*s, certPem, &message);
        std::printf("soak streamed signatures: %s signature %s\n", s == &first ? "first" : "last",
                    verified.ok ? "verifies" : "DOES NOT VERIFY");
        ok = ok && verified.ok;
    }
    signer.reset();
    certs.reset();
    session.reset();
    slot.reset();
    module.reset();
    c.get<decltype(&tp_reset)>("tp_reset")();
    return ok;
}

}  // namespace

int main() {
    p11::set_log_level(60000);  // failures are reported here; the library's log is not wanted
    try {
        const long loads = envCount("SOAK_LOADS", 2000);
        bool ok = loadUnloadRealProvider(loads);
        void* provider = dlopen(ZORVO_TESTPROV_PATH, RTLD_NOW);
        if (provider == nullptr) throw std::runtime_error(dlerror());
        const Control control(provider);
        ok = loadUnloadTestProvider(control, loads) && ok;
        ok = streamedSignatures(control, envCount("SOAK_SIGNATURES", 5000)) && ok;
        dlclose(provider);
        return ok ? 0 : 1;
    } catch (const std::exception& e) {
        // Standard output: log4cplus may have made standard error wide-oriented.
        std::printf("soak: %s\n", e.what());
        return 2;
    }
}
