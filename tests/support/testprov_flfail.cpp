// A provider whose C_GetFunctionList always fails.
#include <p11-kit/pkcs11.h>

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR) {
    return CKR_GENERAL_ERROR;
}
