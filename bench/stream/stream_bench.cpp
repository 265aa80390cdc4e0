// Streaming a large signature through Signer::addData in 64 KiB pieces (detached, against hashing
// the same bytes alone with the same digest; attached, streamed out to a sink), and whole short
// signatures per second. ZORVO_STREAM_MIB sets the size (1024).
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdlib>
#include <random>

#include <openssl/evp.h>

#include <fstream>
#include <sstream>
#include "Certificate.h"
#include "Module.h"
#include "Signer.h"
#include "Slot.h"
#include "gost_digests.h"
#include "p11.h"
#include "p11_ossl.h"
#include "p11_ossl_eng.h"

namespace {

constexpr size_t kPiece = 64 * 1024;

size_t total_bytes() {
    const char* mib = std::getenv("ZORVO_STREAM_MIB");
    return static_cast<size_t>(mib ? std::atol(mib) : 1024) << 20;
}

const std::vector<char>& piece() {
    static const std::vector<char> data = [] {
        std::vector<char> d(kPiece);
        std::mt19937 rng(7);
        for (char& c : d) c = static_cast<char>(rng());
        return d;
    }();
    return data;
}

long peak_rss_kib() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// The RSA identity of the SoftHSM2 test token and a GOST R 34.10-2012 (256) one of the test
// provider over it (tests/support/token.sh and tprov.cpp), each on a session logged in once.
struct Bench {
    std::shared_ptr<p11::Module> module;
    std::unique_ptr<std::vector<std::shared_ptr<p11::Slot>>> slots;  // sessions hold them weakly
    std::vector<std::shared_ptr<p11::Session>> sessions;
    std::vector<std::shared_ptr<p11::Certificate>> certs;

    Bench() {
        std::ifstream env(ZORVO_BUILD_DIR "/softhsm/env");
        for (std::string line; std::getline(env, line);)
            if (line.rfind("SOFTHSM2_CONF=", 0) == 0) setenv("SOFTHSM2_CONF", line.c_str() + 14, 1);
        setenv("ZORVO_TP_GOST", ZORVO_SOURCE_DIR "/tests/data/gost", 1);
        p11::reg_pkcs11_engine();
        module = std::make_shared<p11::Module>(ZORVO_TPROV, nullptr);
        slots = module->listTokenSlots();
        for (auto [token, label] : {std::pair{"zorvo-a", "rsa1"}, {"zorvo-g", "gost2012_256"}})
            for (auto& slot : *slots) {
                if (p11::p11_utf8_to_local(slot->readTokenInfo()->label, 32) != std::string(token)) continue;
                sessions.push_back(slot->openSession(0));
                auto found = sessions.back()->enumerateCerts();
                for (auto& c : *found)
                    if (c->getLabel() == label) certs.push_back(c);
            }
        if (certs.size() != 2) throw std::runtime_error("run tests/support/token.sh BUILD_DIR first");
    }
    static Bench& get() {
        static Bench bench;
        return bench;
    }
};

void hash_alone(benchmark::State& state, const EVP_MD* md) {
    const size_t total = total_bytes();
    for (auto _ : state) {
        EVP_MD_CTX* ctx = EVP_MD_CTX_new();
        EVP_DigestInit_ex(ctx, md, nullptr);
        for (size_t done = 0; done < total; done += kPiece) EVP_DigestUpdate(ctx, piece().data(), kPiece);
        unsigned char out[EVP_MAX_MD_SIZE];
        unsigned int len = 0;
        EVP_DigestFinal_ex(ctx, out, &len);
        EVP_MD_CTX_free(ctx);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * total));
}

void stream_signature(benchmark::State& state, size_t cert) {
    Bench& b = Bench::get();
    const size_t total = total_bytes();
    p11::engine_in_use = false;
    auto signer = b.certs.at(cert)->startSigning(b.sessions.at(cert)->login("1234", 4), false);
    const long rssBefore = peak_rss_kib();
    for (auto _ : state) {
        for (size_t done = 0; done < total; done += kPiece)
            signer->addData(piece().data(), static_cast<int>(kPiece));
        benchmark::DoNotOptimize(signer->finish());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * total));
    state.counters["peak_rss_growth_KiB"] = static_cast<double>(peak_rss_kib() - rssBefore);
}

// Whole signatures of a short message, one after another on one signer: the token's signing
// dominates, the rest is the library's (CMS encoding, the self-check, the PEM).
void signatures(benchmark::State& state, size_t cert) {
    Bench& b = Bench::get();
    p11::engine_in_use = false;
    auto signer = b.certs.at(cert)->startSigning(b.sessions.at(cert)->login("1234", 4), true);
    for (auto _ : state) {
        signer->addData("a short message", 15);
        benchmark::DoNotOptimize(signer->finish());
    }
    state.counters["signatures/s"] =
        benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

// An attached signature streamed out as it is made, to a sink that drops it.
void stream_attached(benchmark::State& state, size_t cert) {
    Bench& b = Bench::get();
    const size_t total = total_bytes();
    p11::engine_in_use = false;
    auto signer = b.certs.at(cert)->startSigning(b.sessions.at(cert)->login("1234", 4), true,
                                                 [](const char*, size_t) { return true; });
    for (auto _ : state) {
        for (size_t done = 0; done < total; done += kPiece)
            signer->addData(piece().data(), static_cast<int>(kPiece));
        benchmark::DoNotOptimize(signer->finish());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * total));
}

void BM_SignaturesRsa(benchmark::State& state) { signatures(state, 0); }
void BM_SignaturesGost2012(benchmark::State& state) { signatures(state, 1); }
void BM_StreamAttachedRsaSha256(benchmark::State& state) { stream_attached(state, 0); }
void BM_StreamAttachedGost2012Streebog256(benchmark::State& state) { stream_attached(state, 1); }
BENCHMARK(BM_SignaturesRsa)->Unit(benchmark::kMicrosecond)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_SignaturesGost2012)->Unit(benchmark::kMicrosecond)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_StreamAttachedRsaSha256)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_StreamAttachedGost2012Streebog256)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

void BM_Sha256Alone(benchmark::State& state) { hash_alone(state, EVP_sha256()); }
void BM_StreamDetachedRsaSha256(benchmark::State& state) { stream_signature(state, 0); }
void BM_Streebog256Alone(benchmark::State& state) {
    Bench::get();
    hash_alone(state, digest_gost2012_256());
}
void BM_StreamDetachedGost2012Streebog256(benchmark::State& state) { stream_signature(state, 1); }

BENCHMARK(BM_Sha256Alone)->Unit(benchmark::kMillisecond)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_StreamDetachedRsaSha256)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_Streebog256Alone)->Unit(benchmark::kMillisecond)->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(BM_StreamDetachedGost2012Streebog256)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
