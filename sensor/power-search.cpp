// The target-power search: bisection over power indices 1 to 60 on measured output, then a
// short linear scan, and the chosen index set on the transmitter service.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "i2c-monitor.h"
#include "service-command.h"

namespace {

constexpr int kLowestIndex = 1;
constexpr int kHighestIndex = 60;
constexpr double kToleranceDb = 0.25;
constexpr double kStepDb = 0.25;
constexpr double kMaxTargetDbm = 30.0;
constexpr double kMinTargetDbm = 0.0;
// A near-zero reading at high power means the detector sees nothing: something is wrong
// with the signal chain, and the safe choice is the lowest power, not the best so far.
constexpr int kZeroCheckAboveIndex = 25;
constexpr double kZeroReadingDb = 0.01;

// The search's own bands, narrower than the read cycle's: 5300-5699 MHz is refused.
// Deliberately narrower than frequency_band(): the search takes 5000-5299 and 5700-5999 MHz
// only, and refuses the frequencies between.
bool search_band(double frequency_mhz, double* band) {
    if (!(frequency_mhz > -1e9 && frequency_mhz < 1e9))
        return false;  // NaN or beyond any int: no band
    const int hundreds = static_cast<int>(frequency_mhz) / 100;
    if (hundreds >= 23 && hundreds <= 25)
        *band = 2.4;
    else if (hundreds >= 50 && hundreds <= 52)
        *band = 5.1;
    else if (hundreds >= 57 && hundreds <= 59)
        *band = 5.8;
    else
        return false;
    return true;
}

struct Search {
    int fd;
    SensorReading* reading;
    double band;
    double target;
    double best_distance = std::numeric_limits<double>::infinity();
    int best_index = -1;
};

double measure(Search* search, int index) {
    const double dbm = apply_power_and_read_dbm(search->fd, index, search->reading, search->band);
    printf("Testing power level %d -> %.1f dBm\n", index, dbm);
    return dbm;
}

bool zero_at_high_power(int index, double dbm) {
    return index > kZeroCheckAboveIndex && std::fabs(dbm) < kZeroReadingDb;
}

// Keeps the closest index so far (ties keep the earlier one) and tells whether this
// reading is within tolerance.
bool within_tolerance(Search* search, int index, double dbm) {
    const double distance = std::fabs(dbm - search->target);
    if (distance < search->best_distance) {
        search->best_distance = distance;
        search->best_index = index;
        printf("New best power level found: %d (%.1f dBm, %.1f from target)\n", index, dbm,
               distance);
    }
    return distance <= kToleranceDb;
}

int choose_minimum_power(int index) {
    printf("Detected 0 dBm reading at high power level %d\n", index);
    printf("This indicates potential signal issues - using minimum power for safety\n");
    printf(
        "Binary search complete. Best power level found: 1 (selecting minimum power due to "
        "zero readings at high power)\n");
    return kLowestIndex;
}

int found_within_tolerance(int index) {
    printf("Found power level within tolerance!\n");
    return index;
}

// The index to set, or -1 when no reading was ever usable.
int run_search(Search* search) {
    int low = kLowestIndex;
    int high = kHighestIndex;
    for (;;) {
        const int mid = low + (high - low) / 2;
        const double dbm = measure(search, mid);
        // Tested before success: a 0 dBm target must not accept a dead detector.
        if (zero_at_high_power(mid, dbm))
            return choose_minimum_power(mid);
        if (within_tolerance(search, mid, dbm))
            return found_within_tolerance(mid);
        if (search->target > dbm) {
            low = mid + 1;
            printf("dBm too low, searching higher range (%d to %d)\n", low, high);
        } else {
            high = mid - 1;
            printf("dBm too high, searching lower range (%d to %d)\n", low, high);
        }
        if (high < low)
            break;
        if (high - low < 2) {
            for (int index = low; index <= high; ++index) {
                const double value = measure(search, index);
                if (zero_at_high_power(index, value))
                    return choose_minimum_power(index);
                if (within_tolerance(search, index, value))
                    return found_within_tolerance(index);
            }
            break;
        }
    }
    printf("Binary search complete. Best power level found: %d\n", search->best_index);
    return search->best_index;
}

}  // namespace

void set_dBm(int fd, SensorReading* reading, bool* adjust_flag, int* chosen_index,
             double target_dbm, double frequency_mhz) {
    Search search{fd, reading, 0.0, 0.0};
    if (!search_band(frequency_mhz, &search.band)) {
        fprintf(stderr, "Error: Invalid frequency band. Must be 2.4, 5.1, or 5.8 GHz band.\n");
        *adjust_flag = false;
        return;
    }
    // Quarter-dB steps, halves away from zero, then within what the radio can do.
    search.target = std::round(target_dbm * 4.0) * kStepDb;
    if (search.target > kMaxTargetDbm) {
        fprintf(stderr, "Desired dBm is too high. Capping to 30 dBm.\n");
        search.target = kMaxTargetDbm;
    } else if (search.target < kMinTargetDbm) {
        search.target = kMinTargetDbm;
        fprintf(stderr, "Desired dBm is too low. Setting it to 0.\n");
    }

    printf("Searching for optimal power level (range: %d-%d) to achieve %.2f dBm at %.1f GHz...\n",
           kLowestIndex, kHighestIndex, search.target, search.band);
    printf("Starting binary search for power level...\n");
    printf("Target dBm: %.1f\n", search.target);

    const int chosen = run_search(&search);
    if (chosen < 0) {
        fprintf(stderr, "Failed to find optimal power level.\n");
        *adjust_flag = false;
        return;
    }
    *chosen_index = chosen;
    if (run_configure_vtx("-p", chosen) == -1)
        perror("Failed to set optimal power level");
    else
        printf("Optimal power level found: %d\n", chosen);
    *adjust_flag = false;
}
