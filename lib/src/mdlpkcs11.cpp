#include "mdlpkcs11.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "libscdl.h"

namespace {

constexpr uint32_t kRecordMagic = 0xD00BED00;

struct module_record {
    uint32_t magic;
    void* library;
};

// Loader messages must reach standard error even when something in the process (a wide
// log appender of the host, say) has made stderr wide-oriented, where narrow fprintf is lost.
__attribute__((format(printf, 1, 2))) void report(const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (fwide(stderr, 0) <= 0) {
        std::fputs(text, stderr);
        return;
    }
    std::fflush(stderr);
    ssize_t ignored = ::write(STDERR_FILENO, text, std::strlen(text));
    (void)ignored;
}

}  // namespace

extern "C" {

void* C_LoadModule(const char* path, CK_FUNCTION_LIST_PTR_PTR functions) {
    auto* record = static_cast<module_record*>(std::calloc(1, sizeof(module_record)));
    if (record == nullptr) return nullptr;
    record->magic = kRecordMagic;
    if (path == nullptr) {
        std::free(record);
        return nullptr;
    }
    record->library = sc_dlopen(path);
    if (record->library == nullptr) {
        const char* why = sc_dlerror();
        report("sc_dlopen failed: %s\n", why ? why : "");
        C_UnloadModule(record);
        return nullptr;
    }
    auto entry = reinterpret_cast<CK_C_GetFunctionList>(sc_dlsym(record->library, "C_GetFunctionList"));
    if (entry == nullptr) {
        C_UnloadModule(record);
        return nullptr;
    }
    CK_RV rv = entry(functions);
    if (rv == CKR_OK) return record;
    report("C_GetFunctionList failed %lx", rv);
    C_UnloadModule(record);
    return nullptr;
}

CK_RV C_UnloadModule(void* handle) {
    auto* record = static_cast<module_record*>(handle);
    if (record == nullptr || record->magic != kRecordMagic) return CKR_ARGUMENTS_BAD;
    if (record->library != nullptr && sc_dlclose(record->library) < 0) return CKR_FUNCTION_FAILED;
    std::free(record);
    return CKR_OK;
}
}
