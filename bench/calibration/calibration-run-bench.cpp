// One full and one fast calibration of 5180 MHz MCS 0 on the simulated board with the
// instant clock, the simulated MP script transmitting. Per run it reports the real time
// the tool took (its own code, the MP script's answers, the simulated bus) against the
// waits the procedure mandates (virtual_wait_s: settling, pauses, read-cycle pauses) and
// the I2C wire time (virtual_bus_s). own_time_pct is real time as a share of the waits.
//
// Run it on the board: orca-board-sim -- bench/calibration/calibration_run_bench
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "board-sim.h"
#include "i2c-monitor.h"
#include "mp_session.h"

namespace {

// Keeps the run's progress lines off the report.
class QuietStdout {
  public:
    QuietStdout() {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~QuietStdout() {
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }

  private:
    int saved_ = -1;
};

void run_calibrations(benchmark::State& state, bool fast) {
    if (!board_sim::active()) {
        state.SkipWithError("not on the simulated board: run under orca-board-sim");
        return;
    }
    const int fd = open("/dev/i2c-1", O_RDWR);
    int started = -1;
    {
        QuietStdout quiet;
        started = fd >= 0 ? mp_start(5180, 0) : -1;
    }
    if (started != 0) {
        state.SkipWithError("cannot open /dev/i2c-1 or start the MP script");
        return;
    }
    uint64_t real_ns = 0;
    const uint64_t wait_start = board_sim::wait_time_ns();
    const uint64_t bus_start = board_sim::bus_time_ns();
    for (auto _ : state) {
        const uint64_t start = board_sim::real_monotonic_ns();
        int result = 0;
        {
            QuietStdout quiet;
            result =
                fast ? perform_fast_calibration(fd, 5180, 0) : perform_calibration(fd, 5180, 0);
        }
        const uint64_t elapsed = board_sim::real_monotonic_ns() - start;
        if (result != 0) {
            state.SkipWithError("calibration failed");
            break;
        }
        real_ns += elapsed;
        state.SetIterationTime(static_cast<double>(elapsed) / 1e9);
    }
    {
        QuietStdout quiet;
        g_calibration_tx = nullptr;
        mp_stop();
    }
    close(fd);
    const double wait_ns = static_cast<double>(board_sim::wait_time_ns() - wait_start);
    const auto per_run_s = [](double ns) {
        return benchmark::Counter(ns / 1e9, benchmark::Counter::kAvgIterations);
    };
    state.counters["virtual_wait_s"] = per_run_s(wait_ns);
    state.counters["virtual_bus_s"] =
        per_run_s(static_cast<double>(board_sim::bus_time_ns() - bus_start));
    state.counters["own_time_pct"] =
        wait_ns > 0 ? 100.0 * static_cast<double>(real_ns) / wait_ns : 0;
}

void BM_FullCalibration(benchmark::State& state) {
    run_calibrations(state, false);
}
void BM_FastCalibration(benchmark::State& state) {
    run_calibrations(state, true);
}
BENCHMARK(BM_FullCalibration)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_FastCalibration)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);

}  // namespace

BENCHMARK_MAIN();
