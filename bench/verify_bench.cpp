// Verification speed: CMS signer information checked against its certificate, RSA-2048 through
// OpenSSL and each GOST R 34.10 kind through the library (its engine or its provider; signatures
// made by OpenSSL's gost engine, tests/data/gost-verify).
#include <benchmark/benchmark.h>
#include <openssl/pem.h>  // before cms.h, which declares its PEM functions only then

#include <openssl/cms.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <fstream>
#include <iterator>
#include <string>

#include "Signer.h"
#include "p11_ossl_eng.h"

namespace {

struct Signed {
    p11::ossl::cms_ptr cms;
    p11::ossl::x509_ptr cert;
};

std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

Signed gost(const std::string& name) {
    p11::reg_pkcs11_engine();
    const std::string dir = ZORVO_SOURCE_DIR "/tests/data/gost-verify/" + name;
    const std::string der = read(dir + ".sig.der"), pem = read(dir + ".cert.pem");
    p11::ossl::bio_ptr sig(BIO_new_mem_buf(der.data(), int(der.size()))),
        cert(BIO_new_mem_buf(pem.data(), int(pem.size())));
    // Parsed where the library knows GOST keys (OpenSSL's default context with the engine).
    X509* x509 = X509_new_ex(p11::openssl_libctx(), nullptr);
    PEM_read_bio_X509(cert.get(), &x509, nullptr, nullptr);
    return {p11::read_cms(sig.get()), p11::ossl::x509_ptr(x509)};
}

Signed rsa() {
    p11::ossl::evp_pkey_ptr key(EVP_RSA_gen(2048));
    p11::ossl::x509_ptr cert(X509_new());
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    std::unique_ptr<X509_NAME, decltype(&X509_NAME_free)> name(X509_NAME_new(), X509_NAME_free);
    X509_NAME_add_entry_by_txt(name.get(), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("bench"), -1, -1, 0);
    X509_set_subject_name(cert.get(), name.get());
    X509_set_issuer_name(cert.get(), name.get());
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400);
    X509_set_pubkey(cert.get(), key.get());
    X509_sign(cert.get(), key.get(), EVP_sha256());
    p11::ossl::bio_ptr data(BIO_new_mem_buf("bench", 5));
    return {
        p11::ossl::cms_ptr(CMS_sign(cert.get(), key.get(), nullptr, data.get(), CMS_BINARY | CMS_DETACHED)),
        std::move(cert)};
}

void verify(benchmark::State& state, Signed s) {
    if (!p11::signer_signature_verifies(s.cms.get(), s.cert.get())) state.SkipWithError("does not verify");
    for (auto _ : state) benchmark::DoNotOptimize(p11::signer_signature_verifies(s.cms.get(), s.cert.get()));
    state.counters["signatures/s"] =
        benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK_CAPTURE(verify, rsa2048, rsa())->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(verify, gost2001_cryptopro_a, gost("gost2001-A"))->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(verify, gost2012_256_cryptopro_a, gost("gost2012_256-A"))->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(verify, gost2012_256_tc26_a_edwards, gost("gost2012_256-TCA"))
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(verify, gost2012_512_tc26_a, gost("gost2012_512-A"))->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(verify, gost2012_512_tc26_c_edwards, gost("gost2012_512-C"))->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
