#include "p11_ossl_md.h"

#include <openssl/obj_mac.h>

namespace p11 {

static_assert(NID_id_GostR3411_94 == 809 && NID_id_GostR3410_2012_256 == 979 &&
                  NID_id_GostR3410_2012_512 == 980,
              "the engine's digest list is fixed by number");

const int p11_digests[3] = {NID_id_GostR3411_94, NID_id_GostR3410_2012_256, NID_id_GostR3410_2012_512};

int p11_mds(ENGINE* /*e*/, const EVP_MD** md, const int** nids, int nid) {
    if (!md) {
        *nids = p11_digests;
        return 3;
    }
    switch (nid) {
        case NID_id_GostR3411_2012_256:
            *md = digest_gost2012_256();
            return 1;
        case NID_id_GostR3411_2012_512:
            *md = digest_gost2012_512();
            return 1;
        case NID_id_GostR3411_94:
            *md = digest_gost2001();
            return 1;
        default:
            return 0;
    }
}

namespace {

// A digest that could not be built counts as a failed registration.
int add_digest(const EVP_MD* md) { return md && EVP_add_digest(md); }

}  // namespace

int p11_md_init(ENGINE* e) {
    // EVP_add_digest is what makes the digests reachable by name, and the only way CMS
    // finds them.
    if (!ENGINE_set_digests(e, p11_mds) || !ENGINE_register_digests(e) || !ENGINE_set_default_digests(e) ||
        !add_digest(digest_gost2001()) || !add_digest(digest_gost2012_256()) ||
        !add_digest(digest_gost2012_512()))
        return 0;
    return 1;
}

}  // namespace p11
