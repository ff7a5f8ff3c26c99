// Control of the simulated board from a test that runs in-process under libboard-sim.so
// (see sim/README.md). Every call acts on the simulation of the calling process; the
// board state is shared with every process of the same sandbox.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "board-state.h"
#include "fault.h"

#define BOARD_SIM_API __attribute__((visibility("default")))

namespace board_sim {

// One operation seen on a simulated bus. For a write, `bytes` holds what was sent; for a
// read, what the target returned; a select carries the address only.
enum class TransferKind { kSelect, kWrite, kRead, kQuick, kReadByte };
struct Transfer {
    int bus = 0;
    int address = 0;
    TransferKind kind = TransferKind::kSelect;
    std::vector<uint8_t> bytes;
    bool ok = true;
    bool operator==(const Transfer& other) const {
        return bus == other.bus && address == other.address && kind == other.kind &&
               bytes == other.bytes && ok == other.ok;
    }
};
BOARD_SIM_API std::string describe(const Transfer& transfer);  // for test failure output

// True when the preload is loaded and a sandbox is in use.
BOARD_SIM_API bool active();
BOARD_SIM_API std::string sandbox_root();
// Where a fixed path of the board (under /data, /run/fjp, ...) really lives.
BOARD_SIM_API std::string sandbox_path(const std::string& fixed_path);

BOARD_SIM_API BoardState board_state();
BOARD_SIM_API int set_board_state(const BoardState& state);
BOARD_SIM_API int update_board_state(const std::function<void(BoardState*)>& change);

// Faults of this process, on top of those of the board state; counting starts now.
BOARD_SIM_API void set_faults(const std::vector<Fault>& faults);
// The same from the text form of fault.h ("write:0x1d:reg=0x1e:4;read:0x48:1"). Returns 0,
// or -1 after a message on standard error, leaving the faults as they were.
BOARD_SIM_API int set_faults(const std::string& specs);
BOARD_SIM_API void clear_faults();

// Frames that a device on the simulated buses acknowledged without making sense of them,
// counted over every process of the sandbox since it was made (reset_board keeps the
// count). A scan's probes and transfers cut short by a fault do not count. Tests on the
// simulated board expect none unless they send odd frames on purpose; ORCA_SIM_TRACE=bus
// marks each one.
BOARD_SIM_API uint64_t unexpected_frames();

// Recording of this process's bus traffic, off until started.
BOARD_SIM_API void start_recording();
BOARD_SIM_API std::vector<Transfer> recorded_traffic();

// Raw ADC buffers (16 entries, as the device holds them) for the next sequences, one per
// sequence; after them the RF model drives the channels again.
BOARD_SIM_API void queue_adc_buffer(const std::array<uint16_t, 16>& entries);
BOARD_SIM_API void clear_adc_queue();
// A raw temperature register word in place of the board temperature; -1 clears it.
BOARD_SIM_API void set_temperature_word(int word);
// ADS7142 register contents and the number of sequences it ran, for checks of the set-up.
BOARD_SIM_API int adc_register(uint8_t reg);
BOARD_SIM_API int adc_sequences();

// Virtual time consumed so far by every process of the sandbox: the simulated waits
// (sleeps and poll timeouts, as long as asked for) and the wire time of the bus traffic.
// The clocks (clock_gettime and the like) run ahead of real time by what the waits skipped.
BOARD_SIM_API uint64_t wait_time_ns();
BOARD_SIM_API uint64_t bus_time_ns();
// The host's real monotonic clock, for measuring real time under the simulation.
BOARD_SIM_API uint64_t real_monotonic_ns();

// Gives the RF model a chosen output power per power index (entry 0 is index 1; indices
// past the end take the last entry) and rewrites the sandbox's conversion tables to match,
// so that each index reads as exactly its dBm; an empty curve restores the default model.
// A process that already loaded the tables must reload them (init_csv_cache_manager).
BOARD_SIM_API int set_power_curve(const std::vector<double>& dbm_per_index);

// Back to a freshly powered board: default state, no faults, overrides or recording.
BOARD_SIM_API void reset_board();

}  // namespace board_sim
