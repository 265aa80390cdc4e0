#pragma once
// Loading a PKCS#11 provider library and obtaining its function list.
#include <p11-kit/pkcs11.h>

#include "zorvo_export.h"

extern "C" {
/// Opens the provider at `path` and stores its function list through `functions`.
/// Returns an opaque handle record, or null on any failure (reasons go to standard error).
ZORVO_API void* C_LoadModule(const char* path, CK_FUNCTION_LIST_PTR_PTR functions);
/// Closes the provider and frees the record: CKR_OK, CKR_ARGUMENTS_BAD for a pointer that is
/// not a live record, CKR_FUNCTION_FAILED when the library cannot be closed (record kept).
ZORVO_API CK_RV C_UnloadModule(void* record);
}
