#pragma once
#include "zorvo_export.h"

namespace p11 {

/// Registers the OpenSSL engine "zorvo_pkcs11" with the GOST R 34.10 key methods and the
/// GOST R 34.11 digests. Call once, before making GOST signatures.
ZORVO_API void reg_pkcs11_engine();

}  // namespace p11
