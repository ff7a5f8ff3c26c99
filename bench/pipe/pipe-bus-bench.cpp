// The pipe bus between two processes: this program is the client (the reader thread's
// callback is where a record counts as delivered) and a forked child is the publisher.
// Records are 81 bytes, a sequence number and the publisher's CLOCK_MONOTONIC time of the
// write, which both processes share.
//
//   BM_PipeLatency              one record at a time, the next only once the callback has
//                               seen the last: from just before pipe_server_write to the
//                               callback. Counters median_us and p99_us; the iteration
//                               time is the latency itself.
//   BM_PipeThroughput/RATE      100 000 records written at RATE records per second (0: as
//                               fast as the publisher can write). Counters delivered_per_s
//                               (records delivered / time from the first write to the last
//                               callback) and lost (records that never arrived).
//
// A client that falls behind loses records rather than stalling the publisher, so the
// unpaced run shows where that starts. No root needed: the bus lives in a scratch folder.
//
// Run: bench/pipe/pipe_bus_bench
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fjord_pipe.h"

namespace {

constexpr int kRecordBytes = 81;
constexpr int kBurstRecords = 100000;

int64_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct Record {
    uint64_t sequence;
    int64_t written_ns;
};

// Commands from the benchmark to the publisher, over a plain pipe(2).
struct Command {
    char kind;  // 'L' one record, 'T' a burst, 'Q' quit
    int count;
    int rate;  // records per second for 'T'; 0 for as fast as possible
};

bool read_all(int fd, void* data, size_t size) {
    auto* at = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t got = read(fd, at, size);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        at += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

bool write_all(int fd, const void* data, size_t size) {
    const auto* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t put = write(fd, at, size);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        at += put;
        size -= static_cast<size_t>(put);
    }
    return true;
}

void publish(uint64_t sequence) {
    char record[kRecordBytes] = {};
    const Record stamp{sequence, now_ns()};
    std::memcpy(record, &stamp, sizeof stamp);
    pipe_server_write(0, record, kRecordBytes);
}

// The publisher process: serves commands until 'Q' or the benchmark goes away.
[[noreturn]] void run_publisher(const char* bus_dir, int command_fd, int done_fd) {
    pipe_bus_set_dir(bus_dir);
    if (pipe_server_create(0, "bench", "bench_record_t") != 0)
        _exit(1);
    const char ready = 'R';
    write_all(done_fd, &ready, 1);
    uint64_t sequence = 0;
    Command command{};
    while (read_all(command_fd, &command, sizeof command) && command.kind != 'Q') {
        if (command.kind == 'L') {
            publish(sequence++);
        } else if (command.kind == 'T') {
            const int64_t start = now_ns();
            for (int i = 0; i < command.count; ++i) {
                if (command.rate > 0) {
                    // Sleep while more than 100 us ahead, so that the publisher does not take
                    // a core from the client: records then go out in small bursts.
                    const int64_t due = start + static_cast<int64_t>(i) * 1000000000 / command.rate;
                    const int64_t ahead = due - now_ns();
                    if (ahead > 100000) {
                        const timespec pause{0, static_cast<long>(ahead)};
                        nanosleep(&pause, nullptr);
                    }
                }
                publish(sequence++);
            }
        }
        const char done = 'D';
        write_all(done_fd, &done, 1);
    }
    pipe_server_close_all();
    _exit(0);
}

// The client's view, filled by the reader thread's callback. The callback wakes the main
// thread only when it waits for a single record: during a burst a wake-up per record would
// cost the reader more than the bus itself.
struct Delivery {
    std::mutex mutex;
    std::condition_variable changed;
    bool connected = false;
    std::atomic<bool> wake{false};
    std::atomic<uint64_t> received{0};
    std::atomic<int64_t> first_written_ns{0};
    std::atomic<int64_t> last_latency_ns{0};
    std::atomic<int64_t> last_arrival_ns{0};
};

Delivery g_delivery;
pid_t g_publisher = -1;
int g_command_fd = -1;
int g_done_fd = -1;
std::string g_bus_dir;

void on_connect(int, void*) {
    std::lock_guard<std::mutex> lock(g_delivery.mutex);
    g_delivery.connected = true;
    g_delivery.changed.notify_all();
}

void on_record(int, char* data, int bytes, void*) {
    const int64_t arrived = now_ns();
    if (bytes != kRecordBytes)
        return;
    Record stamp{};
    std::memcpy(&stamp, data, sizeof stamp);
    if (g_delivery.received.load() == 0)
        g_delivery.first_written_ns = stamp.written_ns;
    g_delivery.last_latency_ns = arrived - stamp.written_ns;
    g_delivery.last_arrival_ns = arrived;
    g_delivery.received.fetch_add(1);
    if (g_delivery.wake.load()) {
        std::lock_guard<std::mutex> lock(g_delivery.mutex);
        g_delivery.changed.notify_all();
    }
}

void send_command(const Command& command) {
    if (!write_all(g_command_fd, &command, sizeof command)) {
        std::fprintf(stderr, "the publisher has gone\n");
        std::exit(1);
    }
}

void wait_done() {
    char done = 0;
    if (!read_all(g_done_fd, &done, 1)) {
        std::fprintf(stderr, "the publisher has gone\n");
        std::exit(1);
    }
}

bool start_publisher_and_client() {
    char dir[] = "/tmp/pipe-bus-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        return false;
    g_bus_dir = dir;
    int command_pipe[2];
    int done_pipe[2];
    if (pipe(command_pipe) != 0 || pipe(done_pipe) != 0)
        return false;
    // Forked before any thread exists in this process.
    g_publisher = fork();
    if (g_publisher < 0)
        return false;
    if (g_publisher == 0) {
        close(command_pipe[1]);
        close(done_pipe[0]);
        run_publisher(dir, command_pipe[0], done_pipe[1]);
    }
    close(command_pipe[0]);
    close(done_pipe[1]);
    g_command_fd = command_pipe[1];
    g_done_fd = done_pipe[0];
    wait_done();  // the pipe exists

    pipe_bus_set_dir(dir);
    pipe_client_set_connect_cb(0, on_connect, nullptr);
    pipe_client_set_simple_helper_cb(0, on_record, nullptr);
    if (pipe_client_open(0, "bench", "pipe-bus-bench", CLIENT_FLAG_EN_SIMPLE_HELPER, 4096) != 0)
        return false;
    std::unique_lock<std::mutex> lock(g_delivery.mutex);
    return g_delivery.changed.wait_for(lock, std::chrono::seconds(5),
                                       [] { return g_delivery.connected; });
}

void stop_publisher_and_client() {
    pipe_client_close_all();
    if (g_publisher > 0) {
        send_command({'Q', 0, 0});
        int status = 0;
        waitpid(g_publisher, &status, 0);
    }
    const std::string rm = "rm -rf '" + g_bus_dir + "'";
    if (!g_bus_dir.empty() && std::system(rm.c_str()) != 0)
        std::fprintf(stderr, "could not remove %s\n", g_bus_dir.c_str());
}

double percentile(std::vector<int64_t> values, double fraction) {
    if (values.empty())
        return 0.0;
    const size_t at = std::min(values.size() - 1, static_cast<size_t>(fraction * values.size()));
    std::nth_element(values.begin(), values.begin() + static_cast<long>(at), values.end());
    return static_cast<double>(values[at]);
}

void BM_PipeLatency(benchmark::State& state) {
    std::vector<int64_t> latencies;
    latencies.reserve(static_cast<size_t>(state.max_iterations));
    g_delivery.wake = true;
    for (auto _ : state) {
        const uint64_t before = g_delivery.received;
        send_command({'L', 1, 0});
        std::unique_lock<std::mutex> lock(g_delivery.mutex);
        if (!g_delivery.changed.wait_for(lock, std::chrono::seconds(2),
                                         [before] { return g_delivery.received > before; })) {
            state.SkipWithError("a record was not delivered within 2 s");
            break;
        }
        lock.unlock();
        wait_done();
        latencies.push_back(g_delivery.last_latency_ns);
        state.SetIterationTime(static_cast<double>(g_delivery.last_latency_ns) / 1e9);
    }
    g_delivery.wake = false;
    state.counters["median_us"] = percentile(latencies, 0.5) / 1e3;
    state.counters["p99_us"] = percentile(latencies, 0.99) / 1e3;
}
BENCHMARK(BM_PipeLatency)->Iterations(20000)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_PipeThroughput(benchmark::State& state) {
    const int rate = static_cast<int>(state.range(0));
    uint64_t delivered = 0;
    uint64_t lost = 0;
    double seconds = 0.0;
    for (auto _ : state) {
        g_delivery.received = 0;
        send_command({'T', kBurstRecords, rate});
        wait_done();
        // Everything written is in the client's socket by now, or dropped: wait until the
        // callback has caught up, or has seen nothing new for 200 ms.
        uint64_t seen = g_delivery.received;
        while (seen < kBurstRecords) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            if (g_delivery.received == seen)
                break;
            seen = g_delivery.received;
        }
        const double took =
            static_cast<double>(g_delivery.last_arrival_ns - g_delivery.first_written_ns) / 1e9;
        state.SetIterationTime(took);
        seconds += took;
        delivered += g_delivery.received;
        lost += kBurstRecords - g_delivery.received;
    }
    state.SetItemsProcessed(static_cast<int64_t>(delivered));
    state.counters["delivered_per_s"] =
        seconds > 0 ? static_cast<double>(delivered) / seconds : 0.0;
    state.counters["lost"] = static_cast<double>(lost);
}
BENCHMARK(BM_PipeThroughput)
    ->Arg(100000)
    ->Arg(200000)
    ->Arg(0)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    signal(SIGPIPE, SIG_IGN);
    if (!start_publisher_and_client()) {
        std::fprintf(stderr, "could not start the publisher and connect to it\n");
        stop_publisher_and_client();
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    stop_publisher_and_client();
    return 0;
}
