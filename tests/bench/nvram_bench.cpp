// Latency of the configuration store with 2,000 keys present, in a temporary file.
#include "platform/host/nvram_store.h"
#include "platform/nvram.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int kKeys = 2000;

std::string key_name(int i) { return "bench_key_" + std::to_string(i); }

// A store of kKeys pairs in a temporary directory, made once and removed at exit.
struct BenchStore {
    fs::path dir;
    BenchStore() {
        char pattern[] = "/tmp/nvram_bench.XXXXXX";
        if (!mkdtemp(pattern)) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        dir = pattern;
        setenv("NVRAM_FILE", (dir / "nvram").c_str(), 1);
        std::vector<std::pair<std::string, std::string>> pairs;
        for (int i = 0; i < kKeys; ++i)
            pairs.emplace_back(key_name(i), "value of key " + std::to_string(i) + " 192.0.2.1");
        if (nvram_store_set_many(pairs) != 0) std::exit(1);
    }
    ~BenchStore() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};

BenchStore &bench_store() {
    static BenchStore store;
    return store;
}

std::vector<std::string> key_names() {
    std::vector<std::string> keys;
    for (int i = 0; i < kKeys; ++i) keys.push_back(key_name(i));
    return keys;
}

void BM_Get_Unchanged(benchmark::State &state) {
    bench_store();
    std::vector<std::string> keys = key_names();
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(veskNvramConfig_get(keys[i++ % keys.size()].c_str()));
}
BENCHMARK(BM_Get_Unchanged);

void BM_Match_Unchanged(benchmark::State &state) {
    bench_store();
    for (auto _ : state) benchmark::DoNotOptimize(veskNvramConfig_match("bench_key_1000", "x"));
}
BENCHMARK(BM_Match_Unchanged);

// The first get after another process replaced the store: a full re-read of 2,000 pairs.
void BM_Get_AfterStoreReplaced(benchmark::State &state) {
    BenchStore &store = bench_store();
    fs::path path = store.dir / "nvram", copy = store.dir / "copy";
    for (auto _ : state) {
        state.PauseTiming();
        fs::copy_file(path, copy, fs::copy_options::overwrite_existing);
        fs::rename(copy, path);
        state.ResumeTiming();
        benchmark::DoNotOptimize(veskNvramConfig_get("bench_key_1000"));
    }
}
BENCHMARK(BM_Get_AfterStoreReplaced);

// Each set changes the value, so every one rewrites and renames the whole store.
void BM_Set_Changed(benchmark::State &state) {
    bench_store();
    std::vector<std::string> keys = key_names();
    size_t i = 0;
    for (auto _ : state) {
        std::string value = "v" + std::to_string(i);
        if (veskNvramConfig_set(keys[i++ % keys.size()].c_str(), value.c_str()) != 0) {
            state.SkipWithError("set failed");
            break;
        }
    }
    state.counters["store_bytes"] = static_cast<double>(fs::file_size(bench_store().dir / "nvram"));
}
BENCHMARK(BM_Set_Changed);

// Setting the value a key already holds (the monitor's flags every tick) writes nothing.
void BM_Set_Unchanged(benchmark::State &state) {
    bench_store();
    veskNvramConfig_set("bench_key_7", "same");
    for (auto _ : state) benchmark::DoNotOptimize(veskNvramConfig_set("bench_key_7", "same"));
}
BENCHMARK(BM_Set_Unchanged);

}  // namespace
