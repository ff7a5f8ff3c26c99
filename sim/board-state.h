// The state of the simulated board that every process of one simulation shares: radio
// settings, which buses and targets exist, detector offsets and injected faults. It lives
// in a key=value text file in the sandbox, rewritten whole under a file lock.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace board_sim {

struct BoardState {
    // Radio, as the transmitter service would report it.
    int frequency_mhz = 5800;
    int mcs = 0;
    int power_index = 1;
    bool tx_on = true;
    double temperature_c = 25.0;
    double output_dbm = 0.0;

    // Board wiring: the I2C buses that exist and where the two targets answer (-1: absent).
    std::vector<int> buses = {1};
    int adc_bus = 1;
    int temp_bus = 1;
    int bus_khz = 400;

    // Detector: per-channel offsets of this board against the typical one, and noise.
    double ch0_offset_mv = 0.0;
    double ch1_offset_mv = 0.0;
    double noise_mv = 0.0;
    unsigned seed = 1;

    // A chosen output power in dBm per power index (entry 0 is index 1; indices past the
    // end take the last entry), in place of the default calibration. Tests steer the power
    // search through particular paths with it. Empty: the default model.
    std::vector<double> power_curve_dbm;

    // Injected faults in the text form of fault.h; every process counts its own traffic.
    std::string faults;

    // Keys this code does not know are kept, so that other tools may add their own.
    std::map<std::string, std::string> extra;
};

// Applies one "key=value" line to the state. Returns 0, or -1 with *error set when the
// key is known and its value does not parse.
int apply_state_line(BoardState* state, const std::string& line, std::string* error);
std::string format_state(const BoardState& state);

// The state file of a sandbox, and its reader and writers. Each returns 0 or -1 after a
// message on standard error. A missing file reads as the default state.
std::string state_file_path(const std::string& sandbox_root);
int load_state(const std::string& path, BoardState* state);
int save_state(const std::string& path, const BoardState& state);
// Read, change and write back under one exclusive lock.
int update_state(const std::string& path, const std::function<void(BoardState*)>& change);

}  // namespace board_sim
