#include "libscdl.h"

#include <dlfcn.h>

extern "C" {

void* sc_dlopen(const char* path) { return dlopen(path, RTLD_LAZY); }

void* sc_dlsym(void* handle, const char* name) { return dlsym(handle, name); }

const char* sc_dlerror(void) { return dlerror(); }

int sc_dlclose(void* handle) { return dlclose(handle); }
}
