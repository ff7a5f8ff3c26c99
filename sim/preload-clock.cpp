// The virtual clock of libboard-sim.so. The main thread's sleeps return at once (or after
// a scaled real wait, ORCA_SIM_TIME_SCALE) and move the clocks ahead by what they skipped;
// poll timeouts do the same once a short real wait has passed without an event. Threads
// other than the main one, and processes started with ORCA_SIM_REAL_TIME=1, keep real time.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "preload-trace.h"
#include "simulation.h"

using board_sim::Simulation;

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// Longest real wait of a poll timeout with the instant clock: long enough for a child
// process on the same machine to answer, short enough that a silent one costs little.
constexpr int kInstantPollMs = 20;
// A child that is still starting or working gets this much longer: on a loaded machine it
// may need more than one slice to answer, and a timeout must mean silence, not slowness.
constexpr uint64_t kBusyChildPatienceNs = 2000000000;

uint64_t real_now_ns() {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t to_ns(const timespec& ts) {
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

timespec from_ns(uint64_t ns) {
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(ns / 1000000000u);
    ts.tv_nsec = static_cast<long>(ns % 1000000000u);
    return ts;
}

// The simulation when this thread's waits are virtual, else nullptr.
Simulation* virtual_waits() {
    Simulation* simulation = Simulation::get();
    return (simulation && simulation->waits_are_virtual()) ? simulation : nullptr;
}

void simulated_wait(Simulation* simulation, uint64_t ns) {
    uint64_t real_ns = 0;
    if (simulation->time_scale() > 0.0) {
        REAL(nanosleep);
        const uint64_t start = real_now_ns();
        timespec scaled =
            from_ns(static_cast<uint64_t>(static_cast<double>(ns) * simulation->time_scale()));
        while (real_nanosleep(&scaled, &scaled) != 0 && errno == EINTR) {
        }
        real_ns = real_now_ns() - start;
    }
    simulation->account_wait(ns, real_ns);
}

bool shifted_clock(clockid_t clock) {
    switch (clock) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_RAW:
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_BOOTTIME:
        case CLOCK_TAI:
            return true;
        default:
            return false;  // CPU-time clocks measure real work
    }
}

// The state letter of a process from /proc/<pid>/stat, its parent and its process group;
// false when gone.
bool process_state(const char* pid_text, char* state, pid_t* parent, pid_t* group) {
    char path[300];
    std::snprintf(path, sizeof path, "/proc/%s/stat", pid_text);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char text[512];
    const ssize_t length = read(fd, text, sizeof text - 1);
    close(fd);
    if (length <= 0)
        return false;
    text[length] = '\0';
    // "pid (comm) state ppid pgrp ...": the command name may hold anything but its last ')'.
    const char* end_of_name = std::strrchr(text, ')');
    int parent_id = 0;
    int group_id = 0;
    if (end_of_name == nullptr ||
        std::sscanf(end_of_name + 1, " %c %d %d", state, &parent_id, &group_id) != 3)
        return false;
    *parent = parent_id;
    *group = group_id;
    return true;
}

// True when a process that may be about to answer us is running or waiting for the disk
// (state R or D), as opposed to asleep: any child of ours or any other process of our
// process group. The group matters because a child may sleep on a lock or a pipe held by a
// sibling of ours (the board's publisher, say) that is itself waiting for the CPU. Such work
// needs real time, which the virtual clock does not count.
bool child_is_busy(std::string* seen = nullptr) {
    char state = 0;
    pid_t parent = 0;
    pid_t group = 0;
    DIR* proc = opendir("/proc");
    if (proc == nullptr)
        return false;
    const pid_t self = getpid();
    const pid_t own_group = getpgrp();
    bool busy = false;
    for (const dirent* entry = readdir(proc); entry != nullptr && !busy; entry = readdir(proc)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9' ||
            !process_state(entry->d_name, &state, &parent, &group))
            continue;
        const bool related =
            parent == self || (group == own_group && std::atoi(entry->d_name) != self);
        busy = related && (state == 'R' || state == 'D');
        if (related && seen != nullptr)
            *seen += std::string(" ") + entry->d_name + ":" + state;
    }
    closedir(proc);
    return busy;
}

}  // namespace

EXPORT int clock_gettime(clockid_t clock, struct timespec* now) noexcept {
    REAL(clock_gettime);
    const int result = real_clock_gettime(clock, now);
    Simulation* simulation = Simulation::get();
    if (result == 0 && simulation && shifted_clock(clock))
        *now = from_ns(to_ns(*now) + simulation->clock_offset_ns());
    return result;
}

EXPORT int gettimeofday(struct timeval* now, void* zone) noexcept {
    REAL(gettimeofday);
    Simulation* simulation = Simulation::get();
    if (simulation == nullptr)
        return real_gettimeofday(now, zone);
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    now->tv_sec = ts.tv_sec;
    now->tv_usec = ts.tv_nsec / 1000;
    return 0;
}

EXPORT time_t time(time_t* result) noexcept {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    if (result != nullptr)
        *result = ts.tv_sec;
    return ts.tv_sec;
}

EXPORT int nanosleep(const struct timespec* request, struct timespec* remaining) {
    REAL(nanosleep);
    Simulation* simulation = virtual_waits();
    if (simulation == nullptr)
        return real_nanosleep(request, remaining);
    if (request == nullptr || request->tv_sec < 0 || request->tv_nsec < 0 ||
        request->tv_nsec >= 1000000000) {
        errno = EINVAL;
        return -1;
    }
    simulated_wait(simulation, to_ns(*request));
    if (remaining != nullptr)
        *remaining = timespec{};
    return 0;
}

EXPORT int clock_nanosleep(clockid_t clock, int flags, const struct timespec* request,
                           struct timespec* remaining) {
    REAL(clock_nanosleep);
    Simulation* simulation = virtual_waits();
    if (simulation == nullptr || !shifted_clock(clock))
        return real_clock_nanosleep(clock, flags, request, remaining);
    if (request == nullptr || request->tv_sec < 0 || request->tv_nsec < 0 ||
        request->tv_nsec >= 1000000000)
        return EINVAL;
    uint64_t ns = to_ns(*request);
    if (flags & TIMER_ABSTIME) {
        timespec now{};
        clock_gettime(clock, &now);
        ns = ns > to_ns(now) ? ns - to_ns(now) : 0;
    }
    simulated_wait(simulation, ns);
    if (remaining != nullptr && !(flags & TIMER_ABSTIME))
        *remaining = timespec{};
    return 0;
}

EXPORT int usleep(useconds_t microseconds) {
    REAL(usleep);
    Simulation* simulation = virtual_waits();
    if (simulation == nullptr)
        return real_usleep(microseconds);
    simulated_wait(simulation, static_cast<uint64_t>(microseconds) * 1000u);
    return 0;
}

EXPORT unsigned int sleep(unsigned int seconds) {
    REAL(sleep);
    Simulation* simulation = virtual_waits();
    if (simulation == nullptr)
        return real_sleep(seconds);
    simulated_wait(simulation, static_cast<uint64_t>(seconds) * 1000000000u);
    return 0;
}

EXPORT int poll(struct pollfd* fds, nfds_t count, int timeout_ms) {
    REAL(poll);
    Simulation* simulation = virtual_waits();
    if (simulation == nullptr || timeout_ms <= 0)
        return real_poll(fds, count, timeout_ms);
    const double scale = simulation->time_scale();
    const int real_timeout = scale > 0.0 ? std::max(1, static_cast<int>(timeout_ms * scale))
                                         : std::min(timeout_ms, kInstantPollMs);
    const uint64_t start = real_now_ns();
    int result = real_poll(fds, count, real_timeout);
    while (result == 0 && scale == 0.0 && real_now_ns() - start < kBusyChildPatienceNs &&
           child_is_busy())
        result = real_poll(fds, count, real_timeout);
    // A child may answer and go back to sleep between the last wait and the look at its
    // state: its answer is waiting, and one more look finds it before the timeout is skipped.
    if (result == 0 && scale == 0.0)
        result = real_poll(fds, count, 0);
    const uint64_t real_ns = real_now_ns() - start;
    if (result == 0) {
        if (board_sim::tracing(board_sim::kTraceClock)) {
            std::string seen;
            child_is_busy(&seen);
            board_sim::trace(board_sim::kTraceClock,
                             "poll timeout %d ms skipped after %llu ms; related:%s", timeout_ms,
                             static_cast<unsigned long long>(real_ns / 1000000), seen.c_str());
        }
        simulation->account_wait(static_cast<uint64_t>(timeout_ms) * 1000000u, real_ns);
    }
    return result;
}

// A WNOHANG test between virtual sleeps takes no real time, so it would find a child that
// only needs a moment more to finish (after closing its output, say) still running. While
// that child, or a process it may be waiting for (a child of its own, the board's publisher
// holding a lock), is busy the test waits for it in real time, as the real clock would have.
// Emulated programs take long enough over their exit to need the wider look.
EXPORT pid_t waitpid(pid_t pid, int* status, int options) {
    REAL(waitpid);
    pid_t result = real_waitpid(pid, status, options);
    Simulation* simulation = virtual_waits();
    if (result != 0 || !(options & WNOHANG) || simulation == nullptr ||
        simulation->time_scale() > 0.0)
        return result;
    REAL(nanosleep);
    const uint64_t start = real_now_ns();
    while (result == 0 && real_now_ns() - start < kBusyChildPatienceNs && child_is_busy()) {
        timespec pause{0, 1000000};
        real_nanosleep(&pause, nullptr);
        result = real_waitpid(pid, status, options);
    }
    // The child may have ended between the last test and the look at its state.
    if (result == 0)
        result = real_waitpid(pid, status, options);
    return result;
}
