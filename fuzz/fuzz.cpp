// libFuzzer targets, built by fuzz/run.sh: FUZZ_CERT turns arbitrary DER into certificate
// objects (or bare X.509 names); FUZZ_HASH feeds the three GOST hashes in pieces and holds them
// against libgcrypt.
#include <gcrypt.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "Certificate.h"
#include "gost/gosthash.h"
#include "gost/gosthash2012.h"
#include "p11.h"

static void check(bool ok) {
    if (!ok) std::abort();
}

#ifdef FUZZ_CERT
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const unsigned char* p = data;
    std::unique_ptr<X509, void (*)(X509*)> x509(d2i_X509(nullptr, &p, long(size)), X509_free);
    p = data;
    if (X509_NAME* name = x509 ? nullptr : d2i_X509_NAME(nullptr, &p, long(size))) {
        p11::name_map map;
        p11::parseX509Name(name, map);
        check(map.size() <= size_t(X509_NAME_entry_count(name)));
        X509_NAME_free(name);
    }
    if (x509) {
        std::string label = "fuzz";
        p11::Certificate::id_type id(std::make_unique<unsigned char[]>(1), 1);
        auto info = std::make_shared<CK_TOKEN_INFO>();
        std::memset(info.get(), ' ', sizeof *info);
        try {
            p11::Certificate cert(std::weak_ptr<p11::Session>(), label, x509, id, info);
            check(!x509 && !id.first);  // taken over only on success
            for (const auto* names : {&cert.getSubject(), &cert.getIssuer()})
                for (const auto& e : *names) check(!e.first.empty() && e.second.size() <= size);
            check(cert.getSerialNumber().find_first_not_of("-0123456789") == std::string::npos);
        } catch (const p11::process_error& e) {
            check(e.code() == 210 && x509 && id.first);  // an unprintable time; still the caller's
        }
    }
    ERR_clear_error();
    return 0;
}
#endif

#ifdef FUZZ_HASH
// The first byte picks the piece size and the 2012 hash's compression code.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const size_t piece = size ? data[0] % 130 + 1 : 1;
    gost2012_use_vector(size && (data[0] & 0x80));
    for (int algorithm : {GCRY_MD_GOSTR3411_CP, GCRY_MD_STRIBOG256, GCRY_MD_STRIBOG512}) {
        unsigned char ours[64], theirs[64];
        gcry_md_hash_buffer(algorithm, theirs, data, size);
        if (algorithm == GCRY_MD_GOSTR3411_CP) {
            gost_hash_ctx ctx;
            init_gost_hash_ctx(&ctx, &GostR3411_94_CryptoProParamSet);
            start_hash(&ctx);
            for (size_t at = 0; at < size; at += piece)
                hash_block(&ctx, data + at, std::min(piece, size - at));
            finish_hash(&ctx, ours);
            done_gost_hash_ctx(&ctx);
        } else {
            gost2012_hash_ctx ctx;
            init_gost2012_hash_ctx(&ctx, algorithm == GCRY_MD_STRIBOG256 ? 256 : 512);
            for (size_t at = 0; at < size; at += piece)
                gost2012_hash_block(&ctx, data + at, std::min(piece, size - at));
            gost2012_finish_hash(&ctx, ours);
        }
        check(std::memcmp(ours, theirs, gcry_md_get_algo_dlen(algorithm)) == 0);
    }
    return 0;
}
#endif
