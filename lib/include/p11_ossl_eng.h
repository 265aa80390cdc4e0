#pragma once
#include <openssl/types.h>

#include "zorvo_export.h"

namespace p11 {

/// Registers the OpenSSL engine "zorvo_pkcs11" with the GOST R 34.10 key methods and the
/// GOST R 34.11 digests. Call once, before making GOST signatures.
ZORVO_API void reg_pkcs11_engine();

/// Where the library's keys, digests and certificates live in OpenSSL: null (OpenSSL's default
/// context) when the library signs through its engine, else a context of the library's own, made
/// on first use, with OpenSSL's default provider and the library's. Certificates and signatures of
/// GOST keys are to be parsed in it (X509_new_ex, CMS_ContentInfo_new_ex, X509_STORE_load_file_ex).
ZORVO_API OSSL_LIB_CTX* openssl_libctx();

}  // namespace p11
