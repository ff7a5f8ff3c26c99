// The per-frame paths of the transmitter: cutting NAL units into RTP fragments (against a
// plain memcpy of the same bytes), choosing the FEC share, and picking a power index.
// Fragmentation is to reach at least 30 % of the memcpy throughput with one allocation per
// fragment; the ratio is printed after the runs.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <orca-vtx/default_power_calibration.h>
#include <orca-vtx/orca-vtx-helpers.h>

namespace {
std::atomic<long> g_allocations{0};
}

// Every allocation of the process, the library's included, is counted. Kept out of line, so
// that the compiler does not pair the inlined malloc and free with new and delete.
__attribute__((noinline)) void* operator new(size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept {
    std::free(p);
}
__attribute__((noinline)) void operator delete(void* p, size_t) noexcept {
    std::free(p);
}

namespace {

constexpr size_t kNalSize = 1 << 20;
constexpr size_t kPayload = 1400;

std::vector<uint8_t> make_nal(venc_mode_t codec) {
    std::vector<uint8_t> nal(kNalSize);
    for (size_t i = 0; i < nal.size(); ++i)
        nal[i] = static_cast<uint8_t>(i * 131 + 7);
    const uint8_t h264[] = {0, 0, 0, 1, 0x65};
    const uint8_t h265[] = {0, 0, 0, 1, 0x26, 0x01};
    if (codec == VENC_H264)
        std::memcpy(nal.data(), h264, sizeof h264);
    else
        std::memcpy(nal.data(), h265, sizeof h265);
    return nal;
}

void BM_Fragment(benchmark::State& state) {
    const venc_mode_t codec = static_cast<venc_mode_t>(state.range(0));
    const std::vector<uint8_t> nal = make_nal(codec);
    const size_t first_skip = codec == VENC_H264 ? 5 : 6;
    const int type = codec == VENC_H264 ? 5 : 19;
    std::shared_ptr<std::vector<uint8_t>> out;
    const vtx_config_t config;
    uint16_t sequence = 0;
    long fragments = 0;
    const long allocations_before = g_allocations.load();
    for (auto _ : state) {
        for (size_t offset = 0; offset < nal.size();) {
            const size_t skip = offset == 0 ? first_skip : 0;
            const size_t length = std::min(kPayload, nal.size() - offset - skip);
            offset += create_rtp_packet_fragment(nal.data() + offset, length, 1234, offset == 0,
                                                 config, static_cast<int>(nal.size() - offset),
                                                 &sequence, type, out, codec);
            benchmark::DoNotOptimize(out->data());
            ++fragments;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * nal.size()));
    state.counters["allocs_per_fragment"] =
        static_cast<double>(g_allocations.load() - allocations_before) / fragments;
}
BENCHMARK(BM_Fragment)->Arg(VENC_H264)->Arg(VENC_H265)->ArgName("codec");

// The baseline: the same payload bytes copied into one packet-sized buffer, which stays
// in cache as the recycled fragment buffers do.
void BM_Memcpy(benchmark::State& state) {
    const std::vector<uint8_t> nal = make_nal(VENC_H264);
    std::vector<uint8_t> packet(kPayload);
    for (auto _ : state) {
        for (size_t offset = 0; offset < nal.size(); offset += kPayload) {
            std::memcpy(packet.data(), nal.data() + offset,
                        std::min(kPayload, nal.size() - offset));
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * nal.size()));
}
BENCHMARK(BM_Memcpy);

void BM_AdjustFec(benchmark::State& state) {
    vtx_config_t config;
    config.profiles = {vtx_profile_t{}};
    config.profiles[0].mtu = 1400;
    config.profiles[0].framerate = 60;
    int frame = 0;
    for (auto _ : state) {
        // A key frame every 60 frames, frame sizes that sometimes overrun the budget.
        const int nal_type = frame % 60 == 0 ? 5 : 1;
        const int size = 20000 + (frame * 7919) % 40000;
        benchmark::DoNotOptimize(adjust_fec(50000, size, &config, nal_type, 60, frame % 60));
        ++frame;
    }
}
BENCHMARK(BM_AdjustFec);

void BM_FindClosestPowerIndex(benchmark::State& state) {
    PowerCalibrationMap map = loadPowerCalibrationDataFromString(default_cal::kCalibrated_5_8);
    normalizeMcsCoverage(map);
    int step = 0;
    for (auto _ : state) {
        int wanted = 5 + (step * 37) % 1000;
        benchmark::DoNotOptimize(
            findClosestPowerIndex(map, step % 8, &wanted, 5745, RegulatoryDomain::off, true));
        ++step;
    }
}
BENCHMARK(BM_FindClosestPowerIndex);

// Keeps each run's throughput, so that the ratio can be given in the same run.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    RatioReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            auto rate = run.counters.find("bytes_per_second");
            if (rate != run.counters.end() && run.run_type == Run::RT_Iteration)
                throughput[run.benchmark_name()] = rate->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> throughput;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double copy = reporter.throughput["BM_Memcpy"];
    for (const char* name : {"BM_Fragment/codec:0", "BM_Fragment/codec:1"}) {
        const double fragment = reporter.throughput[name];
        if (copy > 0 && fragment > 0)
            std::printf("%s: %.2f GB/s against memcpy %.2f GB/s, ratio %.1f %% (goal >= 30 %%)\n",
                        name, fragment / 1e9, copy / 1e9, 100.0 * fragment / copy);
    }
    benchmark::Shutdown();
    return 0;
}
