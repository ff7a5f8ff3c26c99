// The control API of board-sim.h over the process's simulation. Without an active
// simulation the calls do nothing and report so.
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <ctime>

#include "board-sim.h"
#include "rf-model.h"
#include "simulation.h"

namespace board_sim {

std::string describe(const Transfer& transfer) {
    static const char* const kKinds[] = {"select", "write", "read", "quick", "read-byte"};
    char head[64];
    std::snprintf(head, sizeof head, "bus %d 0x%02x %s%s", transfer.bus, transfer.address,
                  kKinds[static_cast<int>(transfer.kind)], transfer.ok ? "" : " FAILED");
    std::string text = head;
    for (uint8_t byte : transfer.bytes) {
        char hex[8];
        std::snprintf(hex, sizeof hex, " %02x", byte);
        text += hex;
    }
    return text;
}

bool active() {
    return Simulation::get() != nullptr;
}

std::string sandbox_root() {
    Simulation* simulation = Simulation::get();
    return simulation ? simulation->root() : std::string();
}

std::string sandbox_path(const std::string& fixed_path) {
    Simulation* simulation = Simulation::get();
    char mapped[PATH_MAX];
    if (simulation && simulation->map_path(fixed_path.c_str(), mapped, sizeof mapped))
        return mapped;
    return fixed_path;
}

BoardState board_state() {
    Simulation* simulation = Simulation::get();
    return simulation ? simulation->state() : BoardState{};
}

int set_board_state(const BoardState& state) {
    Simulation* simulation = Simulation::get();
    return simulation ? simulation->set_state(state) : -1;
}

int update_board_state(const std::function<void(BoardState*)>& change) {
    Simulation* simulation = Simulation::get();
    return simulation ? simulation->update_state(change) : -1;
}

void set_faults(const std::vector<Fault>& faults) {
    if (Simulation* simulation = Simulation::get())
        simulation->set_local_faults(faults);
}

int set_faults(const std::string& specs) {
    std::vector<Fault> faults;
    std::string error;
    if (parse_faults(specs, &faults, &error) != 0) {
        std::fprintf(stderr, "board-sim: %s\n", error.c_str());
        return -1;
    }
    set_faults(faults);
    return 0;
}

void clear_faults() {
    set_faults(std::vector<Fault>{});
}

uint64_t unexpected_frames() {
    Simulation* simulation = Simulation::get();
    return simulation ? simulation->unexpected_frames() : 0;
}

void start_recording() {
    if (Simulation* simulation = Simulation::get())
        simulation->start_recording();
}

std::vector<Transfer> recorded_traffic() {
    Simulation* simulation = Simulation::get();
    return simulation ? simulation->recorded_traffic() : std::vector<Transfer>{};
}

void queue_adc_buffer(const std::array<uint16_t, 16>& entries) {
    if (Simulation* simulation = Simulation::get())
        simulation->queue_adc_buffer(entries);
}

void clear_adc_queue() {
    if (Simulation* simulation = Simulation::get())
        simulation->clear_adc_queue();
}

void set_temperature_word(int word) {
    if (Simulation* simulation = Simulation::get())
        simulation->set_temperature_word(word);
}

int adc_register(uint8_t reg) {
    Simulation* simulation = Simulation::get();
    return simulation ? simulation->adc_register(reg) : -1;
}

int adc_sequences() {
    Simulation* simulation = Simulation::get();
    return simulation ? simulation->adc_sequences() : -1;
}

uint64_t wait_time_ns() {
    Simulation* simulation = Simulation::get();
    return simulation ? simulation->wait_ns() : 0;
}

uint64_t bus_time_ns() {
    Simulation* simulation = Simulation::get();
    return simulation ? simulation->bus_ns() : 0;
}

uint64_t real_monotonic_ns() {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

int set_power_curve(const std::vector<double>& dbm_per_index) {
    Simulation* simulation = Simulation::get();
    if (simulation == nullptr)
        return -1;
    BoardState changed;
    const int result = simulation->update_state([&](BoardState* state) {
        state->power_curve_dbm = dbm_per_index;
        changed = *state;
    });
    if (result != 0)
        return -1;
    return write_conversion_tables(simulation->root() + "/data/quillon/vtx", changed);
}

void reset_board() {
    Simulation* simulation = Simulation::get();
    if (simulation == nullptr)
        return;
    // A chosen power curve brought its own conversion tables; the fresh board has the
    // default ones again.
    const bool had_curve = !simulation->state().power_curve_dbm.empty();
    simulation->reset_board();
    if (had_curve)
        write_conversion_tables(simulation->root() + "/data/quillon/vtx");
}

}  // namespace board_sim
