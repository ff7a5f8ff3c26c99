// Correcting the power index against the on-board detector: a stepping sequence after
// each change of the wanted power, then a steady-state hold on averaged measurements.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include <fmt/core.h>

#include "orca-vtx-helpers.h"

std::deque<int32_t> power_samples;
int32_t power_over_limit_cnt = 0;

namespace {

const vtx_profile_t* active_profile(const vtx_config_t* config) {
    if (config == nullptr) {
        fmt::print(stderr, "Error: no VTX configuration\n");
        return nullptr;
    }
    if (config->active_profile_idx < 0 ||
        config->active_profile_idx >= static_cast<int>(config->profiles.size())) {
        fmt::print(stderr, "Error: active profile {} does not exist ({} profiles)\n",
                   config->active_profile_idx, config->profiles.size());
        return nullptr;
    }
    return &config->profiles[config->active_profile_idx];
}

// The index in force. The profile's index and the offset are any values a caller stored,
// so the sum is taken in 64 bits.
int64_t current_index(const vtx_profile_t& profile, const PowerControl* control) {
    return int64_t{profile.power_idx} + control->index_offset;
}

// Moves the offset by one step; false (and no change) where it would leave its type.
bool step_offset(PowerControl* control, int step) {
    const int64_t next = int64_t{control->index_offset} + step;
    if (next < INT32_MIN || next > INT32_MAX)
        return false;
    control->index_offset = static_cast<int32_t>(next);
    return true;
}

void count_step(PowerControl* control) {
    if (control->step_count < INT32_MAX)
        control->step_count += 1;
}

// A limit in mW from a product in double: cut to the int range.
int to_mw_limit(double mw) {
    return static_cast<int>(
        std::clamp(mw, static_cast<double>(INT_MIN), static_cast<double>(INT_MAX)));
}

int apply_power_index(const vtx_config_t* config, const vtx_profile_t& profile,
                      const PowerControl* control, bool primary_override) {
    const int64_t index = std::clamp<int64_t>(current_index(profile, control), INT_MIN, INT_MAX);
    return set_power(config->card, static_cast<int>(index), profile.alt_power_idx, primary_override,
                     config->alt_power_enabled);
}

// Ends a sequence. Low-power profiles keep the level actually reached as their lower
// bound, since one index step there is a large share of the wanted power.
void settle(const vtx_profile_t& profile, PowerControl* control, std::deque<int32_t>& samples,
            int low_mw, int measured_mw) {
    control->active = false;
    control->step_count = 0;
    control->direction = 0;
    control->tolerance = 0.05;
    control->low_limit_mw = profile.power <= 999 ? measured_mw : low_mw;
    samples.clear();
}

int dbm_to_truncated_mw(double dbm) {
    const double mw = std::pow(10.0, dbm / 10.0);
    if (!(mw < static_cast<double>(INT32_MAX)))
        return mw > 0 ? INT32_MAX : 0;  // NaN from a broken reading counts as nothing
    return static_cast<int>(mw);
}

}  // namespace

int power_feedback_loop(vtx_config_t* config, PowerControl* control, double measured_dbm,
                        bool primary_override) {
    const vtx_profile_t* profile = control != nullptr ? active_profile(config) : nullptr;
    if (profile == nullptr)
        return -1;
    if (!std::isfinite(control->tolerance)) {
        fmt::print(stderr, "Error: power tolerance {} is not a finite number\n",
                   control->tolerance);
        return -1;
    }

    // The first measurement after a change may predate it.
    if (control->active && control->step_count == 0) {
        control->step_count = 1;
        return 0;
    }

    const int measured = dbm_to_truncated_mw(measured_dbm);
    const int low = control->low_limit_mw != 0
                        ? control->low_limit_mw
                        : to_mw_limit((1.0 - control->tolerance) * profile->power);
    power_samples.push_back(measured);
    if (static_cast<int64_t>(power_samples.size()) > control->averaging_depth)
        power_samples.pop_front();

    if (profile->power_idx == 63) {
        control->active = false;
        return 0;
    }
    const int high = to_mw_limit((1.0 + control->tolerance) * profile->power);

    if (control->active && !config->alt_power_enabled) {
        bool apply = false;
        if (measured >= low && measured <= high) {
            control->active = false;
            control->step_count = 0;
            control->low_limit_mw = low;
            control->direction = 0;
            control->tolerance = 0.05;
            power_samples.clear();
            // In band but above the wanted power: one step down as a final trim.
            if (measured > profile->power && current_index(*profile, control) >= 2)
                apply = step_offset(control, -1);
        } else if (measured < profile->power) {
            if (control->direction == 2 && control->step_count >= 3) {
                // Just stepped down past the band: stepping back up would oscillate.
                settle(*profile, control, power_samples, low, measured);
            } else {
                count_step(control);
                control->direction = 1;
                if (current_index(*profile, control) + 1 <= 63 && step_offset(control, 1))
                    apply = true;
                else
                    settle(*profile, control, power_samples, low, measured);
            }
        } else if (measured > profile->power) {
            control->direction = 2;
            count_step(control);
            // The offset stays stepped down even when that reaches the bottom and settles.
            const bool stepped = step_offset(control, -1);
            if (stepped && current_index(*profile, control) > 0)
                apply = true;
            else
                settle(*profile, control, power_samples, low, measured);
        }
        if (apply && apply_power_index(config, *profile, control, primary_override) != 0)
            std::printf("Failed to set requested power setting.\n");
    }

    if (!control->active &&
        static_cast<int64_t>(power_samples.size()) == control->averaging_depth) {
        steady_state_power_feedback_loop(config, control, power_samples, low, high, measured,
                                         primary_override);
    }
    return 0;
}

void steady_state_power_feedback_loop(vtx_config_t* config, PowerControl* control,
                                      std::deque<int32_t>& samples, int low_mw, int high_mw,
                                      int measured_mw, bool primary_override) {
    if (control == nullptr || control->active || control->averaging_depth <= 0 ||
        static_cast<int64_t>(samples.size()) != control->averaging_depth)
        return;
    const vtx_profile_t* profile = active_profile(config);
    if (profile == nullptr || profile->power_idx == 63)
        return;

    int64_t sum = 0;
    for (int32_t sample : samples)
        sum += sample;
    const int64_t average = sum / control->averaging_depth;
    const int64_t index = current_index(*profile, control);

    if (average < low_mw) {
        power_over_limit_cnt = 0;
        if (index <= 62 && step_offset(control, 1)) {
            apply_power_index(config, *profile, control, primary_override);
        } else {
            settle(*profile, control, samples, low_mw, measured_mw);
        }
        samples.clear();
    } else if (average > high_mw) {
        if (index <= 1)
            return;
        // A short excess is tolerated: five averages in a row, each over a window that has
        // moved by one measurement, before stepping down.
        if (power_over_limit_cnt <= 4) {
            power_over_limit_cnt += 1;
            return;
        }
        // The counter stays up, so a persisting excess steps down on every full window.
        if (step_offset(control, -1))
            apply_power_index(config, *profile, control, primary_override);
        samples.clear();
    } else {
        power_over_limit_cnt = 0;
        samples.clear();
    }
}
