#pragma once
// Thin wrappers over the dynamic loader; a host may interpose them.
#include "zorvo_export.h"

extern "C" {
/// dlopen with RTLD_LAZY alone.
ZORVO_API void* sc_dlopen(const char* path);
ZORVO_API void* sc_dlsym(void* handle, const char* name);
ZORVO_API const char* sc_dlerror(void);
ZORVO_API int sc_dlclose(void* handle);
}
