// The monitor at its defaults (-d 1: 300 sequences, 0.1 ms apart, 0.5 s between lines) on
// the simulated board with the instant clock, run as an operator runs it and ended with
// SIGTERM after a number of lines. Per printed line it reports:
//   cpu_ms_per_line      user + system CPU time of the whole simulated board (the tool,
//                        the preload's models, orca-board-sim and the publisher)
//   virtual_ms_per_line  the virtual time the line cost: the waits the tool makes plus
//                        the I2C wire time at 400 kHz, what a real board would take
// The iteration time is the real time per line.
//
// Run: bench/monitor/monitor_line_bench
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

namespace {

const std::string kReadingLine = "2.4 GHz (CH0): ";

double seconds(const timeval& tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

double now_seconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

struct Run {
    long lines = 0;
    double cpu_s = 0;
    double real_s = 0;
    double virtual_s = 0;
    bool ok = false;
};

// The monitor until it has printed `wanted` lines, then SIGTERM; every line it printed
// up to its end is counted.
Run run_monitor(long wanted, const std::string& report) {
    Run run;
    int out[2];
    if (pipe(out) != 0)
        return run;
    const double start = now_seconds();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        close(out[0]);
        close(out[1]);
        execl(ORCA_BOARD_SIM, ORCA_BOARD_SIM, "--report", report.c_str(), "--", ORCA_MONITOR_BINARY,
              "-d", "1", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    FILE* stream = fdopen(out[0], "r");
    char line[512];
    bool stopped = false;
    while (stream != nullptr && std::fgets(line, sizeof line, stream) != nullptr) {
        if (kReadingLine.compare(0, std::string::npos, line, kReadingLine.size()) == 0)
            ++run.lines;
        if (!stopped && run.lines >= wanted) {
            kill(pid, SIGTERM);
            stopped = true;
        }
    }
    if (stream != nullptr)
        std::fclose(stream);
    int status = 0;
    rusage usage{};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid)
        return run;
    run.real_s = now_seconds() - start;
    run.cpu_s = seconds(usage.ru_utime) + seconds(usage.ru_stime);

    FILE* file = std::fopen(report.c_str(), "r");
    unsigned long long wait_ns = 0;
    unsigned long long bus_ns = 0;
    if (file != nullptr) {
        run.ok = std::fscanf(file, "wait_ns=%llu bus_ns=%llu", &wait_ns, &bus_ns) == 2;
        std::fclose(file);
    }
    run.virtual_s = static_cast<double>(wait_ns + bus_ns) / 1e9;
    run.ok = run.ok && stopped && run.lines > 0;
    return run;
}

void BM_MonitorLine(benchmark::State& state) {
    char dir[] = "/tmp/orca-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        state.SkipWithError("cannot make a temporary directory");
        return;
    }
    const std::string report = std::string(dir) + "/report";
    Run total;
    for (auto _ : state) {
        const Run run = run_monitor(state.range(0), report);
        if (!run.ok) {
            state.SkipWithError("the monitor did not run on the simulated board");
            break;
        }
        total.lines += run.lines;
        total.cpu_s += run.cpu_s;
        total.virtual_s += run.virtual_s;
        state.SetIterationTime(run.real_s / static_cast<double>(run.lines));
    }
    std::remove(report.c_str());
    rmdir(dir);
    if (total.lines > 0) {
        const double lines = static_cast<double>(total.lines);
        state.counters["cpu_ms_per_line"] = total.cpu_s * 1e3 / lines;
        state.counters["virtual_ms_per_line"] = total.virtual_s * 1e3 / lines;
    }
}
// 1000 lines make the board's start and end a small share of the run.
BENCHMARK(BM_MonitorLine)->Arg(1000)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
