// orca-sim-vtx-publisher: the simulated transmitter service's vtx_latency publisher. Each
// period it rereads the board-state file and publishes one 81-byte record with its values.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fjord_pipe.h"
#include <orca-vtx/orca-vtx-helpers.h>

namespace {

constexpr uint32_t kMagic = 0x4F524341;

struct Options {
    std::string state_path;
    std::string pipe_path = "/run/fjp/vtx_latency";
    long period_ms = 100;
    long count = 0;  // 0: until stopped; otherwise exit after this many records were read
};

// The keys this publisher reads from the board state, with their values when missing.
struct BoardState {
    int frequency_mhz = 5800;
    int mcs = 0;
    int power_index = 1;
    double temperature_c = 25.0;
    double output_dbm = 0.0;
};

volatile sig_atomic_t g_stop = 0;

void on_stop_signal(int) {
    g_stop = 1;
}

void print_usage() {
    fprintf(stderr,
            "Usage: orca-sim-vtx-publisher --state FILE [--period-ms N] [--pipe PATH] "
            "[--count N]\n");
}

bool parse_long(const char* text, long low, long high, long* value) {
    char* end = nullptr;
    errno = 0;
    long parsed = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || parsed < low || parsed > high)
        return false;
    *value = parsed;
    return true;
}

bool parse_options(int argc, char* argv[], Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (i + 1 >= argc) {
            fprintf(stderr, "Error: %s needs a value\n", option.c_str());
            return false;
        }
        const char* value = argv[++i];
        if (option == "--state") {
            options->state_path = value;
        } else if (option == "--pipe") {
            options->pipe_path = value;
        } else if (option == "--period-ms") {
            if (!parse_long(value, 1, 60000, &options->period_ms)) {
                fprintf(stderr, "Error: --period-ms takes 1 to 60000, not \"%s\"\n", value);
                return false;
            }
        } else if (option == "--count") {
            if (!parse_long(value, 0, 1000000000, &options->count)) {
                fprintf(stderr, "Error: --count takes a non-negative number, not \"%s\"\n", value);
                return false;
            }
        } else {
            fprintf(stderr, "Error: unknown option %s\n", option.c_str());
            return false;
        }
    }
    if (options->state_path.empty()) {
        fprintf(stderr, "Error: --state FILE is required\n");
        return false;
    }
    return true;
}

bool parse_int(const std::string& text, int* value) {
    long parsed;
    if (!parse_long(text.c_str(), -2147483647L - 1, 2147483647L, &parsed))
        return false;
    *value = static_cast<int>(parsed);
    return true;
}

bool parse_double(const std::string& text, double* value) {
    char* end = nullptr;
    double parsed = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0')
        return false;
    *value = parsed;
    return true;
}

// Applies one key=value line; false for a known key with a value that does not parse.
bool apply_line(const std::string& line, BoardState* state) {
    const size_t equals = line.find('=');
    if (equals == std::string::npos)
        return true;
    const std::string key = line.substr(0, equals);
    const std::string value = line.substr(equals + 1);
    if (key == "frequency_mhz")
        return parse_int(value, &state->frequency_mhz);
    if (key == "mcs")
        return parse_int(value, &state->mcs);
    if (key == "power_index")
        return parse_int(value, &state->power_index);
    if (key == "temperature_c")
        return parse_double(value, &state->temperature_c);
    if (key == "output_dbm")
        return parse_double(value, &state->output_dbm);
    return true;  // the simulator keeps other state in the same file
}

// Reads the state under a shared lock, so that a writer holding the lock is never seen
// half-way. A problem is reported once, not every period.
BoardState read_board_state(const std::string& path, std::string* last_problem) {
    BoardState state;
    std::string problem;
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) {
        problem = "cannot read " + path + ": " + strerror(errno) + "; publishing defaults";
    } else {
        flock(fileno(file), LOCK_SH);
        char line[1024];
        while (fgets(line, sizeof line, file) != nullptr) {
            std::string text = line;
            while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
                text.pop_back();
            BoardState before = state;
            if (!apply_line(text, &state)) {
                state = before;
                problem = "bad line \"" + text + "\" in " + path + "; using the default";
            }
        }
        flock(fileno(file), LOCK_UN);
        fclose(file);
    }
    if (!problem.empty() && problem != *last_problem)
        fprintf(stderr, "Warning: %s\n", problem.c_str());
    *last_problem = problem;
    return state;
}

VtxLatencyRecord make_record(const BoardState& state) {
    VtxLatencyRecord record;
    memset(&record, 0, sizeof record);
    record.magic_number = kMagic;
    record.temperature_c = state.temperature_c;
    record.output_dbm = state.output_dbm;
    record.power_index = state.power_index;
    record.frequency_mhz = state.frequency_mhz;
    record.mcs = state.mcs;
    return record;
}

void wait_period(long period_ms) {
    timespec pause = {period_ms / 1000, (period_ms % 1000) * 1000000L};
    nanosleep(&pause, nullptr);  // a stop signal cuts it short
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    if (!parse_options(argc, argv, &options)) {
        print_usage();
        return 1;
    }
    struct sigaction action = {};
    action.sa_handler = on_stop_signal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    if (pipe_server_create(0, options.pipe_path.c_str(), "vtx_latency_t") < 0) {
        fprintf(stderr, "Error: cannot publish %s\n", options.pipe_path.c_str());
        return 1;
    }
    std::string last_problem;
    long delivered = 0;
    while (!g_stop) {
        const VtxLatencyRecord record =
            make_record(read_board_state(options.state_path, &last_problem));
        const bool has_reader = pipe_server_get_num_clients(0) > 0;
        pipe_server_write(0, &record, sizeof record);
        if (has_reader && options.count > 0 && ++delivered >= options.count)
            break;
        wait_period(options.period_ms);
    }
    pipe_server_close(0);
    return 0;
}
