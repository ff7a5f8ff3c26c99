// Apply a power index on the running transmitter service and measure what it yields: three
// fixed read cycles, each retried once, reduced to one dBm figure for the band in use.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "i2c-monitor.h"
#include "service-command.h"

namespace {

constexpr int kMinPowerLevel = 1;
constexpr int kMaxPowerLevel = 60;
constexpr int kReadingsPerLevel = 3;
constexpr int kUnknownRadioState = -9999;
constexpr useconds_t kSettleUs = 250000;
constexpr useconds_t kBetweenReadingsUs = 100000;
constexpr double kFailed = -1.0;

}  // namespace

bool is_valid_power_level(int power_index) {
    return power_index >= kMinPowerLevel && power_index <= kMaxPowerLevel;
}

void read_vtx_config(int* mcs, int* frequency_mhz) {
    // Both zero means the monitor never learned the radio state; -9999 makes the read
    // cycle's conversion refuse it instead of measuring against a wrong table.
    if (g_global_mcs == 0 && g_global_frequency == 0) {
        *mcs = kUnknownRadioState;
        *frequency_mhz = kUnknownRadioState;
        return;
    }
    *mcs = g_global_mcs;
    *frequency_mhz = g_global_frequency;
}

double apply_power_and_read_dbm(int fd, int power_index, SensorReading* reading, double band) {
    if (!is_valid_power_level(power_index)) {
        fprintf(stderr, "Invalid power level %d. Must be between %d and %d.\n", power_index,
                kMinPowerLevel, kMaxPowerLevel);
        return kFailed;
    }
    // The command's exit status is not looked at: a command that ran counts as applied.
    if (run_configure_vtx("-p", power_index) == -1) {
        perror("Failed to set power level");
        return kFailed;
    }
    usleep(kSettleUs);  // the radio settles on the new power

    // Channel 0 carries the 2.4 GHz detector, channel 1 the 5 GHz one.
    const bool channel0 = band == 2.4;
    double values[kReadingsPerLevel];
    int kept = 0;
    for (int n = 1; n <= kReadingsPerLevel; ++n) {
        printf("Taking reading %d of %d...\n", n, kReadingsPerLevel);
        if (n > 1)
            usleep(kBetweenReadingsUs);
        int mcs = 0;
        int frequency_mhz = 0;
        read_vtx_config(&mcs, &frequency_mhz);
        if (process_sensor_data(reading, fd, mcs, frequency_mhz) < 0) {
            printf("Reading %d failed, retrying...\n", n);
            usleep(kBetweenReadingsUs);
            if (process_sensor_data(reading, fd, mcs, frequency_mhz) < 0) {
                printf("Reading %d failed again!\n", n);
                continue;
            }
        }
        values[kept] = channel0 ? reading->ch0_dbm : reading->ch1_dbm;
        printf("Reading %d complete: %.2f dBm\n", n, values[kept]);
        ++kept;
    }

    double result = 0.0;
    if (kept == 0) {
        printf("All readings failed or were skipped!\n");
        return kFailed;
    }
    if (kept == kReadingsPerLevel) {
        std::sort(values, values + kept);
        result = values[kept / 2];
        printf("Using median value: %.2f dBm\n", result);
    } else {
        printf("Got %d valid readings out of %d expected\n", kept, kReadingsPerLevel);
        for (int i = 0; i < kept; ++i)
            result += values[i];
        result /= kept;
        printf("Using average of valid readings: %.2f dBm\n", result);
    }
    if (channel0)
        reading->ch0_dbm = result;
    else
        reading->ch1_dbm = result;
    return result;
}
