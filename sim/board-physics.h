// Physics of a real board behind the RF model: the true output at the antenna port (unit
// gain and slope, soft compression with per-MCS back-off, temperature drift, settling after
// a change), the board's heating, and the detector's unit error and drift. The ideal board
// (no `board` key, or board=ideal) has none of it and reads the default tables exactly.
//
// Everything lives in the board state's own key=value lines (see sim/README.md), so that
// `--set` can change any of it and every process of a simulation sees the same board. The
// dynamics are anchored in time: the state holds the temperature and the output at the
// moment of the last change, and readers work out the present from the virtual clock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "board-state.h"

namespace board_sim {

struct BoardPhysics {
    bool enabled = false;
    std::string board = "ideal";

    // Power amplifier chains: [0] drives 2.4 GHz, [1] drives 5 GHz.
    double gain_db[2] = {0.0, 0.0};     // unit offset against the nominal curve
    double slope[2] = {1.0, 1.0};       // unit factor on the curve's rise above index 1
    double psat_dbm[2] = {99.0, 99.0};  // saturated output at MCS 0
    double rapp_p = 2.5;                // Rapp smoothness
    double mcs_backoff_db = 0.4;        // saturation falls this much per MCS step
    double pa_tc_db_per_c = -0.02;      // gain drift against 25 °C
    int stuck_index = 0;                // > 0: the radio stays at this index whatever is set
    bool dead_pa = false;

    // Detector: unit gain error on the swing above the idle voltage, and drift.
    double det_slope[2] = {1.0, 1.0};
    double det_tc_mv_per_c = -2.0;

    double settle_ms = 0.0;  // time constant of the output after a change

    // Heating: steady temperature = ambient + thermal_c_per_w x dissipated power.
    double ambient_c = 25.0;
    double thermal_c_per_w = 10.0;
    double thermal_tau_s = 120.0;
    double pa_efficiency = 0.25;
    double quiescent_w = 1.0;

    // Anchors of the dynamics, in virtual nanoseconds: the state's temperature_c holds at
    // thermal_at_ns; the output was settle_from_mw at settle_at_ns.
    uint64_t thermal_at_ns = 0;
    uint64_t settle_at_ns = 0;
    double settle_from_mw = 0.0;
};

// True when the state describes a real board rather than the ideal one.
bool has_physics(const BoardState& state);
// Reads the physics keys of a state. Returns 0, or -1 with *error set for a value that
// does not parse or is out of its range, or an unknown board name.
int read_physics(const BoardState& state, BoardPhysics* physics, std::string* error);
// Writes the keys back into state->extra (nothing for the ideal board).
void write_physics(const BoardPhysics& physics, BoardState* state);

// The profile names that --board accepts, in the order the help lists them.
const std::vector<std::string>& board_profiles();
// Puts a profile on a state (`ideal` removes every physics key). With a seed >= 0 the
// board's unit spreads are drawn from the population with that seed (state->seed takes it
// too, for the detector noise; the ideal board takes only that). Returns 0, or -1 with *error for
// an unknown profile.
int apply_board_profile(const std::string& name, long seed, BoardState* state, std::string* error);

// The board's temperature at `now_ns`.
double board_temperature_c(const BoardState& state, const BoardPhysics& physics, uint64_t now_ns);
// The output the board settles to for its radio settings at a temperature, dBm at the
// antenna port; -99 without a carrier.
double settled_output_dbm(const BoardState& state, const BoardPhysics& physics,
                          double temperature_c);
// The true output at `now_ns`, settling included.
double true_output_dbm(const BoardState& state, const BoardPhysics& physics, uint64_t now_ns);
// Noise-free detector voltage of channel 0 or 1 at `now_ns`, this board's offsets included.
double physics_detector_mv(const BoardState& state, const BoardPhysics& physics, int channel,
                           uint64_t now_ns);

// Carries the dynamics over a change of the state at `now_ns`: the temperature and the
// output reached under `before` become the new anchors of `after`, and output_dbm is set
// to what `after` settles to. A temperature the change set itself is kept as the anchor.
void carry_physics(const BoardState& before, BoardState* after, uint64_t now_ns);
// Anchors a freshly written state at `now_ns`: settled, at its temperature_c.
void anchor_physics(BoardState* state, uint64_t now_ns);

// The simulation's clock: the host's monotonic clock plus the offset that the virtual
// waits of the sandbox at `root` have added (0 when there is no such sandbox).
uint64_t virtual_now_ns(const std::string& root);

}  // namespace board_sim
