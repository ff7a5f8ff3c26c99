// The fixed 60-sequence read cycle on the simulated board with the instant clock. Per
// cycle it reports the real time spent by the tool's code and the simulator together,
// and the virtual time the cycle consumed: the 1 ms pauses (virtual_wait_ms, about 60)
// and the I2C wire time at 400 kHz (virtual_bus_ms), the physical floor of a reading.
//
// Run it on the board: orca-board-sim -- bench/sensor/read_cycle_bench
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "board-sim.h"
#include "i2c-monitor.h"

namespace {

void BM_FixedReadCycle(benchmark::State& state) {
    if (!board_sim::active()) {
        state.SkipWithError("not on the simulated board: run under orca-board-sim");
        return;
    }
    const int fd = open("/dev/i2c-1", O_RDWR);
    if (fd < 0) {
        state.SkipWithError("cannot open /dev/i2c-1");
        return;
    }
    SensorReading reading{};
    const uint64_t wait_start = board_sim::wait_time_ns();
    const uint64_t bus_start = board_sim::bus_time_ns();
    for (auto _ : state) {
        // The clocks that Google Benchmark reads run on virtual time here; real time is
        // measured by hand.
        const uint64_t start = board_sim::real_monotonic_ns();
        if (process_sensor_data(&reading, fd, 0, 5800) != 0) {
            state.SkipWithError("read cycle failed");
            break;
        }
        state.SetIterationTime(static_cast<double>(board_sim::real_monotonic_ns() - start) / 1e9);
    }
    close(fd);
    const auto per_cycle_ms = [&](uint64_t ns) {
        return benchmark::Counter(static_cast<double>(ns) / 1e6,
                                  benchmark::Counter::kAvgIterations);
    };
    state.counters["virtual_wait_ms"] = per_cycle_ms(board_sim::wait_time_ns() - wait_start);
    state.counters["virtual_bus_ms"] = per_cycle_ms(board_sim::bus_time_ns() - bus_start);
}
BENCHMARK(BM_FixedReadCycle)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
