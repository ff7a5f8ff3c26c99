#include "board-state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "board-physics.h"
#include "shared-block.h"

namespace board_sim {

namespace {

bool parse_int(const std::string& text, int* value) {
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v < -2147483647L || v > 2147483647L)
        return false;
    *value = static_cast<int>(v);
    return true;
}

bool parse_double(const std::string& text, double* value) {
    if (text.empty())
        return false;
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (*end != '\0')
        return false;
    *value = v;
    return true;
}

bool parse_double_list(const std::string& text, std::vector<double>* values) {
    std::vector<double> result;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        double value = 0.0;
        if (!parse_double(item, &value) || !std::isfinite(value))
            return false;
        result.push_back(value);
    }
    *values = result;
    return true;
}

bool parse_bus_list(const std::string& text, std::vector<int>* buses) {
    std::vector<int> result;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        int bus = 0;
        if (!parse_int(item, &bus) || bus < 0 || bus > 255)
            return false;
        result.push_back(bus);
    }
    *buses = result;
    return true;
}

std::string format_double(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

std::string sandbox_of(const std::string& state_path) {
    size_t slash = state_path.rfind('/');
    return slash == std::string::npos ? "." : state_path.substr(0, slash);
}

// Holds an flock on the state file's companion lock file for its lifetime.
class StateLock {
  public:
    StateLock(const std::string& state_path, int operation) {
        const std::string lock_path = state_path + ".lock";
        fd_ = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ < 0) {
            std::fprintf(stderr, "board-sim: cannot open %s: %s\n", lock_path.c_str(),
                         std::strerror(errno));
            return;
        }
        while (flock(fd_, operation) != 0) {
            if (errno != EINTR) {
                std::fprintf(stderr, "board-sim: cannot lock %s: %s\n", lock_path.c_str(),
                             std::strerror(errno));
                close(fd_);
                fd_ = -1;
                return;
            }
        }
    }
    ~StateLock() {
        if (fd_ >= 0)
            close(fd_);  // releases the lock
    }
    StateLock(const StateLock&) = delete;
    StateLock& operator=(const StateLock&) = delete;
    bool held() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

int read_state_file(const std::string& path, BoardState* state) {
    BoardState result;
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        if (errno == ENOENT) {
            *state = result;
            return 0;
        }
        std::fprintf(stderr, "board-sim: cannot read %s: %s\n", path.c_str(), std::strerror(errno));
        return -1;
    }
    char buffer[1024];
    int line_number = 0;
    int status = 0;
    while (std::fgets(buffer, sizeof buffer, file) != nullptr) {
        ++line_number;
        std::string line(buffer);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.pop_back();
        std::string error;
        if (apply_state_line(&result, line, &error) != 0) {
            std::fprintf(stderr, "board-sim: %s:%d: %s\n", path.c_str(), line_number,
                         error.c_str());
            status = -1;
        }
    }
    std::fclose(file);
    if (status == 0)
        *state = result;
    return status;
}

// Writes a temporary file and renames it over the state file, so that a reader without
// the lock never sees half a file.
int write_state_file(const std::string& path, const BoardState& state) {
    const std::string temporary = path + ".new";
    FILE* file = std::fopen(temporary.c_str(), "w");
    if (file == nullptr) {
        std::fprintf(stderr, "board-sim: cannot write %s: %s\n", temporary.c_str(),
                     std::strerror(errno));
        return -1;
    }
    const std::string text = format_state(state);
    bool ok = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    ok = (std::fclose(file) == 0) && ok;
    if (!ok || std::rename(temporary.c_str(), path.c_str()) != 0) {
        std::fprintf(stderr, "board-sim: cannot write %s: %s\n", path.c_str(),
                     std::strerror(errno));
        std::remove(temporary.c_str());
        return -1;
    }
    // Processes that cache the state look at this counter before each use.
    static SharedBlock* block = nullptr;
    static std::string block_root;
    const std::string root = sandbox_of(path);
    if (block == nullptr || block_root != root) {
        block = map_shared_block(root, false);
        block_root = root;
    }
    if (block != nullptr)
        block->state_generation.fetch_add(1);
    return 0;
}

}  // namespace

int apply_state_line(BoardState* state, const std::string& line, std::string* error) {
    if (line.empty() || line[0] == '#')
        return 0;
    const size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0) {
        *error = "expected key=value, got \"" + line + "\"";
        return -1;
    }
    const std::string key = line.substr(0, equals);
    const std::string value = line.substr(equals + 1);
    int as_int = 0;
    bool ok = true;
    if (key == "frequency_mhz")
        ok = parse_int(value, &state->frequency_mhz);
    else if (key == "mcs")
        ok = parse_int(value, &state->mcs);
    else if (key == "power_index")
        ok = parse_int(value, &state->power_index);
    else if (key == "tx_on") {
        ok = parse_int(value, &as_int) && (as_int == 0 || as_int == 1);
        if (ok)
            state->tx_on = as_int == 1;
    } else if (key == "temperature_c")
        ok = parse_double(value, &state->temperature_c);
    else if (key == "output_dbm")
        ok = parse_double(value, &state->output_dbm);
    else if (key == "buses")
        ok = parse_bus_list(value, &state->buses);
    else if (key == "adc_bus")
        ok = parse_int(value, &state->adc_bus);
    else if (key == "temp_bus")
        ok = parse_int(value, &state->temp_bus);
    else if (key == "bus_khz")
        ok = parse_int(value, &state->bus_khz) && state->bus_khz > 0;
    else if (key == "ch0_offset_mv")
        ok = parse_double(value, &state->ch0_offset_mv);
    else if (key == "ch1_offset_mv")
        ok = parse_double(value, &state->ch1_offset_mv);
    else if (key == "noise_mv")
        ok = parse_double(value, &state->noise_mv) && state->noise_mv >= 0.0;
    else if (key == "seed") {
        ok = parse_int(value, &as_int);
        if (ok)
            state->seed = static_cast<unsigned>(as_int);
    } else if (key == "faults")
        state->faults = value;
    else if (key == "power_curve_dbm")
        ok = parse_double_list(value, &state->power_curve_dbm);
    else
        state->extra[key] = value;
    if (!ok) {
        *error = "bad value for " + key + ": \"" + value + "\"";
        return -1;
    }
    return 0;
}

std::string format_state(const BoardState& state) {
    std::string buses;
    for (size_t i = 0; i < state.buses.size(); ++i)
        buses += (i ? "," : "") + std::to_string(state.buses[i]);
    std::string text;
    text += "frequency_mhz=" + std::to_string(state.frequency_mhz) + "\n";
    text += "mcs=" + std::to_string(state.mcs) + "\n";
    text += "power_index=" + std::to_string(state.power_index) + "\n";
    text += "tx_on=" + std::string(state.tx_on ? "1" : "0") + "\n";
    text += "temperature_c=" + format_double(state.temperature_c) + "\n";
    text += "output_dbm=" + format_double(state.output_dbm) + "\n";
    text += "buses=" + buses + "\n";
    text += "adc_bus=" + std::to_string(state.adc_bus) + "\n";
    text += "temp_bus=" + std::to_string(state.temp_bus) + "\n";
    text += "bus_khz=" + std::to_string(state.bus_khz) + "\n";
    text += "ch0_offset_mv=" + format_double(state.ch0_offset_mv) + "\n";
    text += "ch1_offset_mv=" + format_double(state.ch1_offset_mv) + "\n";
    text += "noise_mv=" + format_double(state.noise_mv) + "\n";
    text += "seed=" + std::to_string(state.seed) + "\n";
    text += "faults=" + state.faults + "\n";
    if (!state.power_curve_dbm.empty()) {
        text += "power_curve_dbm=";
        for (size_t i = 0; i < state.power_curve_dbm.size(); ++i)
            text += (i ? "," : "") + format_double(state.power_curve_dbm[i]);
        text += "\n";
    }
    for (const auto& [key, value] : state.extra)
        text += key + "=" + value + "\n";
    return text;
}

std::string state_file_path(const std::string& sandbox_root) {
    return sandbox_root + "/board-state";
}

int load_state(const std::string& path, BoardState* state) {
    StateLock lock(path, LOCK_SH);
    if (!lock.held())
        return -1;
    return read_state_file(path, state);
}

int save_state(const std::string& path, const BoardState& state) {
    StateLock lock(path, LOCK_EX);
    if (!lock.held())
        return -1;
    return write_state_file(path, state);
}

int update_state(const std::string& path, const std::function<void(BoardState*)>& change) {
    StateLock lock(path, LOCK_EX);
    if (!lock.held())
        return -1;
    BoardState state;
    if (read_state_file(path, &state) != 0)
        return -1;
    const BoardState before = state;
    change(&state);
    // A real board's temperature and output carry on from where they were at this moment.
    if (has_physics(before) || has_physics(state))
        carry_physics(before, &state, virtual_now_ns(sandbox_of(path)));
    return write_state_file(path, state);
}

}  // namespace board_sim
