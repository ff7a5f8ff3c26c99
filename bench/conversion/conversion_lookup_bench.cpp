// Cost of one cached mV-to-dBm lookup against the size of the band's table, and the heap
// allocations it makes (it should make none: the tables live in static storage).
#include "i2c-monitor.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

// Every heap allocation of the process goes through these, operator new included, since
// libstdc++'s operator new calls malloc. They count and hand over to glibc's allocator.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void __libc_free(void* pointer);
}

namespace {
std::atomic<long> g_allocations{0};
}

extern "C" void* malloc(size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
extern "C" void* realloc(void* pointer, size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(pointer, size);
}
extern "C" void free(void* pointer) {
    __libc_free(pointer);
}

namespace {

// Loads a table of `rows` rising rows (10 mV apart) into the 2.4 cache.
bool load_table(int rows) {
    char path[] = "/tmp/bench_conversion_XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0)
        return false;
    std::string text = "mV,MCS0,MCS1,MCS2,MCS3,MCS4,MCS5,MCS6,MCS7\n";
    for (int i = 0; i < rows; ++i) {
        const std::string dbm = std::to_string(i * 0.05);
        text += std::to_string(100 + i * 10);
        for (int mcs = 0; mcs < 8; ++mcs)
            text += "," + dbm;
        text += "\n";
    }
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    init_csv_cache_manager();
    const bool loaded = written && load_csv_cache(get_csv_cache_for_freq("2.4"), path) == 0;
    unlink(path);
    return loaded;
}

void BM_CachedLookup(benchmark::State& state) {
    const int rows = static_cast<int>(state.range(0));
    if (!load_table(rows)) {
        state.SkipWithError("could not write and load the table");
        return;
    }
    // Voltages below, inside and above the table, on rows and between them.
    const double probes[] = {50.0, 100.0 + rows * 2.5, 100.0 + rows * 5.0 + 3.0,
                             100.0 + rows * 7.5 + 5.0, 100.0 + rows * 20.0};
    double mv = 0, dbm = 0;
    size_t next = 0;
    const long allocations_before = g_allocations.load();
    for (auto _ : state) {
        const int result =
            read_csv_data_cached(&mv, &dbm, static_cast<int>(next & 7), "2.4", probes[next % 5]);
        benchmark::DoNotOptimize(result);
        benchmark::DoNotOptimize(dbm);
        ++next;
    }
    const long allocations = g_allocations.load() - allocations_before;
    state.counters["allocs_per_lookup"] =
        benchmark::Counter(static_cast<double>(allocations), benchmark::Counter::kAvgIterations);
    state.SetComplexityN(rows);
}

}  // namespace

BENCHMARK(BM_CachedLookup)->Arg(10)->Arg(100)->Arg(1000)->Complexity(benchmark::oN);

BENCHMARK_MAIN();
