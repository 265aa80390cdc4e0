#pragma once
// The GOST R 34.11 digests as OpenSSL EVP_MD objects, and the engine's digest hooks.
#include <openssl/engine.h>
#include <openssl/evp.h>

#include "gost_digests.h"

namespace p11 {

/// The NIDs the engine announces for digests. The last two are the 2012 key NIDs, not the
/// 2012 digest NIDs that p11_mds answers; the list is kept so on purpose.
extern const int p11_digests[3];

/// The engine's digest selector (ENGINE_DIGESTS_PTR): with a null `md` it hands out
/// p11_digests and returns 3; for 809, 982 and 983 it sets `*md` and returns 1; else 0.
int p11_mds(ENGINE* e, const EVP_MD** md, const int** nids, int nid);

/// Sets p11_mds on `e`, registers it as the default digest engine and adds the three digests
/// to OpenSSL's table under OpenSSL's own names. Returns 1, or 0 at the first failing call.
int p11_md_init(ENGINE* e);

}  // namespace p11
