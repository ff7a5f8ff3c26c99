// The MP session: start of the script with transmission paused, the line protocol, and a
// stop that gives the script its chance to leave before it is terminated.
#include "mp_session.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

pid_t g_mp_pid = -1;
int g_mp_in = -1;
int g_mp_out = -1;
std::string g_mp_buf;
CalibrationTx g_mp_tx = {mp_set_frequency, mp_set_power, mp_tx_on, mp_tx_off};

namespace {

constexpr int kStartLineTimeoutMs = 120000;  // the script loads the MP driver first
constexpr int kAnswerTimeoutMs = 20000;
constexpr int kDrainLineTimeoutMs = 10000;
constexpr int kExitChecks = 100;
constexpr useconds_t kExitCheckPauseUs = 100000;
constexpr size_t kReadChunk = 512;
constexpr size_t kArgumentSize = 32;
constexpr size_t kCommandSize = 64;
constexpr const char* kStartMarker = "continuous TX paused";

int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

bool starts_with(const std::string& line, const char* prefix) {
    return line.compare(0, strlen(prefix), prefix) == 0;
}

void close_descriptor(int* fd) {
    if (*fd >= 0)
        close(*fd);
    *fd = -1;
}

int send_numbered(const char* name, int value) {
    char command[kCommandSize];
    snprintf(command, sizeof command, "%s %d", name, value);
    return mp_command(command);
}

void set_signal_handlers(void (*handler)(int), void (*pipe_handler)(int)) {
    signal(SIGPIPE, pipe_handler);
    signal(SIGINT, handler);
    signal(SIGTERM, handler);
    signal(SIGHUP, handler);
}

}  // namespace

int mp_start(int frequency_mhz, int mcs) {
    int to_child[2];
    int from_child[2];
    // Close-on-exec keeps the pipes out of every other program the tool starts: a stray
    // copy of the write end would hide the script's end of file from us.
    if (pipe2(to_child, O_CLOEXEC) != 0) {
        perror("[mp] pipe");
        return -1;
    }
    if (pipe2(from_child, O_CLOEXEC) != 0) {
        perror("[mp] pipe");
        close(to_child[0]);
        close(to_child[1]);
        return -1;
    }
    char freq_argument[kArgumentSize];
    char mcs_argument[kArgumentSize];
    char pktlen_argument[kArgumentSize];
    char pktint_argument[kArgumentSize];
    snprintf(freq_argument, sizeof freq_argument, "freq=%d", frequency_mhz);
    snprintf(mcs_argument, sizeof mcs_argument, "mcs=%d", mcs);
    snprintf(pktlen_argument, sizeof pktlen_argument, "pktlen=%d", kMpFrameBytes);
    snprintf(pktint_argument, sizeof pktint_argument, "pktint=%d", 1);

    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) {
        perror("[mp] fork");
        for (int fd : {to_child[0], to_child[1], from_child[0], from_child[1]})
            close(fd);
        return -1;
    }
    if (pid == 0) {
        dup2(to_child[0], STDIN_FILENO);
        dup2(from_child[1], STDOUT_FILENO);
        for (int fd : {to_child[0], to_child[1], from_child[0], from_child[1]}) {
            if (fd > STDERR_FILENO)
                close(fd);
        }
        setenv("NO_COLOR", "1", 1);
        execl("/bin/sh", "sh", kMpScriptPath, "tx", "paused=1", freq_argument, mcs_argument,
              "pwr=1", pktlen_argument, pktint_argument, static_cast<char*>(nullptr));
        perror("[mp] exec /usr/bin/rtw_mp_test.sh");
        _exit(127);
    }
    close(to_child[0]);
    close(from_child[1]);
    g_mp_pid = pid;
    g_mp_in = to_child[1];
    g_mp_out = from_child[0];

    // A write to a script that died fails with EPIPE instead of killing the tool.
    set_signal_handlers(mp_on_signal, SIG_IGN);
    printf("Starting Realtek MP session: %s tx paused=1 %s %s pwr=1 %s %s\n", kMpScriptPath,
           freq_argument, mcs_argument, pktlen_argument, pktint_argument);

    std::string line;
    for (;;) {
        const bool got_line = mp_read_line(&line, kStartLineTimeoutMs);
        if (got_line)
            printf("[mp] %s\n", line.c_str());
        if (got_line && starts_with(line, kStartMarker))
            break;
        if (!got_line || starts_with(line, "FAIL") || starts_with(line, "ERROR")) {
            fprintf(stderr,
                    "Error: the MP session did not start (see the [mp] lines above; the radio "
                    "driver must be the MP build)\n");
            mp_stop();
            return -1;
        }
    }
    g_calibration_tx = &g_mp_tx;
    return 0;
}

bool mp_read_line(std::string* line, int timeout_ms) {
    const int64_t deadline_ns = monotonic_ns() + static_cast<int64_t>(timeout_ms) * 1000000;
    for (;;) {
        const size_t newline = g_mp_buf.find('\n');
        if (newline != std::string::npos) {
            line->assign(g_mp_buf, 0, newline);
            g_mp_buf.erase(0, newline + 1);
            return true;
        }
        const int64_t remaining_ms = (deadline_ns - monotonic_ns()) / 1000000;
        if (remaining_ms < 1 || g_mp_out < 0)
            return false;
        pollfd input{g_mp_out, POLLIN, 0};
        const int ready = poll(&input, 1, static_cast<int>(remaining_ms));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        char chunk[kReadChunk];
        const ssize_t count = read(g_mp_out, chunk, sizeof chunk);
        if (count <= 0)
            return false;
        g_mp_buf.append(chunk, static_cast<size_t>(count));
    }
}

int mp_command(const char* text) {
    std::string command(text);
    command += '\n';
    const ssize_t written = g_mp_in >= 0 ? write(g_mp_in, command.data(), command.size()) : -1;
    if (written < static_cast<ssize_t>(command.size())) {
        fprintf(stderr, "[mp] cannot send '%s': MP session not running\n", text);
        return -1;
    }
    // Anything else the script prints is passed over; only the first OK or ERR counts.
    std::string line;
    for (;;) {
        if (!mp_read_line(&line, kAnswerTimeoutMs)) {
            fprintf(stderr, "[mp] no answer to '%s'\n", text);
            return -1;
        }
        printf("[mp] %s\n", line.c_str());
        if (starts_with(line, "OK"))
            return 0;
        if (starts_with(line, "ERR"))
            return -1;
    }
}

int mp_tx_off() {
    return mp_command("pause");
}

int mp_tx_on() {
    return mp_command("resume");
}

int mp_set_frequency(int frequency_mhz) {
    return send_numbered("freq", frequency_mhz);
}

int mp_set_power(int power_level) {
    return send_numbered("power", power_level);
}

void mp_stop() {
    if (g_mp_pid < 1)
        return;
    if (g_mp_in >= 0) {
        // A script that is gone already shows in the drain and the wait below.
        static const char kQuit[] = "quit\n";
        [[maybe_unused]] const ssize_t sent = write(g_mp_in, kQuit, sizeof kQuit - 1);
        close_descriptor(&g_mp_in);
    }
    std::string line;
    while (mp_read_line(&line, kDrainLineTimeoutMs))
        printf("[mp] %s\n", line.c_str());

    int status = 0;
    for (int i = 0; i < kExitChecks; ++i) {
        if (waitpid(g_mp_pid, &status, WNOHANG) != 0)
            break;
        usleep(kExitCheckPauseUs);
    }
    if (waitpid(g_mp_pid, &status, WNOHANG) == 0) {
        kill(g_mp_pid, SIGTERM);
        while (waitpid(g_mp_pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    close_descriptor(&g_mp_out);
    g_mp_pid = -1;
    // The handlers exist only while a script runs.
    set_signal_handlers(SIG_DFL, SIG_DFL);
}

void mp_on_signal(int signal_number) {
    if (g_mp_pid > 0)
        kill(g_mp_pid, SIGTERM);
    _exit(128 + signal_number);
}
