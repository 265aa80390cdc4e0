// Hashes one buffer with our GOST hashes and with libgcrypt's, then prints the medians side by
// side. Benchmark flags may be given as usual; they override the defaults below.
#include <benchmark/benchmark.h>
#include <gcrypt.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "gost/gosthash.h"
#include "gost/gosthash2012.h"

namespace {

std::vector<unsigned char>& buffer() {
    static std::vector<unsigned char> data = [] {
        std::vector<unsigned char> d(size_t(1) << 20);  // 1 MiB: stays in L2, no memory effects
        std::mt19937_64 rng(42);
        for (auto& b : d) b = static_cast<unsigned char>(rng());
        return d;
    }();
    return data;
}

void finish_run(benchmark::State& state) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(buffer().size()));
}

void ours_94(benchmark::State& state) {
    const auto& data = buffer();
    gost_hash_ctx ctx;
    init_gost_hash_ctx(&ctx, &GostR3411_94_CryptoProParamSet);
    byte out[32];
    for (auto _ : state) {
        start_hash(&ctx);
        hash_block(&ctx, data.data(), data.size());
        finish_hash(&ctx, out);
        benchmark::DoNotOptimize(out);
    }
    done_gost_hash_ctx(&ctx);
    finish_run(state);
}

void ours_2012(benchmark::State& state, unsigned bits, bool vector) {
    bool was = gost2012_use_vector(true);
    if (gost2012_use_vector(vector) != vector) {
        state.SkipWithError("no AVX-512 VBMI/GFNI on this processor");
        return;
    }
    state.SetLabel(gost2012_implementation());
    const auto& data = buffer();
    unsigned char out[64];
    for (auto _ : state) {
        gost2012_hash_ctx ctx;
        init_gost2012_hash_ctx(&ctx, bits);
        gost2012_hash_block(&ctx, data.data(), data.size());
        gost2012_finish_hash(&ctx, out);
        benchmark::DoNotOptimize(out);
    }
    gost2012_use_vector(was);
    finish_run(state);
}

void libgcrypt(benchmark::State& state, int algo) {
    const auto& data = buffer();
    unsigned char out[64];
    for (auto _ : state) {
        gcry_md_hash_buffer(algo, out, data.data(), data.size());
        benchmark::DoNotOptimize(out);
    }
    finish_run(state);
}

// Keeps the median throughput of every benchmark while printing as usual.
class collecting_reporter : public benchmark::ConsoleReporter {
public:
    collecting_reporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_ColorTabular : OO_Tabular) {}

    std::map<std::string, double> median_mbps;  // "hash/implementation" -> MB/s

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            if (run.aggregate_name != "median" || run.error_occurred) continue;
            auto it = run.counters.find("bytes_per_second");
            if (it != run.counters.end()) median_mbps[run.run_name.function_name] = it->second.value / 1e6;
        }
    }
};

const char* const hashes[][2] = {
    {"gost94_cp", "GOST R 34.11-94 (CryptoPro)"},
    {"streebog256", "GOST R 34.11-2012, 256 bit"},
    {"streebog512", "GOST R 34.11-2012, 512 bit"},
};

void print_table(const collecting_reporter& r) {
    auto get = [&](const std::string& key) {
        auto it = r.median_mbps.find(key);
        return it == r.median_mbps.end() ? 0.0 : it->second;
    };
    std::printf("\n| Hash | ours, MB/s | libgcrypt, MB/s | ours / libgcrypt |\n|---|---:|---:|---:|\n");
    for (const auto& h : hashes) {
        std::string id = h[0];
        double theirs = get(id + "/libgcrypt");
        for (const char* variant : {"ours", "ours_plain"}) {
            double ours = get(id + "/" + variant);
            if (ours == 0.0) continue;
            std::string label =
                std::string(h[1]) + (std::string(variant) == "ours_plain" ? ", plain path" : "");
            std::printf("| %s | %.1f | %.1f | %.2fx |\n", label.c_str(), ours, theirs,
                        theirs > 0 ? ours / theirs : 0.0);
        }
    }
    std::printf("\nMedians over repetitions, 1 MiB buffer, libgcrypt %s, our 2012 path: %s.\n",
                gcry_check_version(nullptr), gost2012_implementation());
}

}  // namespace

int main(int argc, char** argv) {
    gcry_check_version(nullptr);
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);

    benchmark::RegisterBenchmark("gost94_cp/ours", ours_94);
    benchmark::RegisterBenchmark("gost94_cp/libgcrypt", libgcrypt, GCRY_MD_GOSTR3411_CP);
    benchmark::RegisterBenchmark("streebog256/ours", ours_2012, 256u, true);
    benchmark::RegisterBenchmark("streebog256/ours_plain", ours_2012, 256u, false);
    benchmark::RegisterBenchmark("streebog256/libgcrypt", libgcrypt, GCRY_MD_STRIBOG256);
    benchmark::RegisterBenchmark("streebog512/ours", ours_2012, 512u, true);
    benchmark::RegisterBenchmark("streebog512/ours_plain", ours_2012, 512u, false);
    benchmark::RegisterBenchmark("streebog512/libgcrypt", libgcrypt, GCRY_MD_STRIBOG512);

    // Defaults first, so that flags on the command line win. Interleaving the repetitions of
    // all benchmarks spreads load from other processes evenly over ours and libgcrypt's.
    std::vector<char*> args = {argv[0]};
    std::string defaults[] = {"--benchmark_repetitions=7", "--benchmark_min_time=0.3",
                              "--benchmark_enable_random_interleaving=true",
                              "--benchmark_report_aggregates_only=true"};
    for (auto& d : defaults) args.push_back(d.data());
    for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    int n = int(args.size());
    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 1;

    buffer();
    collecting_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    print_table(reporter);
    benchmark::Shutdown();
    return 0;
}
