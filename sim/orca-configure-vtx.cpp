// orca-configure-vtx on the simulated board: the transmitter service's configuration
// command. It changes the board state (power index, frequency, MCS) and appends the call
// to the sandbox's command log, where tests read what the tool asked for.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "board-state.h"
#include "rf-model.h"
#include "sandbox.h"

namespace {

void usage() {
    std::fprintf(stderr,
                 "Usage: orca-configure-vtx [-p power_index] [-F frequency_mhz] [-m mcs]\n");
}

bool parse_value(const char* text, long low, long high, int* value) {
    if (text == nullptr || *text == '\0')
        return false;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < low || v > high)
        return false;
    *value = static_cast<int>(v);
    return true;
}

void log_call(const std::string& root, int argc, char* argv[]) {
    std::string line = "orca-configure-vtx";
    for (int i = 1; i < argc; ++i)
        line += std::string(" ") + argv[i];
    line += "\n";
    const std::string path = board_sim::command_log_path(root);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        std::fprintf(stderr, "orca-configure-vtx: cannot log to %s: %s\n", path.c_str(),
                     std::strerror(errno));
    if (fd >= 0)
        close(fd);
}

}  // namespace

int main(int argc, char* argv[]) {
    const char* root = std::getenv("ORCA_SIM_ROOT");
    if (root == nullptr || *root == '\0') {
        std::fprintf(stderr, "orca-configure-vtx: no simulated board (ORCA_SIM_ROOT is unset)\n");
        return 1;
    }
    log_call(root, argc, argv);

    int power_index = -1;
    int frequency_mhz = -1;
    int mcs = -1;
    for (int i = 1; i < argc; ++i) {
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        bool ok = false;
        if (std::strcmp(argv[i], "-p") == 0)
            ok = parse_value(value, 1, 63, &power_index);
        else if (std::strcmp(argv[i], "-F") == 0)
            ok = parse_value(value, 1, 100000, &frequency_mhz);
        else if (std::strcmp(argv[i], "-m") == 0)
            ok = parse_value(value, 0, 31, &mcs);
        if (!ok) {
            std::fprintf(stderr, "orca-configure-vtx: bad option %s%s%s\n", argv[i],
                         value ? " " : "", value ? value : "");
            usage();
            return 1;
        }
        ++i;
    }
    if (power_index < 0 && frequency_mhz < 0 && mcs < 0) {
        usage();
        return 1;
    }
    const int result = board_sim::update_state(
        board_sim::state_file_path(root), [&](board_sim::BoardState* state) {
            if (power_index >= 0)
                state->power_index = power_index;
            if (frequency_mhz >= 0)
                state->frequency_mhz = frequency_mhz;
            if (mcs >= 0)
                state->mcs = mcs;
            state->output_dbm = board_sim::output_dbm(*state);
        });
    return result == 0 ? 0 : 1;
}
