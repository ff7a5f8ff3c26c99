#include "board-physics.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>

#include "rf-model.h"
#include "shared-block.h"

namespace board_sim {

namespace {

constexpr double kNoCarrierDbm = -99.0;
constexpr double kReferenceC = 25.0;
// An unpowered amplifier still leaks the driver's signal through, this far down.
constexpr double kDeadPaIsolationDb = 40.0;

enum class Kind { kDouble, kInt, kFlag, kTime };

// One key of the state: its name, its kind and range, and where it lives.
struct Key {
    const char* name;
    Kind kind;
    double low;
    double high;
    void* (*slot)(BoardPhysics&);
};

#define SLOT(field) [](BoardPhysics& physics) -> void* { return &physics.field; }

const Key kKeys[] = {
    {"pa0_gain_db", Kind::kDouble, -60, 60, SLOT(gain_db[0])},
    {"pa1_gain_db", Kind::kDouble, -60, 60, SLOT(gain_db[1])},
    {"pa0_slope", Kind::kDouble, 0, 10, SLOT(slope[0])},
    {"pa1_slope", Kind::kDouble, 0, 10, SLOT(slope[1])},
    {"pa0_psat_dbm", Kind::kDouble, -50, 99, SLOT(psat_dbm[0])},
    {"pa1_psat_dbm", Kind::kDouble, -50, 99, SLOT(psat_dbm[1])},
    {"rapp_p", Kind::kDouble, 0.1, 50, SLOT(rapp_p)},
    {"mcs_backoff_db", Kind::kDouble, 0, 10, SLOT(mcs_backoff_db)},
    {"pa_tc_db_per_c", Kind::kDouble, -1, 1, SLOT(pa_tc_db_per_c)},
    {"stuck_index", Kind::kInt, 0, 63, SLOT(stuck_index)},
    {"dead_pa", Kind::kFlag, 0, 1, SLOT(dead_pa)},
    {"det0_slope", Kind::kDouble, 0, 10, SLOT(det_slope[0])},
    {"det1_slope", Kind::kDouble, 0, 10, SLOT(det_slope[1])},
    {"det_tc_mv_per_c", Kind::kDouble, -100, 100, SLOT(det_tc_mv_per_c)},
    {"settle_ms", Kind::kDouble, 0, 3600000, SLOT(settle_ms)},
    {"ambient_c", Kind::kDouble, -60, 150, SLOT(ambient_c)},
    {"thermal_c_per_w", Kind::kDouble, 0, 1000, SLOT(thermal_c_per_w)},
    {"thermal_tau_s", Kind::kDouble, 0.001, 1e6, SLOT(thermal_tau_s)},
    {"pa_efficiency", Kind::kDouble, 0.01, 1, SLOT(pa_efficiency)},
    {"quiescent_w", Kind::kDouble, 0, 100, SLOT(quiescent_w)},
    {"thermal_at_ns", Kind::kTime, 0, 0, SLOT(thermal_at_ns)},
    {"settle_at_ns", Kind::kTime, 0, 0, SLOT(settle_at_ns)},
    {"settle_from_mw", Kind::kDouble, 0, 1e9, SLOT(settle_from_mw)},
};

#undef SLOT

const std::vector<std::string> kProfiles = {"ideal",   "typical", "saturating",     "stuck-index",
                                            "dead-pa", "hot",     "noisy-detector", "swapped-card"};

template <typename T>
T& member(BoardPhysics* physics, const Key& key) {
    return *static_cast<T*>(key.slot(*physics));
}

template <typename T>
const T& member(const BoardPhysics& physics, const Key& key) {
    return *static_cast<const T*>(key.slot(const_cast<BoardPhysics&>(physics)));
}

std::string format_number(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

int parse_key(const Key& key, const std::string& text, BoardPhysics* physics) {
    if (text.empty())
        return -1;
    char* end = nullptr;
    errno = 0;
    if (key.kind == Kind::kTime) {
        const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
        if (errno != 0 || *end != '\0' || text[0] == '-')
            return -1;
        member<uint64_t>(physics, key) = value;
        return 0;
    }
    const double value = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !(value >= key.low && value <= key.high))
        return -1;
    if (key.kind == Kind::kInt || key.kind == Kind::kFlag) {
        if (value != std::floor(value))
            return -1;
        if (key.kind == Kind::kFlag)
            member<bool>(physics, key) = value != 0.0;
        else
            member<int>(physics, key) = static_cast<int>(value);
        return 0;
    }
    member<double>(physics, key) = value;
    return 0;
}

int chain_of(const char* tag) {
    return std::strcmp(tag, "2_4") == 0 ? 0 : 1;
}

double dbm_to_mw(double dbm) {
    return dbm <= kNoCarrierDbm ? 0.0 : std::pow(10.0, dbm / 10.0);
}

double mw_to_dbm(double mw) {
    return mw > 0.0 ? std::max(kNoCarrierDbm, 10.0 * std::log10(mw)) : kNoCarrierDbm;
}

// Rapp's solid-state amplifier model in power terms: linear far below saturation, smoothly
// limited at psat; p sets how sharp the knee is.
double rapp_dbm(double drive_dbm, double psat_dbm, double p) {
    const double ratio = std::pow(10.0, (drive_dbm - psat_dbm) / 10.0);
    return drive_dbm - 10.0 / p * std::log10(1.0 + std::pow(ratio, p));
}

double dissipated_w(const BoardPhysics& physics, double output_dbm) {
    const double out_w = dbm_to_mw(output_dbm) / 1000.0;
    return physics.quiescent_w + out_w * (1.0 / physics.pa_efficiency - 1.0);
}

double steady_temperature_c(const BoardState& state, const BoardPhysics& physics) {
    const double output = settled_output_dbm(state, physics, state.temperature_c);
    return physics.ambient_c + physics.thermal_c_per_w * dissipated_w(physics, output);
}

uint64_t real_monotonic_now_ns() {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

double uniform(std::mt19937* random, double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(*random);
}

// A normal draw, cut at `limit` standard deviations: units beyond the datasheet's
// tolerance do not leave the factory.
double normal(std::mt19937* random, double mean, double sigma, double limit) {
    for (;;) {
        const double z = std::normal_distribution<double>(0.0, 1.0)(*random);
        if (std::fabs(z) <= limit)
            return mean + sigma * z;
    }
}

// The nominal unit of a real board: the default curves as the small-signal drive, a
// saturation a few dB above their top, and the physics of sim/README.md at their typical
// values.
BoardPhysics typical_unit() {
    BoardPhysics physics;
    physics.enabled = true;
    physics.board = "typical";
    physics.psat_dbm[0] = nominal_top_dbm("2_4", 0) + 3.5;
    physics.psat_dbm[1] = std::max(nominal_top_dbm("5_1", 0), nominal_top_dbm("5_8", 0)) + 3.5;
    physics.settle_ms = 50.0;
    return physics;
}

// The unit-to-unit spreads of the population (values and reasons in sim/README.md).
void draw_unit(long seed, BoardPhysics* physics, BoardState* state) {
    std::mt19937 random(static_cast<uint32_t>(seed));
    for (int chain = 0; chain < 2; ++chain) {
        physics->gain_db[chain] = normal(&random, 0.0, 0.7, 2.0 / 0.7);
        physics->slope[chain] = normal(&random, 1.0, 0.03, 2.0);
        physics->psat_dbm[chain] += uniform(&random, 2.0, 5.0) - 3.5;
        physics->det_slope[chain] = normal(&random, 1.0, 0.03, 2.0);
    }
    physics->rapp_p = uniform(&random, 2.0, 3.0);
    physics->pa_tc_db_per_c = uniform(&random, -0.03, -0.01);
    physics->det_tc_mv_per_c = uniform(&random, -2.5, -1.5);
    physics->settle_ms = std::exp(uniform(&random, std::log(20.0), std::log(150.0)));
    physics->thermal_c_per_w = uniform(&random, 8.0, 12.0);
    physics->thermal_tau_s = uniform(&random, 90.0, 180.0);
    state->ch0_offset_mv = normal(&random, 0.0, 5.0, 3.0);
    state->ch1_offset_mv = normal(&random, 0.0, 5.0, 3.0);
}

}  // namespace

bool has_physics(const BoardState& state) {
    const auto board = state.extra.find("board");
    return board != state.extra.end() && board->second != "ideal";
}

int read_physics(const BoardState& state, BoardPhysics* physics, std::string* error) {
    BoardPhysics result;
    const auto board = state.extra.find("board");
    if (board != state.extra.end()) {
        if (std::find(kProfiles.begin(), kProfiles.end(), board->second) == kProfiles.end()) {
            *error = "unknown board \"" + board->second + "\"";
            return -1;
        }
        result.board = board->second;
        result.enabled = board->second != "ideal";
    }
    for (const Key& key : kKeys) {
        const auto found = state.extra.find(key.name);
        if (found == state.extra.end())
            continue;
        if (parse_key(key, found->second, &result) != 0) {
            *error = std::string("bad value for ") + key.name + ": \"" + found->second + "\"";
            return -1;
        }
    }
    *physics = result;
    return 0;
}

void write_physics(const BoardPhysics& physics, BoardState* state) {
    if (!physics.enabled)
        return;
    state->extra["board"] = physics.board;
    for (const Key& key : kKeys) {
        std::string text;
        switch (key.kind) {
            case Kind::kDouble:
                text = format_number(member<double>(physics, key));
                break;
            case Kind::kInt:
                text = std::to_string(member<int>(physics, key));
                break;
            case Kind::kFlag:
                text = member<bool>(physics, key) ? "1" : "0";
                break;
            case Kind::kTime:
                text = std::to_string(member<uint64_t>(physics, key));
                break;
        }
        state->extra[key.name] = text;
    }
}

const std::vector<std::string>& board_profiles() {
    return kProfiles;
}

int apply_board_profile(const std::string& name, long seed, BoardState* state, std::string* error) {
    if (std::find(kProfiles.begin(), kProfiles.end(), name) == kProfiles.end()) {
        *error = "unknown board \"" + name +
                 "\" (known: ideal, typical, saturating, "
                 "stuck-index, dead-pa, hot, noisy-detector, swapped-card)";
        return -1;
    }
    state->extra.erase("board");
    for (const Key& key : kKeys)
        state->extra.erase(key.name);
    if (seed >= 0)
        state->seed = static_cast<unsigned>(seed);
    if (name == "ideal")
        return 0;

    BoardPhysics physics = typical_unit();
    state->noise_mv = 1.0;
    if (seed >= 0)
        draw_unit(seed, &physics, state);
    physics.board = name;
    if (name == "saturating") {
        // Saturation reached in the middle of the index range ("txpower=58 definitely
        // causes PA saturation"): the top levels add almost nothing.
        physics.psat_dbm[0] = nominal_output_dbm("2_4", 0, 36);
        physics.psat_dbm[1] = nominal_output_dbm("5_8", 0, 36);
        physics.rapp_p = 3.0;
    } else if (name == "stuck-index") {
        physics.stuck_index = 20;  // the index it had when it stopped listening
    } else if (name == "dead-pa") {
        physics.dead_pa = true;
    } else if (name == "hot") {
        // No airflow in a closed airframe on a warm day.
        physics.ambient_c = 40.0;
        physics.thermal_c_per_w = 22.0;
        physics.thermal_tau_s = 60.0;
    } else if (name == "noisy-detector") {
        state->noise_mv = 25.0;
    } else if (name == "swapped-card") {
        // A card of another model behind this board's tables: 5 dB less at the bottom of
        // the range, and a steeper rise.
        for (int chain = 0; chain < 2; ++chain) {
            physics.gain_db[chain] -= 5.0;
            physics.slope[chain] *= 1.25;
        }
    }
    state->temperature_c = physics.ambient_c;
    write_physics(physics, state);
    return 0;
}

double settled_output_dbm(const BoardState& state, const BoardPhysics& physics,
                          double temperature_c) {
    const char* tag = band_tag_for_frequency(state.frequency_mhz);
    if (!state.tx_on || tag == nullptr)
        return kNoCarrierDbm;
    const int index = physics.stuck_index > 0 ? physics.stuck_index : state.power_index;
    const int chain = chain_of(tag);
    const double nominal = nominal_output_dbm(tag, state.mcs, index);
    if (nominal <= kNoCarrierDbm)
        return kNoCarrierDbm;
    const double bottom = nominal_output_dbm(tag, state.mcs, 1);
    const double drive = bottom + physics.slope[chain] * (nominal - bottom) +
                         physics.gain_db[chain] +
                         physics.pa_tc_db_per_c * (temperature_c - kReferenceC);
    const double psat =
        physics.psat_dbm[chain] - physics.mcs_backoff_db * std::clamp(state.mcs, 0, 31);
    const double output = rapp_dbm(drive, psat, physics.rapp_p);
    return physics.dead_pa ? output - kDeadPaIsolationDb : output;
}

double board_temperature_c(const BoardState& state, const BoardPhysics& physics, uint64_t now_ns) {
    if (!physics.enabled)
        return state.temperature_c;
    const double steady = steady_temperature_c(state, physics);
    const double elapsed_s =
        now_ns > physics.thermal_at_ns ? (now_ns - physics.thermal_at_ns) / 1e9 : 0.0;
    return steady + (state.temperature_c - steady) * std::exp(-elapsed_s / physics.thermal_tau_s);
}

double true_output_dbm(const BoardState& state, const BoardPhysics& physics, uint64_t now_ns) {
    if (!physics.enabled)
        return output_dbm(state);
    const double target =
        settled_output_dbm(state, physics, board_temperature_c(state, physics, now_ns));
    if (physics.settle_ms <= 0.0 || now_ns < physics.settle_at_ns)
        return target;
    const double elapsed_ms = (now_ns - physics.settle_at_ns) / 1e6;
    const double left = std::exp(-elapsed_ms / physics.settle_ms);
    if (left < 1e-9)
        return target;
    // The output power (not its dB figure) moves from where it was towards the new value.
    const double target_mw = dbm_to_mw(target);
    return mw_to_dbm(target_mw + (physics.settle_from_mw - target_mw) * left);
}

double physics_detector_mv(const BoardState& state, const BoardPhysics& physics, int channel,
                           uint64_t now_ns) {
    const double offset = channel == 0 ? state.ch0_offset_mv : state.ch1_offset_mv;
    const double temperature = board_temperature_c(state, physics, now_ns);
    const double drift = physics.det_tc_mv_per_c * (temperature - kReferenceC);
    const char* tag = band_tag_for_frequency(state.frequency_mhz);
    const int carrier_channel = (tag != nullptr && chain_of(tag) == 0) ? 0 : 1;
    if (tag == nullptr || channel != carrier_channel)
        return kIdleDetectorMv + offset + drift;
    const double output = true_output_dbm(state, physics, now_ns);
    const double swing = output <= kNoCarrierDbm
                             ? 0.0
                             : nominal_detector_mv(tag, state.mcs, output) - kIdleDetectorMv;
    return kIdleDetectorMv + physics.det_slope[channel] * swing + offset + drift;
}

void carry_physics(const BoardState& before, BoardState* after, uint64_t now_ns) {
    BoardPhysics old_physics;
    BoardPhysics physics;
    std::string error;
    if (read_physics(*after, &physics, &error) != 0 || !physics.enabled)
        return;
    if (read_physics(before, &old_physics, &error) != 0 || !old_physics.enabled) {
        anchor_physics(after, now_ns);
        return;
    }
    const double temperature = board_temperature_c(before, old_physics, now_ns);
    const double output_mw = dbm_to_mw(true_output_dbm(before, old_physics, now_ns));
    if (after->temperature_c == before.temperature_c)
        after->temperature_c = temperature;
    physics.thermal_at_ns = now_ns;
    const double old_target = settled_output_dbm(before, old_physics, temperature);
    const double new_target = settled_output_dbm(*after, physics, after->temperature_c);
    if (new_target != old_target) {
        physics.settle_from_mw = output_mw;
        physics.settle_at_ns = now_ns;
    }
    write_physics(physics, after);
    after->output_dbm = new_target;
}

void anchor_physics(BoardState* state, uint64_t now_ns) {
    BoardPhysics physics;
    std::string error;
    if (read_physics(*state, &physics, &error) != 0 || !physics.enabled)
        return;
    physics.thermal_at_ns = now_ns;
    physics.settle_at_ns = now_ns;
    state->output_dbm = settled_output_dbm(*state, physics, state->temperature_c);
    physics.settle_from_mw = dbm_to_mw(state->output_dbm);
    write_physics(physics, state);
}

uint64_t virtual_now_ns(const std::string& root) {
    static SharedBlock* block = nullptr;
    static std::string block_root;
    if (block == nullptr || block_root != root) {
        block = map_shared_block(root, false);
        block_root = root;
    }
    const uint64_t offset = block != nullptr ? block->clock_offset_ns.load() : 0;
    return real_monotonic_now_ns() + offset;
}

}  // namespace board_sim
